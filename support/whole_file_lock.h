// Owner of a whole-file lock.
#pragma once

#include "support/file_helpers.h"
#include "support/held_signals.h"

namespace tarvo {

enum class LockKind { shared = 0, exclusive = 1 };

// Holds a lock on the file behind a borrowed descriptor, which must stay open as long.
// The constructor waits for the lock, and lets signals through that are held back otherwise; ask
// held() before touching the file.
class WholeFileLock {
  public:
    WholeFileLock(int descriptor, LockKind kind)
        : descriptor_(descriptor), held_(wait_for_lock(descriptor, kind)) {}
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
    static bool wait_for_lock(int descriptor, LockKind kind) {
        if (try_lock_whole_file(descriptor, static_cast<std::int16_t>(kind))) return true;
        const ReleasedSignals mortal;
        return TVCompat_LockWholeFile(descriptor, static_cast<std::int16_t>(kind)) == 0;
    }

    int descriptor_;
    bool held_;
};

}  // namespace tarvo
