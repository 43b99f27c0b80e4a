// Private to store/: tells whether a file has changed since its contents were known.
#pragma once

#include <sys/stat.h>

#include <ctime>

namespace tarvo {

class FileStamp {
  public:
    // The contents are those of the file as `status` describes it: call it under the file's lock.
    void take(const struct stat& status) {
        status_ = status;
        timespec clock{};
        ::clock_gettime(CLOCK_REALTIME_COARSE, &clock);
        settled_ = later(clock, status.st_ctim);
    }

    // The same of an open file; nothing is known of one that cannot be asked.
    void take(int descriptor) {
        struct stat status {};
        if (::fstat(descriptor, &status) == 0) {
            take(status);
        } else {
            forget();
        }
    }

    // The contents are no longer known.
    void forget() { *this = FileStamp(); }

    // The same file with the same times.
    [[nodiscard]] bool matches(const struct stat& now) const {
        return now.st_dev == status_.st_dev && now.st_ino == status_.st_ino &&
               equal(now.st_mtim, status_.st_mtim) && equal(now.st_ctim, status_.st_ctim);
    }

    // Certainly unchanged. File times move in steps of a few milliseconds: a stamp taken within
    // the step of the last change would miss another change of that step.
    [[nodiscard]] bool proves_unchanged(const struct stat& now) const {
        return settled_ && matches(now);
    }
    [[nodiscard]] bool proves_unchanged(int descriptor) const {
        struct stat now {};
        return ::fstat(descriptor, &now) == 0 && proves_unchanged(now);
    }
    // Nor has another file taken its name.
    [[nodiscard]] bool proves_unchanged(const char* path) const {
        struct stat now {};
        return ::stat(path, &now) == 0 && proves_unchanged(now);
    }

  private:
    static bool equal(const timespec& left, const timespec& right) {
        return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
    }
    static bool later(const timespec& left, const timespec& right) {
        return left.tv_sec != right.tv_sec ? left.tv_sec > right.tv_sec
                                           : left.tv_nsec > right.tv_nsec;
    }

    struct stat status_ {};
    bool settled_ = false;
};

}  // namespace tarvo
