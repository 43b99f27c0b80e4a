// The sub-association of a C-MOVE: the association to the move destination on which the images
// are sent (PS3.4, C.4.2.2).
#pragma once

#include "dicom/services/callback_record.h"

// Opens the sub-association to the destination of the request. Without a `dataset` it proposes
// the urgent classes of `move` and then the toolkit's storage classes in their order, as many as
// there is room for; with one it proposes a single context, for its SOP class in the transfer
// syntax in which its file was read (`path`, for the log).
//
// Returns 0 when it is established, 1 for a destination that the AE title map does not know, else
// the result of DCMTK_associate. After tarvo::association_without_context the sub-association
// stands too, after every other failure there is none. A destination that takes the connection
// and then says nothing ends the worker through SIGALRM after 12 seconds: the log then holds the
// destination. Any alarm() that was pending is cancelled.
[[nodiscard]] int buildSubAssociation(T_DIMSE_C_MoveRQ* request, movedata* move,
                                      DcmDataset* dataset, const char* path = "");

// Releases the sub-association. 1 when there is none, else the result of DCMTK_dissociate.
int closeSubAssociation(movedata* move);

// Whether the sub-association, which must stand, proposed this SOP class.
[[nodiscard]] bool proposedClass(const movedata& move, const char* sop_class);
