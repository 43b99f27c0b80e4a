// The C-MOVE provider (PS3.4, annex C; PS3.7, 9.1.4).
#pragma once

#include "dicom/services/callback_record.h"

// Move-provider callback of the toolkit; `callback_data` is the movedata of the command. Called
// once for each response to send: every call sends the next matching image to the destination and
// reports the counters. The destination "TarvoDeleteAET" has the images deleted instead. Ends
// with 0x0000, with 0xB000 when an image failed or was taken with a warning, with 0xFE00 when it
// was cancelled.
void move_callback(void* callback_data, OFBool cancelled, T_DIMSE_C_MoveRQ* request,
                   DcmDataset* identifier, int response_count, T_DIMSE_C_MoveRSP* response,
                   DcmDataset** status_detail, DcmDataset** response_identifiers);

// Sends the current match on the sub-association and counts the outcome.
OFCondition moveNextImage(T_DIMSE_C_MoveRQ* request, movedata* move);
