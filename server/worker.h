// What sets a worker apart from the listening process that it was forked from.
#pragma once

#include <sys/types.h>

namespace tarvo {

// fork(2), with the signals of a worker in the child: the watchdog's SIGALRM and SIGTERM end it,
// SIGINT does not, for a terminal sends it to everybody and an association is finished even so.
[[nodiscard]] pid_t fork_worker();

}  // namespace tarvo
