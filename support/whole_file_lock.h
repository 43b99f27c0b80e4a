// Owner of a whole-file lock.
#pragma once

#include "support/file_helpers.h"
#include "support/held_signals.h"

namespace tarvo {

enum class LockKind { shared = 0, exclusive = 1 };
enum class LockWait { forever, never };

// Holds a lock on the file behind a borrowed descriptor, which must stay open as long.
// The constructor waits for the lock, unless told not to, and lets signals through that are held
// back otherwise; ask held() before touching the file.
class WholeFileLock {
  public:
    WholeFileLock(int descriptor, LockKind kind, LockWait wait = LockWait::forever)
        : descriptor_(descriptor), held_(take(descriptor, kind, wait)) {}
    WholeFileLock(const WholeFileLock&) = delete;
    WholeFileLock& operator=(const WholeFileLock&) = delete;
    WholeFileLock(WholeFileLock&&) = delete;
    WholeFileLock& operator=(WholeFileLock&&) = delete;
    ~WholeFileLock() {
        // Unlocking what this process holds cannot fail, and closing drops the lock in any case.
        if (held_) static_cast<void>(TVCompat_LockWholeFile(descriptor_, 2));
    }

    [[nodiscard]] bool held() const { return held_; }

  private:
    static bool take(int descriptor, LockKind kind, LockWait wait) {
        if (try_lock_whole_file(descriptor, static_cast<std::int16_t>(kind))) return true;
        if (wait == LockWait::never) return false;
        const ReleasedSignals mortal;
        return TVCompat_LockWholeFile(descriptor, static_cast<std::int16_t>(kind)) == 0;
    }

    int descriptor_;
    bool held_;
};

}  // namespace tarvo
