#include "support/held_signals.h"

#include <csignal>
#include <initializer_list>

namespace tarvo {

namespace {

// Like the signal mask itself these belong to the process.
constinit bool held = false;
sigset_t mask_before;  // that of the outermost guard, valid while `held`

void hold() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGALRM, SIGTERM, SIGINT, SIGHUP, SIGXCPU})
        ::sigaddset(&signals, signal);
    ::sigprocmask(SIG_BLOCK, &signals, &mask_before);
    held = true;
}

void release() {
    held = false;
    ::sigprocmask(SIG_SETMASK, &mask_before, nullptr);
}

}  // namespace

HeldSignals::HeldSignals() : outermost_(!held) {
    if (outermost_) hold();
}

HeldSignals::~HeldSignals() {
    if (outermost_) release();
}

ReleasedSignals::ReleasedSignals() : held_before_(held) {
    if (held_before_) release();
}

ReleasedSignals::~ReleasedSignals() {
    if (held_before_) hold();
}

}  // namespace tarvo
