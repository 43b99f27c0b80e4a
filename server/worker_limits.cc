#include "server/worker_limits.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "support/file_helpers.h"
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

// What the limit has to become; nothing when it is low enough. Leaves the hard limit alone: whoever
// inherits from a worker may have other needs.
std::optional<rlimit> lowered(__rlimit_resource resource, rlim_t most) {
    rlimit limit{};
    if (::getrlimit(resource, &limit) != 0 || limit.rlim_cur <= most) return std::nullopt;
    limit.rlim_cur = most;
    return limit;
}

void apply(__rlimit_resource resource, const std::optional<rlimit>& limit) {
    if (limit) ::setrlimit(resource, &*limit);
}

rlim_t memory_size() {
    return static_cast<rlim_t>(::sysconf(_SC_PHYS_PAGES)) *
           static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
}

constexpr const char* score_path = "/proc/self/oom_score_adj";

int inherited_score() {
    char score[16] = "";
    const UniqueFd file(::open(score_path, O_RDONLY | O_CLOEXEC));
    return read_at(file.get(), score, sizeof score - 1, 0) > 0 ? std::atoi(score) : oom_score;
}

// A process that has dropped root's rights must not write its own score, unless it may be dumped.
void raise_score(bool dumpable) {
    if (!dumpable) ::prctl(PR_SET_DUMPABLE, 1);
    const UniqueFd file(::open(score_path, O_WRONLY | O_CLOEXEC));
    if (!dumpable) ::prctl(PR_SET_DUMPABLE, 0);
    const std::string score = std::to_string(oom_score);
    writeAll(file.get(), score.data(), score.size());
}

// Rounded down.
rlim_t seconds_computed() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<rlim_t>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec);
}

// As the library would decide by itself after the first large image: memory that the next image
// needs again is not given back to the system in between.
void keep_freed_memory() {
    constexpr int largest_kept = 32 << 20;
    ::mallopt(M_MMAP_THRESHOLD, largest_kept);
    ::mallopt(M_TRIM_THRESHOLD, 2 * largest_kept);
}

}  // namespace

WorkerLimits::WorkerLimits()
    : raises_score(inherited_score() < oom_score), dumpable(::prctl(PR_GET_DUMPABLE) == 1) {
    if (limits_address_space) {
        address_space = lowered(RLIMIT_AS, std::min(most_address_space, memory_size() / 4 * 3));
    }
    if (server_config.debug == 0) core_file = lowered(RLIMIT_CORE, 0);
}

void limit_worker(const WorkerLimits& limits) {
    apply(RLIMIT_AS, limits.address_space);
    apply(RLIMIT_CORE, limits.core_file);
    if (limits.raises_score) raise_score(limits.dumpable);
    keep_freed_memory();
}

void lift_memory_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_AS, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_AS, &limit);
}

CpuTimeLimit::CpuTimeLimit(rlim_t seconds) {
    ::getrlimit(RLIMIT_CPU, &before_);
    const rlimit limit{std::min(before_.rlim_cur, seconds_computed() + seconds), before_.rlim_max};
    ::setrlimit(RLIMIT_CPU, &limit);
}

CpuTimeLimit::~CpuTimeLimit() { ::setrlimit(RLIMIT_CPU, &before_); }

}  // namespace tarvo
