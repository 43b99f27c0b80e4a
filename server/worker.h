// The life of a worker: a process for one association.
#pragma once

#include <sys/types.h>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/assoc.h"

#include "dicom/transport_layer.h"
#include "server/intake.h"
#include "server/worker_limits.h"
#include "support/unique_fd.h"

namespace tarvo {

// What a worker inherits from the listener; borrowed, but for what is made ready here, once for all
// workers.
struct Workplace {
    T_ASC_Network* network;
    TransportLayer& transport;
    Intake& intake;
    const WorkerLimits limits{};
    const UniqueFd null{open_null()};  // takes the place of the listening socket

    [[nodiscard]] static int open_null();
};

// fork(2), with the signals of a worker in the child: the watchdog's SIGALRM, SIGTERM and the limit
// of CPU time end it, SIGINT does not, for a terminal sends it to everybody and an association is
// finished even so.
[[nodiscard]] pid_t fork_worker();

// Serves the association that `caller` has asked for, to its end. `hash_is_current` tells whether
// the copy of the study hash is: else it is brought up to date first, which waits for whoever is at
// the file.
void run_worker(Workplace& place, Caller& caller, bool hash_is_current);

}  // namespace tarvo
