#include "dicom/services/move_service.h"

void move_callback(void* /*callback_data*/, OFBool cancelled, T_DIMSE_C_MoveRQ* /*request*/,
                   DcmDataset* /*identifier*/, int /*response_count*/, T_DIMSE_C_MoveRSP* response,
                   DcmDataset** /*status_detail*/, DcmDataset** /*response_identifiers*/) {
    // Nothing can be searched yet: every move is answered as one without a match.
    response->DimseStatus = cancelled
                                ? STATUS_MOVE_Cancel_SubOperationsTerminatedDueToCancelIndication
                                : STATUS_Success;
}
