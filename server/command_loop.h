// The DIMSE command loop of a worker.
#pragma once

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/assoc.h"

// Serves one command after another on an acknowledged association until the peer releases or
// aborts it, or an error ends it. `network` is the worker's, for sub-associations. Returns the
// condition that ended the loop: normally DUL_PEERREQUESTEDRELEASE or
// DUL_PEERABORTEDASSOCIATION; DIMSE_BADCOMMANDTYPE after a command that is not served.
//
// A peer that sends nothing for 60 seconds ends the worker through SIGALRM. The alarm is off
// when the function returns.
OFCondition serve_commands(T_ASC_Network* network, T_ASC_Association* association,
                           const char* calling_aetitle, const char* called_aetitle);
