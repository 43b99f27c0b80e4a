// The C-MOVE provider (PS3.4, annex C; PS3.7, 9.1.4).
#pragma once

#include "dicom/services/callback_record.h"

// Move-provider callback of the toolkit; `callback_data` is the movedata of the command. Called
// once for each response to send.
void move_callback(void* callback_data, OFBool cancelled, T_DIMSE_C_MoveRQ* request,
                   DcmDataset* identifier, int response_count, T_DIMSE_C_MoveRSP* response,
                   DcmDataset** status_detail, DcmDataset** response_identifiers);
