#include "support/file_helpers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

int TVCompat_mkdir(const char* path, unsigned mode) {
    return ::mkdir(path, static_cast<mode_t>(mode));
}

int TVCompat_mkstemp(char* name, std::size_t size, const char* prefix) {
    std::snprintf(name, size, "%s/%sXXXXXX", "/tmp", prefix);
    return ::mkostemp(name, O_CLOEXEC);
}

namespace {

struct flock whole_file(std::int16_t kind) {
    struct flock lock {};
    lock.l_type = kind;
    lock.l_whence = SEEK_SET;  // from byte 0, and a length of 0 reaches beyond the end
    return lock;
}

}  // namespace

int TVCompat_LockWholeFile(int descriptor, std::int16_t kind) {
    struct flock lock = whole_file(kind);
    int result = -1;
    do {
        result = ::fcntl(descriptor, F_SETLKW, &lock);
    } while (result < 0 && errno == EINTR);
    return result;
}
static_assert(F_RDLCK == 0 && F_WRLCK == 1 && F_UNLCK == 2, "the kinds are the system's own");

ssize_t writeAll(int descriptor, const void* buffer, std::size_t length) {
    const char* const bytes = static_cast<const char*>(buffer);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t written = ::write(descriptor, bytes + done, length - done);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return written;
        if (written == 0) break;
        done += static_cast<std::size_t>(written);
    }
    return static_cast<ssize_t>(done);
}

namespace tarvo {

bool try_lock_whole_file(int descriptor, std::int16_t kind) {
    struct flock lock = whole_file(kind);
    return ::fcntl(descriptor, F_SETLK, &lock) == 0;
}

bool is_locked_by_another(int descriptor) {
    struct flock lock = whole_file(F_WRLCK);
    return ::fcntl(descriptor, F_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

bool write_at(int descriptor, const void* buffer, std::size_t length, off_t offset) {
    const char* const bytes = static_cast<const char*>(buffer);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t written =
            ::pwrite(descriptor, bytes + done, length - done, offset + static_cast<off_t>(done));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

ssize_t read_at(int descriptor, void* buffer, std::size_t length, off_t offset) {
    char* const bytes = static_cast<char*>(buffer);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t got =
            ::pread(descriptor, bytes + done, length - done, offset + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return got;
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

off_t file_size(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 ? status.st_size : -1;
}

void fill_standard_descriptors() {
    for (;;) {
        const int descriptor = ::open("/dev/null", O_RDWR);  // the lowest free number
        if (descriptor < 0) return;
        if (descriptor > STDERR_FILENO) {
            ::close(descriptor);
            return;
        }
    }
}

}  // namespace tarvo
