#include "server/worker.h"

#include <unistd.h>

#include <csignal>

#include "support/held_signals.h"

namespace tarvo {

namespace {

void take_signals() {
    std::signal(SIGALRM, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGINT, SIG_IGN);
}

}  // namespace

pid_t fork_worker() {
    const HeldSignals held;  // none may meet the listener's handlers in the child
    const pid_t worker = ::fork();
    if (worker == 0) take_signals();
    return worker;
}

}  // namespace tarvo
