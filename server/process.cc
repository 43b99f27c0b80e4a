#include "server/process.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace {

constexpr int closed_descriptors = 1024;

void detach_descriptors() {
    for (int descriptor = 0; descriptor < closed_descriptors; ++descriptor) ::close(descriptor);
    ::setsid();
    const int null = ::open("/dev/null", O_RDONLY);
    if (null < 0) return;
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
        if (null != descriptor) ::dup2(null, descriptor);
    }
    if (null > STDERR_FILENO) ::close(null);
}

}  // namespace

int daemonize() {
    const pid_t child = ::fork();
    if (child < 0) return -1;
    if (child > 0) return 1;
    detach_descriptors();
    return 0;
}

int drop_to_group(const char* name) {
    const struct group* const entry = ::getgrnam(name);
    if (entry == nullptr) return 1;
    const gid_t id = entry->gr_gid;
    // Otherwise the groups of the starting user, root's perhaps, would go on to open files.
    if (::geteuid() == 0 && ::setgroups(1, &id) != 0) return -1;
    return ::setresgid(id, id, id);
}

int drop_to_user(const char* name) {
    const struct passwd* const entry = ::getpwnam(name);
    if (entry == nullptr) return 1;
    const uid_t id = entry->pw_uid;
    if (::geteuid() == 0 && ::initgroups(name, ::getegid()) != 0) return -1;
    return ::setresuid(id, id, id);
}
