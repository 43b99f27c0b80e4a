// Owner of a whole-file lock.
#pragma once

#include "support/file_helpers.h"

namespace tarvo {

enum class LockKind { shared = 0, exclusive = 1 };

// Holds a lock on the file behind a borrowed descriptor, which must stay open as long.
// The constructor waits for the lock; ask held() before touching the file.
class WholeFileLock {
  public:
    WholeFileLock(int descriptor, LockKind kind)
        : descriptor_(descriptor),
          held_(TVCompat_LockWholeFile(descriptor, static_cast<std::int16_t>(kind)) == 0) {}
    WholeFileLock(const WholeFileLock&) = delete;
    WholeFileLock& operator=(const WholeFileLock&) = delete;
    WholeFileLock(WholeFileLock&&) = delete;
    WholeFileLock& operator=(WholeFileLock&&) = delete;
    ~WholeFileLock() {
        // Unlocking what this process holds cannot fail, and closing drops the lock in any case.
        if (held_) static_cast<void>(TVCompat_LockWholeFile(descriptor_, 2));
    }

    [[nodiscard]] bool held() const { return held_; }

    // Turns a shared lock into an exclusive one in place, waiting for the other holders.
    [[nodiscard]] bool upgrade() { return held_ && TVCompat_LockWholeFile(descriptor_, 1) == 0; }

  private:
    int descriptor_;
    bool held_;
};

}  // namespace tarvo
