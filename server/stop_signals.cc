#include "server/stop_signals.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <initializer_list>

namespace tarvo {

namespace {

// A handler gets nothing but the signal's number.
constinit volatile std::sig_atomic_t received_signal = 0;
constinit volatile std::sig_atomic_t event_descriptor = -1;

void note_signal(int signal) {
    const int error = errno;
    received_signal = signal;
    const std::uint64_t once = 1;
    // Without the event the signal is seen when the wait ends by itself.
    static_cast<void>(::write(event_descriptor, &once, sizeof once) == 0);
    errno = error;
}

}  // namespace

StopSignals::StopSignals() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    event_descriptor = event_.get();
    received_signal = 0;
    struct sigaction action {};
    action.sa_handler = note_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    for (const int signal : {SIGTERM, SIGINT}) ::sigaction(signal, &action, nullptr);
}

StopSignals::~StopSignals() {
    for (const int signal : {SIGTERM, SIGINT}) std::signal(signal, SIG_DFL);
    event_descriptor = -1;
}

int StopSignals::received() { return received_signal; }

}  // namespace tarvo
