// The C-FIND provider (PS3.4, annex C; PS3.7, 9.1.2).
#pragma once

#include "dicom/services/callback_record.h"

// Find-provider callback of the toolkit; `callback_data` is the movedata of the command. Called
// once for each response to send.
void find_callback(void* callback_data, OFBool cancelled, T_DIMSE_C_FindRQ* request,
                   DcmDataset* identifier, int response_count, T_DIMSE_C_FindRSP* response,
                   DcmDataset** response_identifier, DcmDataset** status_detail);
