#include "dicom/service_user.h"

#include <memory>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/cond.h"
#include "dcmtk/dcmnet/diutil.h"

#include "dicom/toolkit_trace.h"
#include "support/bounded_string.h"

using tarvo::trace_toolkit_failure;

namespace {

constexpr int no_timeout = 0;  // blocking mode does not look at it

// A data set that the toolkit hands out: the status detail or the identifier of a response, which
// nobody here wants but somebody has to delete.
class ReturnedDataset {
  public:
    ReturnedDataset() = default;
    ReturnedDataset(const ReturnedDataset&) = delete;
    ReturnedDataset(ReturnedDataset&&) = delete;
    ReturnedDataset& operator=(const ReturnedDataset&) = delete;
    ReturnedDataset& operator=(ReturnedDataset&&) = delete;
    ~ReturnedDataset() { delete dataset_; }

    DcmDataset** address() { return &dataset_; }

  private:
    DcmDataset* dataset_ = nullptr;
};

// UIDs and AE titles longer than DICOM allows are cut: the peer then refuses them.
template <std::size_t size>
void set_text(char (&field)[size], const char* text) {
    static_cast<void>(vr_strncpy(field, text, size));
}

// Fills what every request has.
template <typename Request>
void start_request(Request& request, T_ASC_Association& association, const char* sop_class) {
    request.MessageID = association.nextMsgID++;
    set_text(request.AffectedSOPClassUID, sop_class);
    request.Priority = DIMSE_PRIORITY_LOW;
    request.DataSetType = DIMSE_DATASET_PRESENT;
}

// Traces the final status; C-MOVE uses the words of C-FIND as well.
void trace_response(const char* function, Uint16 status) {
    tarvo::debug_trace(tarvo::trace_dicom_toolkit, tarvo::trace_information, "%s: Response: %s\n",
                       function, DU_cfindStatusString(status));
}

OFCondition send_image(T_ASC_Association& association, T_ASC_PresentationContextID context,
                       T_DIMSE_C_StoreRQ& request, DcmDataset* dataset) {
    T_DIMSE_C_StoreRSP response{};
    ReturnedDataset status_detail;
    const OFCondition result =
        DIMSE_storeUser(&association, context, &request, nullptr, dataset, nullptr, nullptr,
                        DIMSE_BLOCKING, no_timeout, &response, status_detail.address());
    if (result.bad()) trace_toolkit_failure("DCMTK_SCU_store: DIMSE_storeUser failure\n");
    return result;
}

}  // namespace

OFCondition DCMTK_SCU_echo(T_ASC_Association* assoc) {
    DIC_US status = STATUS_Success;
    ReturnedDataset status_detail;
    const OFCondition result = DIMSE_echoUser(assoc, assoc->nextMsgID++, DIMSE_BLOCKING, no_timeout,
                                              &status, status_detail.address());
    // Readers of traces know this failure by the text of a failed dissociation.
    if (result.bad()) trace_toolkit_failure("DCMTK_dissociate: destroy failure.\n");
    return result;
}

OFCondition DCMTK_SCU_store(T_ASC_Association* assoc, DcmDataset* dataset) {
    DIC_UI sop_class{};
    DIC_UI sop_instance{};
    if (dataset == nullptr ||
        !DU_findSOPClassAndInstanceInDataSet(dataset, sop_class, sizeof(sop_class), sop_instance,
                                             sizeof(sop_instance))) {
        trace_toolkit_failure("DCMTK_SCU_store: failed to find SOPClass/Instance.\n");
        return DIMSE_BADDATA;
    }
    const auto context = ASC_findAcceptedPresentationContextID(assoc, sop_class);
    if (context == 0) {
        trace_toolkit_failure("DCMTK_SCU_store: failed to find PC.\n");
        return DIMSE_NOVALIDPRESENTATIONCONTEXTID;
    }
    T_DIMSE_C_StoreRQ request{};
    start_request(request, *assoc, sop_class);
    set_text(request.AffectedSOPInstanceUID, sop_instance);
    return send_image(*assoc, context, request, dataset);
}

OFCondition DCMTK_SCU_find(T_ASC_Association* assoc, const char* sopClass, DcmDataset* identifier,
                           DIMSE_FindUserCallback callback, void* callbackData) {
    const auto context = ASC_findAcceptedPresentationContextID(assoc, sopClass);
    if (context == 0) {
        trace_toolkit_failure("DCMTK_SCU_find: No valid PC\n");
        return DIMSE_NOVALIDPRESENTATIONCONTEXTID;
    }
    T_DIMSE_C_FindRQ request{};
    start_request(request, *assoc, sopClass);
    T_DIMSE_C_FindRSP response{};
    int response_count = 0;
    ReturnedDataset status_detail;
    const OFCondition result =
        DIMSE_findUser(assoc, context, &request, identifier, response_count, callback, callbackData,
                       DIMSE_BLOCKING, no_timeout, &response, status_detail.address());
    if (result.good()) {
        trace_response("DCMTK_SCU_find", response.DimseStatus);
    } else {
        trace_toolkit_failure("DCMTK_SCU_find: failure\n");
    }
    return result;
}

OFCondition DCMTK_SCU_move(T_ASC_Association* assoc, const char* sopClass, DcmDataset* identifier,
                           const char* destination, DIMSE_MoveUserCallback callback,
                           void* callbackData) {
    const auto context = ASC_findAcceptedPresentationContextID(assoc, sopClass);
    if (context == 0) {
        trace_toolkit_failure("DCMTK_SCU_move: No valid PC\n");
        return DIMSE_NOVALIDPRESENTATIONCONTEXTID;
    }
    T_DIMSE_C_MoveRQ request{};
    start_request(request, *assoc, sopClass);
    set_text(request.MoveDestination, destination);
    T_DIMSE_C_MoveRSP response{};
    ReturnedDataset status_detail;
    ReturnedDataset failed_instances;
    const OFCondition result = DIMSE_moveUser(
        assoc, context, &request, identifier, callback, callbackData, DIMSE_BLOCKING, no_timeout,
        nullptr, nullptr, nullptr, &response, status_detail.address(), failed_instances.address());
    if (result.good()) {
        trace_response("DCMTK_SCU_move", response.DimseStatus);
    } else {
        trace_toolkit_failure("DCMTK_SCU_move: DIMSE_moveUser failure\n");
    }
    return result;
}
