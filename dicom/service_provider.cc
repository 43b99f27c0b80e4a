#include "dicom/service_provider.h"

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcfilefo.h"

#include "dicom/toolkit_trace.h"

namespace {

constexpr int no_timeout = 0;  // blocking mode does not look at it

// One C-STORE while its data set comes in.
struct Reception {
    DIMSE_StoreProviderCallback callback;
    void* callback_data;
    bool whole;
};

// Whether all that the data set has promised so far has come in. Only to be asked while it is
// being received: the toolkit forgets these states at the end. Looks at the last element alone,
// where the toolkit goes on reading; anything that walks through the data set would move that.
bool is_whole(DcmDataset& dataset) {
    if (dataset.transferState() != ERW_ready) return false;
    const unsigned long count = dataset.card();
    if (count == 0) return true;
    DcmElement& last = *dataset.getElement(count - 1);
    return last.transferState() == ERW_ready || last.getLengthField() == 0;
}

// Sequences within sequences. The toolkit calls itself for each level, and needs more stack for one
// that comes from a file than for one that comes from the network: what could just be received
// could never be sent on.
constexpr unsigned long deepest_nesting = 512;

bool is_nested_too_deeply(DcmDataset& dataset) {
    DcmStack path;  // the data set, and by level a sequence and an item
    while (dataset.nextObject(path, OFTrue).good()) {
        if (path.card() > 1 + 2 * deepest_nesting + 1) return true;
    }
    return false;
}

// The toolkit reports an end in the middle of a value, but takes a data set for complete that ends
// in front of a value, within an element header or within a sequence, or anywhere when the last
// fragment is empty. What is missing of a value is then whatever was in that memory.
void receive(void* callback_data, T_DIMSE_StoreProgress* progress, T_DIMSE_C_StoreRQ* request,
             char* file_name, DcmDataset** dataset, T_DIMSE_C_StoreRSP* response,
             DcmDataset** status_detail) {
    Reception& reception = *static_cast<Reception*>(callback_data);
    DcmDataset* received = *dataset;
    if (progress->state == DIMSE_StoreProgressing) reception.whole = is_whole(*received);
    if (progress->state == DIMSE_StoreEnd &&
        (!reception.whole || is_nested_too_deeply(*received))) {
        tarvo::trace_toolkit_failure("DCMTK_SCP_store: failure.\n");
        response->DimseStatus = STATUS_STORE_Error_CannotUnderstand;
        received = nullptr;
    }
    if (reception.callback == nullptr) return;
    reception.callback(reception.callback_data, progress, request, file_name, &received, response,
                       status_detail);
}

OFCondition trace_when_bad(const OFCondition& result, const char* text) {
    if (result.bad()) tarvo::trace_toolkit_failure(text);
    return result;
}

}  // namespace

OFCondition DCMTK_SCP_echo(T_ASC_Association* assoc, T_DIMSE_Message* message,
                           T_ASC_PresentationContextID presentationContextID) {
    return DIMSE_sendEchoResponse(assoc, presentationContextID, &message->msg.CEchoRQ,
                                  STATUS_Success, nullptr);
}

OFCondition DCMTK_SCP_store(T_ASC_Association* assoc, T_DIMSE_Message* message,
                            T_ASC_PresentationContextID presentationContextID,
                            DIMSE_StoreProviderCallback callback, void* callbackData) {
    DcmFileFormat file;
    DcmDataset* dataset = file.getDataset();
    Reception reception{callback, callbackData, false};
    return trace_when_bad(
        DIMSE_storeProvider(assoc, presentationContextID, &message->msg.CStoreRQ, nullptr, OFFalse,
                            &dataset, receive, &reception, DIMSE_BLOCKING, no_timeout),
        "DCMTK_SCP_store: failure.\n");
}

OFCondition DCMTK_SCP_find(T_ASC_Association* assoc, T_DIMSE_Message* message,
                           T_ASC_PresentationContextID presentationContextID,
                           DIMSE_FindProviderCallback callback, void* callbackData) {
    return trace_when_bad(DIMSE_findProvider(assoc, presentationContextID, &message->msg.CFindRQ,
                                             callback, callbackData, DIMSE_BLOCKING, no_timeout),
                          "DCMTK_SCP_find: DIMSE_findProvider failure\n");
}

OFCondition DCMTK_SCP_move(T_ASC_Association* assoc, T_DIMSE_Message* message,
                           T_ASC_PresentationContextID presentationContextID,
                           DIMSE_MoveProviderCallback callback, void* callbackData) {
    // Readers of traces know this failure by the text of a C-FIND user.
    return trace_when_bad(DIMSE_moveProvider(assoc, presentationContextID, &message->msg.CMoveRQ,
                                             callback, callbackData, DIMSE_BLOCKING, no_timeout),
                          "DCMTK_SCU_find: failure\n");
}
