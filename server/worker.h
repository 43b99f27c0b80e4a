// What sets a worker apart from the listening process that it was forked from.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

namespace tarvo {

// fork(2), with the signals of a worker in the child: the watchdog's SIGALRM and SIGTERM end it,
// SIGINT does not, for a terminal sends it to everybody and an association is finished even so.
[[nodiscard]] pid_t fork_worker();

// Bounds what a hostile peer can make a worker do to the machine: its address space is the smaller
// of 8 GiB and three quarters of the memory, unless it has been inherited smaller; when memory runs
// out the kernel takes a worker before the listener; nobody can fill the disk with its core files,
// unless debugging was asked for.
void limit_worker();

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
