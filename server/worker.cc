#include "server/worker.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string>

#include "support/file_helpers.h"
#include "support/held_signals.h"
#include "support/server_config.h"
#include "support/unique_fd.h"

namespace tarvo {

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool limits_address_space = false;  // the sanitizer reserves terabytes
#else
constexpr bool limits_address_space = true;
#endif

constexpr rlim_t most_address_space = rlim_t{8} << 30;
constexpr int oom_score = 500;  // of 1000, on top of the share of memory in use

// Leaves the hard limit alone: whoever inherits from a worker may have other needs.
void lower_limit(__rlimit_resource resource, rlim_t most) {
    rlimit limit{};
    if (::getrlimit(resource, &limit) != 0 || limit.rlim_cur <= most) return;
    limit.rlim_cur = most;
    ::setrlimit(resource, &limit);
}

rlim_t memory_size() {
    return static_cast<rlim_t>(::sysconf(_SC_PHYS_PAGES)) *
           static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
}

// A process that has dropped root's rights must not write its own score, unless it may be dumped.
void raise_oom_score() {
    const int dumpable = ::prctl(PR_GET_DUMPABLE);
    ::prctl(PR_SET_DUMPABLE, 1);
    const UniqueFd file(::open("/proc/self/oom_score_adj", O_RDWR | O_CLOEXEC));
    ::prctl(PR_SET_DUMPABLE, dumpable == 1 ? 1 : 0);
    char inherited[16] = "";
    if (read_at(file.get(), inherited, sizeof inherited - 1, 0) <= 0) return;
    const std::string score = std::to_string(oom_score);
    if (std::atoi(inherited) < oom_score) writeAll(file.get(), score.data(), score.size());
}

// Rounded down.
rlim_t seconds_computed() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<rlim_t>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec);
}

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

void limit_worker() {
    if (limits_address_space) {
        lower_limit(RLIMIT_AS, std::min(most_address_space, memory_size() / 4 * 3));
    }
    if (server_config.debug == 0) lower_limit(RLIMIT_CORE, 0);
    raise_oom_score();
}

CpuTimeLimit::CpuTimeLimit(rlim_t seconds) {
    ::getrlimit(RLIMIT_CPU, &before_);
    lower_limit(RLIMIT_CPU, seconds_computed() + seconds);
}

CpuTimeLimit::~CpuTimeLimit() { ::setrlimit(RLIMIT_CPU, &before_); }

}  // namespace tarvo
