// The provider (SCP) side of the DIMSE services (PS3.7, 9.1 and 9.3): each function carries out one
// request that has been received on `assoc` in presentation context `presentationContextID` and
// answers it. `message` is that request; everything passed is borrowed.
//
// They return the toolkit's condition unchanged. Bad means that the peer may not have its answer:
// the association is then out of step and must be aborted. They wait without a time-out of their
// own; a limit on the wait is the caller's (an alarm).
#pragma once

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/dimse.h"

// Answers a C-ECHO with Success (PS3.7, 9.1.5).
OFCondition DCMTK_SCP_echo(T_ASC_Association* assoc, T_DIMSE_Message* message,
                           T_ASC_PresentationContextID presentationContextID);

// Receives the data set of a C-STORE into memory (PS3.7, 9.1.1). The callback is called at the
// start, for each fragment and at the end, where it may set the status of the answer; untouched
// that is Success. Until the end it must leave the data set alone: looking through it moves the
// place at which the toolkit goes on reading. The data set dies with the call, so the callback has
// written it to disk when it returns. It leaves the status detail null: nobody would delete it.
//
// A data set that is cut short or that nests sequences more than 512 deep is never handed over at
// the end. Either the result is bad and the call at the end does not come, or the data set is null
// there and the status is already 0xC000 (Error: Cannot understand; PS3.4, B.2.3). Only a cut
// exactly between two elements of the top level cannot be told from a shorter data set.
OFCondition DCMTK_SCP_store(T_ASC_Association* assoc, T_DIMSE_Message* message,
                            T_ASC_PresentationContextID presentationContextID,
                            DIMSE_StoreProviderCallback callback, void* callbackData);

// Receives the identifier of a C-FIND (PS3.7, 9.1.2) and sends one response for each call of the
// callback, until that sets a status other than pending. The toolkit deletes the identifiers that
// the callback returns, and sets "cancelled" when the peer has sent a C-CANCEL.
OFCondition DCMTK_SCP_find(T_ASC_Association* assoc, T_DIMSE_Message* message,
                           T_ASC_PresentationContextID presentationContextID,
                           DIMSE_FindProviderCallback callback, void* callbackData);

// The same for a C-MOVE (PS3.7, 9.1.4).
OFCondition DCMTK_SCP_move(T_ASC_Association* assoc, T_DIMSE_Message* message,
                           T_ASC_PresentationContextID presentationContextID,
                           DIMSE_MoveProviderCallback callback, void* callbackData);
