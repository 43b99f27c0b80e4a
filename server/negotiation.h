// Association negotiation (PS3.8, 7.1): the worker's side, and the parent's refusals.
#pragma once

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/assoc.h"

// Negotiates a received association and serves it to its end. Takes `association` over: it is
// dropped and destroyed in every case. Any called AE title is accepted and answered with the own
// one. A peer that stalls for 10 seconds while the association is negotiated or ended ends the
// worker through SIGALRM. Returns the final condition.
OFCondition negotiate_and_serve(T_ASC_Network* network, T_ASC_Association* association);

enum class Refusal { too_many_associations, fork_failure };

// Refuses the association that was requested on `socket` with an A-ASSOCIATE-RJ (PS3.8, 9.3.4).
// Never waits for the peer.
void refuse_association(int socket, Refusal refusal);

// Ends the association on `socket` with an A-ABORT (PS3.8, 9.3.8) that needs no memory, and waits a
// moment for the peer to take note.
void abort_association(int socket);

// Writes a condition to the console.
void dump_condition(const OFCondition& condition);
