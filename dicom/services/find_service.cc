#include "dicom/services/find_service.h"

void find_callback(void* /*callback_data*/, OFBool cancelled, T_DIMSE_C_FindRQ* /*request*/,
                   DcmDataset* /*identifier*/, int /*response_count*/, T_DIMSE_C_FindRSP* response,
                   DcmDataset** /*response_identifier*/, DcmDataset** /*status_detail*/) {
    // Nothing can be searched yet: every query is answered as one without a match.
    response->DimseStatus =
        cancelled ? STATUS_FIND_Cancel_MatchingTerminatedDueToCancelRequest : STATUS_Success;
}
