// Association negotiation (PS3.8, 7.1).
#pragma once

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/assoc.h"

// Negotiates a received association and serves it to its end. Takes `association` over: it is
// dropped and destroyed in every case. Any called AE title is accepted and answered with the own
// one. A peer that stalls for 10 seconds while the association is negotiated or ended ends the
// worker through SIGALRM. Returns the final condition.
OFCondition negotiate_and_serve(T_ASC_Network* network, T_ASC_Association* association);
