// What a worker may take of the machine.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <optional>

namespace tarvo {

// What a worker's limits have to become, worked out once in the listener, after it has dropped its
// privileges: an association is too short to ask for what is always the same.
struct WorkerLimits {
    WorkerLimits();

    std::optional<rlimit> address_space;  // nothing: stays as inherited
    std::optional<rlimit> core_file;
    bool raises_score;  // of the kernel's choice when memory runs out
    bool dumpable;
};

// Bounds what a hostile peer can make a worker do to the machine: its address space is the smaller
// of 8 GiB and three quarters of the memory, unless it has been inherited smaller; when memory runs
// out the kernel takes a worker before the listener; nobody can fill the disk with its core files,
// unless debugging was asked for.
void limit_worker(const WorkerLimits& limits);

// For the last words of a worker that has met the limit of its address space.
void lift_memory_limit();

// Ends the process through SIGXCPU when it computes for more than this many seconds during the life
// of the object, unless such a limit has been inherited and comes first.
class CpuTimeLimit {
  public:
    explicit CpuTimeLimit(rlim_t seconds);
    CpuTimeLimit(const CpuTimeLimit&) = delete;
    CpuTimeLimit& operator=(const CpuTimeLimit&) = delete;
    CpuTimeLimit(CpuTimeLimit&&) = delete;
    CpuTimeLimit& operator=(CpuTimeLimit&&) = delete;
    ~CpuTimeLimit();

  private:
    rlimit before_{};
};

}  // namespace tarvo
