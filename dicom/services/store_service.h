// The C-STORE provider (PS3.4, annex B; PS3.7, 9.1.1).
#pragma once

#include "dicom/services/callback_record.h"

// Store-provider callback of the toolkit; `callback_data` is the movedata of the command. At the
// end of the transfer it stores the data set, keeps the patient link tree when that is asked
// for, sets the response status and announces the image on the monitor group:
//   0x0000 stored                          0xB006 already there and preserved
//   0xA700 no room, or not creatable       0xC000 a UID is missing
// An association called "TarvoOverwrite" replaces an image that is already there, one called
// "TarvoPreserve" keeps it, whatever the configured default.
void store_callback(void* callback_data, T_DIMSE_StoreProgress* progress,
                    T_DIMSE_C_StoreRQ* request, char* file_name, DcmDataset** dataset,
                    T_DIMSE_C_StoreRSP* response, DcmDataset** status_detail);
