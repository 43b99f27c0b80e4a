#include "dicom/services/find_service.h"

#include <unistd.h>

#include "dicom/dataset.h"
#include "support/server_config.h"

void find_callback(void* callback_data, OFBool cancelled, T_DIMSE_C_FindRQ* /*request*/,
                   DcmDataset* identifier, int response_count, T_DIMSE_C_FindRSP* response,
                   DcmDataset** response_identifier, DcmDataset** /*status_detail*/) {
    auto& context = *static_cast<movedata*>(callback_data);
    ::alarm(tarvo::silence_limit);  // every answer is a sign of life
    if (response_count == 1 || cancelled) context.find_handle.reset();
    if (cancelled) {
        response->DimseStatus = STATUS_FIND_Cancel_MatchingTerminatedDueToCancelRequest;
        return;
    }
    // A query that fails is answered like one that finds nothing.
    if (local_store.FindDataset(context.find_handle.address(), identifier, response_identifier,
                                nullptr) != 0) {
        response->DimseStatus = STATUS_FIND_Success_MatchingIsComplete;
        return;
    }
    if (server_config.charset[0] != '\0') {
        // The answer is worth more than its character set.
        static_cast<void>(
            DCMTK_Key_Add(*response_identifier, 0x0008, 0x0005, server_config.charset));
    }
    response->DataSetType = DIMSE_DATASET_PRESENT;
    response->DimseStatus = STATUS_FIND_Pending_MatchesAreContinuing;
}
