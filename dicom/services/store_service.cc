#include "dicom/services/store_service.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "dcmtk/dcmdata/dcdatset.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/dataset.h"
#include "monitor/serverstate.h"
#include "store/local_store.h"
#include "support/log.h"
#include "support/server_config.h"

namespace {

bool overwrites(const char* called_aetitle) {
    if (std::strcmp(called_aetitle, "TarvoOverwrite") == 0) return true;
    if (std::strcmp(called_aetitle, "TarvoPreserve") == 0) return false;
    return server_config.overwrite != 0;
}

int store_dataset(DcmDataset* dataset, bool overwrite) {
    const int result = local_store.WriteDataset(dataset, overwrite ? 1 : 0, nullptr, 0);
    if (result != 0 || server_config.symlinks == 0) return result;
    return local_store.WriteSymlinks(dataset);
}

// The response status for a result of the store. Results outside the table count as success.
Uint16 response_status(int result) {
    switch (result) {
        case 1:
            return STATUS_STORE_Warning_ElementsDiscarded;
        case 3:
        case 5:
            return STATUS_STORE_Refused_OutOfResources;
        case 6:
            return STATUS_STORE_Error_CannotUnderstand;
        default:
            return STATUS_STORE_Success;
    }
}

const char* uid_text(DcmDataset* dataset, const DcmTagKey& tag) {
    const char* const uid = DCMTK_getTagString(dataset, tag);
    return uid != nullptr ? uid : "(null)";
}

void announce(DcmDataset* dataset) {
    char text[1024];
    std::snprintf(text, sizeof text, "STOREUID %s %s %s", uid_text(dataset, DCM_StudyInstanceUID),
                  uid_text(dataset, DCM_SeriesInstanceUID), uid_text(dataset, DCM_SOPInstanceUID));
    server_state.change_verbose(text);
}

}  // namespace

void store_callback(void* callback_data, T_DIMSE_StoreProgress* progress,
                    T_DIMSE_C_StoreRQ* request, char* /*file_name*/, DcmDataset** dataset,
                    T_DIMSE_C_StoreRSP* response, DcmDataset** /*status_detail*/) {
    const auto* const context = static_cast<const movedata*>(callback_data);
    // The watchdog guards silence: a large image over a slow line makes progress and lives on.
    ::alarm(tarvo::silence_limit);
    if (progress->state != DIMSE_StoreEnd) return;
    if (dataset == nullptr || *dataset == nullptr) {
        logprintf(8, server_config.log,
                  "C-Store of %s refused: its data set is cut short or nested too deeply\n",
                  request->AffectedSOPInstanceUID);
        return;  // the toolkit layer has set the status
    }
    const int result = store_dataset(*dataset, overwrites(context->called_aetitle));
    response->DimseStatus = response_status(result);
    if (response->DimseStatus == STATUS_STORE_Success) announce(*dataset);
}
