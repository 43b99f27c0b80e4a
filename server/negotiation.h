// Association negotiation (PS3.8, 7.1): the worker's side, and the parent's refusals.
#pragma once

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/assoc.h"

// Negotiates a received association and serves it to its end. Takes `association` over: it is
// dropped and destroyed in every case. Any called AE title is accepted and answered with the own
// one. A peer that stalls for 10 seconds while the association is negotiated or ended ends the
// worker through SIGALRM. Returns the final condition.
OFCondition negotiate_and_serve(T_ASC_Network* network, T_ASC_Association* association);

enum class Refusal {
    too_many_associations = 0,
    fork_failure = 1,
    parent_release = 2,  // no refusal: closes the parent's copy without sending anything
};

// Refuses an association with an A-ASSOCIATE-RJ (PS3.8, 9.3.4), or only releases the parent's
// copy, then drops and destroys it; `association` is null afterwards. Every step is tried even
// when an earlier one failed. Returns the condition of the last failing step, else EC_Normal.
OFCondition refuse_or_release(T_ASC_Association*& association, Refusal refusal);

// Writes a condition to the console.
void dump_condition(const OFCondition& condition);
