// SIGTERM and SIGINT in the listening process: a request to end, between two of its passes.
#pragma once

#include "support/unique_fd.h"

namespace tarvo {

// Notes the first of them for as long as it lives; a second one of the same kind ends the process
// at once. One at a time: there is one set of signal actions in a process.
class StopSignals {
  public:
    StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    StopSignals(StopSignals&&) = delete;
    StopSignals& operator=(StopSignals&&) = delete;
    ~StopSignals();

    // Becomes readable with the signal, to end a poll. -1 when there is no descriptor to be had.
    [[nodiscard]] int descriptor() const { return event_.get(); }

    // The number of the signal, 0 while none has come.
    [[nodiscard]] static int received();

  private:
    UniqueFd event_;
};

}  // namespace tarvo
