// The user (SCU) side of the DIMSE services (PS3.7, 9.1 and 9.3): each function makes one request
// on an established association and waits for its final answer, without a time-out of its own; a
// limit on the wait is the caller's (an alarm). Priority LOW, the association's next message id.
//
// They return the toolkit's condition unchanged. A good one says that the exchange was complete,
// not that the peer could do what it was asked for. Everything passed is borrowed.
#pragma once

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/dimse.h"

// C-ECHO (PS3.7, 9.1.5), in the accepted context of the Verification SOP class.
OFCondition DCMTK_SCU_echo(T_ASC_Association* assoc);

// C-STORE (PS3.7, 9.1.1) of `dataset`, in the first accepted context of its SOP class. The toolkit
// writes it in the transfer syntax of that context. DIMSE_BADDATA when it has no SOP Class or SOP
// Instance UID, DIMSE_NOVALIDPRESENTATIONCONTEXTID when no context was accepted.
OFCondition DCMTK_SCU_store(T_ASC_Association* assoc, DcmDataset* dataset);

// C-FIND (PS3.7, 9.1.2) in the query model `sopClass` (PS3.4, C.6). The callback sees each pending
// response; its identifier is the toolkit's and only valid during the call.
// DIMSE_NOVALIDPRESENTATIONCONTEXTID when no context was accepted.
OFCondition DCMTK_SCU_find(T_ASC_Association* assoc, const char* sopClass, DcmDataset* identifier,
                           DIMSE_FindUserCallback callback, void* callbackData);

// C-MOVE (PS3.7, 9.1.4) to the AE title `destination`, at most 16 characters. The callback sees
// each pending response. The images do not come back on this association: the destination is
// another AE's listener.
OFCondition DCMTK_SCU_move(T_ASC_Association* assoc, const char* sopClass, DcmDataset* identifier,
                           const char* destination, DIMSE_MoveUserCallback callback,
                           void* callbackData);
