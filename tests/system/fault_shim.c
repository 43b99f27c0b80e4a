// To be preloaded into the server: sets its monotonic clock forward, counts the calls that touch
// files below a folder, lets one of them fail or kills the process at it, and writes down what was
// done, for the disk of power_cut.py. faults.py is the other end.
//
//   LATER_CLOCK    a file with the seconds by which the clock runs ahead; needs none of the others
//   FAULT_FOLDER   the folder, absolute
//   FAULT_CONTROL  a file that holds a struct control; shared with the test and by all workers
//   FAULT_TRACE    the file to which records are appended while control.tracing is set
//
// Nothing is ever synced: what a power cut would take is computed, not tried.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

// The numbers are known to faults.py.
enum kind { OPEN, READ, WRITE, ALLOCATE, TRUNCATE, MAKE_FOLDER, RENAME, UNLINK, REMOVE_FOLDER,
            SYNC, START_SYNC, LOCK, CLOSE, SEND };
enum action { FAIL, HALVE, KILL_BEFORE, KILL_AFTER, PAUSE, FILL };

struct control {
    _Atomic uint32_t armed, kinds, nth, action, error, count, fired, tracing, busy, struck_kind;
    char struck[1024];  // the path of the call that was hit
};

// One record of the trace, followed by the path and the data.
struct record {
    uint32_t kind, process, path_length, data_length;
    int64_t offset, length;  // where it was written; the new length
};

struct call {
    enum kind kind;
    char path[PATH_MAX];
    int below, fails, halves, dies;
};

static struct control* control;
static int trace = -1;

// What is called before that passes: the server's sanitizer may not be ready for anything else.
__attribute__((constructor)) static void prepare(void) {
    const char* const path = getenv("FAULT_CONTROL");
    if (path == NULL) return;
    const int file = (int)syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC);
    void* const shared =
        mmap(NULL, sizeof *control, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (shared != MAP_FAILED) control = shared;
    syscall(SYS_close, file);
    const char* const trace_path = getenv("FAULT_TRACE");
    if (trace_path == NULL) return;
    const int opened = (int)syscall(SYS_openat, AT_FDCWD, trace_path,
                                    O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    trace = (int)syscall(SYS_fcntl, opened, F_DUPFD_CLOEXEC, 500L);  // out of the server's way
    syscall(SYS_close, opened);
}

static int is_below(const char* path) {
    const char* const folder = getenv("FAULT_FOLDER");
    const size_t length = folder != NULL ? strlen(folder) : 0;
    return length != 0 && strncmp(path, folder, length) == 0 &&
           (path[length] == '/' || path[length] == '\0');
}

static void die(void) {
    syscall(SYS_kill, getpid(), SIGKILL);
    for (;;) pause();
}

static int takes_space(enum kind kind) {
    return kind == WRITE || kind == ALLOCATE || kind == MAKE_FOLDER;
}

static void strike(struct call* call, int first) {
    if (first) {
        control->struck_kind = call->kind;
        snprintf(control->struck, sizeof control->struck, "%.1023s", call->path);
        control->fired = 1;
    }
    switch (control->action) {
        case FAIL: call->fails = 1; break;
        case HALVE: call->halves = 1; break;
        case KILL_BEFORE: die(); break;
        case KILL_AFTER: call->dies = 1; break;
        case PAUSE:  // until the test disarms, at most 2 seconds: what it does may need our lock
            for (int i = 0; i < 2000 && control->armed; ++i) {
                nanosleep(&(struct timespec){0, 1000000}, NULL);
            }
            break;
        case FILL:  // the first write still finds room for its half
            call->halves = first && call->kind == WRITE;
            call->fails = !call->halves && takes_space(call->kind);
            break;
    }
}

// The absolute path of what stands at `path` seen from a folder, or of what a descriptor is of.
static void locate(char* located, int descriptor, const char* path) {
    size_t length = 0;
    if (path == NULL || path[0] != '/') {
        char link[32];
        snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
        const ssize_t got = readlink(link, located, PATH_MAX - 2);
        if (got > 0) length = (size_t)got;
        if (path != NULL) located[length++] = '/';
    }
    snprintf(located + length, PATH_MAX - length, "%s", path == NULL ? "" : path);
}

static void begin(struct call* call, enum kind kind, int descriptor, const char* path) {
    call->kind = kind;
    call->below = call->fails = call->halves = call->dies = 0;
    if (control == NULL) return;
    locate(call->path, descriptor, path);
    call->below = kind == SEND || is_below(call->path);
    if (!call->below) return;
    if (control->armed && (control->kinds >> kind & 1) != 0) {
        const uint32_t number = ++control->count;
        const int lasts = control->action == FILL;
        if (number == control->nth || (lasts && control->nth != 0 && number > control->nth)) {
            strike(call, number == control->nth);
        }
    }
    if (!control->tracing || kind == LOCK) return;
    // Until end(): the trace has the calls of all processes in the order in which they took place.
    while (atomic_exchange(&control->busy, 1) != 0) sched_yield();
}

// Leaves errno as it is.
static void end(struct call* call, int success, const void* data, size_t data_length,
                int64_t offset, int64_t length) {
    const int error = errno;
    if (call->below && control->tracing && call->kind != LOCK) {
        const struct record record = {call->kind,           (uint32_t)getpid(),
                                      (uint32_t)strlen(call->path), (uint32_t)data_length,
                                      offset,               length};
        const struct iovec parts[] = {{(void*)&record, sizeof record},
                                      {call->path, record.path_length},
                                      {(void*)data, data_length}};
        if (success) syscall(SYS_writev, trace, parts, 3L);
        control->busy = 0;
    }
    if (call->dies) die();
    errno = error;
}

// What a call returns: `result` is only computed when it is not to fail.
#define OUTCOME(call, result) ((call).fails ? (errno = (int)control->error, -1L) : (long)(result))

// ---- what has a name ----

static int open_at(int folder, const char* path, int flags, mode_t mode) {
    struct call call;
    begin(&call, OPEN, folder, path);
    const int changes = (flags & O_TRUNC) != 0 || ((flags & O_CREAT) != 0 && call.below &&
                                                   syscall(SYS_faccessat, folder, path, F_OK) != 0);
    const int file = (int)OUTCOME(call, syscall(SYS_openat, folder, path, flags, mode));
    end(&call, file >= 0 && changes, NULL, 0, 0, 0);
    return file;
}

#define MODE_BEHIND(flags)                                                  \
    mode_t mode = 0;                                                        \
    va_list arguments;                                                      \
    va_start(arguments, flags);                                             \
    if (((flags) & O_CREAT) != 0) mode = va_arg(arguments, mode_t);         \
    va_end(arguments)

int open(const char* path, int flags, ...) {
    MODE_BEHIND(flags);
    return open_at(AT_FDCWD, path, flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
    MODE_BEHIND(flags);
    return open_at(folder, path, flags, mode);
}

static int on_path(enum kind kind, long number, int folder, const char* path, long argument) {
    struct call call;
    begin(&call, kind, folder, path);
    const int result = (int)OUTCOME(call, syscall(number, folder, path, argument));
    end(&call, result == 0, NULL, 0, 0, 0);
    return result;
}

int mkdirat(int folder, const char* path, mode_t mode) {
    return on_path(MAKE_FOLDER, SYS_mkdirat, folder, path, (long)mode);
}

int unlinkat(int folder, const char* path, int flags) {
    const int removes = (flags & AT_REMOVEDIR) != 0;
    return on_path(removes ? REMOVE_FOLDER : UNLINK, SYS_unlinkat, folder, path, flags);
}

int mkdir(const char* path, mode_t mode) { return mkdirat(AT_FDCWD, path, mode); }
int unlink(const char* path) { return unlinkat(AT_FDCWD, path, 0); }
int rmdir(const char* path) { return unlinkat(AT_FDCWD, path, AT_REMOVEDIR); }

int renameat(int from_folder, const char* from, int to_folder, const char* to) {
    struct call call;
    char target[PATH_MAX];
    locate(target, to_folder, to);
    begin(&call, RENAME, from_folder, from);
    const int result =
        (int)OUTCOME(call, syscall(SYS_renameat, from_folder, from, to_folder, to));
    end(&call, result == 0, target, strlen(target), 0, 0);
    return result;
}

int rename(const char* from, const char* to) { return renameat(AT_FDCWD, from, AT_FDCWD, to); }

// ---- what is open ----

ssize_t pread(int file, void* buffer, size_t size, off_t offset) {
    struct call call;
    begin(&call, READ, file, NULL);
    const size_t wanted = call.halves ? (size + 1) / 2 : size;
    const ssize_t got = OUTCOME(call, syscall(SYS_pread64, file, buffer, wanted, offset));
    end(&call, 0, NULL, 0, 0, 0);
    return got;
}

ssize_t pwrite(int file, const void* buffer, size_t size, off_t offset) {
    struct call call;
    begin(&call, WRITE, file, NULL);
    const size_t wanted = call.halves ? (size + 1) / 2 : size;
    const ssize_t done = OUTCOME(call, syscall(SYS_pwrite64, file, buffer, wanted, offset));
    end(&call, done > 0, buffer, done > 0 ? (size_t)done : 0, offset, 0);
    return done;
}

// What leaves over a connection is written down before it does: the peer is quick to note what it
// does next. The descriptor is noted as offset.
static void note_sent(int file, const void* buffer, size_t size) {
    int type = 0;
    socklen_t length = sizeof type;
    if (getsockopt(file, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_STREAM) return;
    struct call call;
    begin(&call, SEND, file, NULL);
    end(&call, 1, buffer, size, file, 0);
}

ssize_t send(int file, const void* buffer, size_t size, int flags) {
    note_sent(file, buffer, size);
    return syscall(SYS_sendto, file, buffer, size, flags, NULL, 0L);
}

// The server gathers for connections only.
ssize_t writev(int file, const struct iovec* parts, int count) {
    for (int i = 0; i < count; ++i) note_sent(file, parts[i].iov_base, parts[i].iov_len);
    return syscall(SYS_writev, file, parts, (long)count);
}

ssize_t write(int file, const void* buffer, size_t size) {
    struct stat status;
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        note_sent(file, buffer, size);
        return syscall(SYS_write, file, buffer, size);
    }
    const off_t offset = syscall(SYS_lseek, file, 0L, SEEK_CUR);
    const ssize_t done = pwrite(file, buffer, size, offset);
    if (done > 0) syscall(SYS_lseek, file, done, SEEK_CUR);
    return done;
}

int fallocate(int file, int mode, off_t offset, off_t length) {
    struct call call;
    begin(&call, ALLOCATE, file, NULL);
    const int result = (int)OUTCOME(call, syscall(SYS_fallocate, file, mode, offset, length));
    end(&call, result == 0 && (mode & FALLOC_FL_KEEP_SIZE) == 0, NULL, 0, 0, offset + length);
    return result;
}

// Returns the number of the error.
int posix_fallocate(int file, off_t offset, off_t length) {
    return fallocate(file, 0, offset, length) == 0 ? 0 : errno;
}

int ftruncate(int file, off_t length) {
    struct call call;
    begin(&call, TRUNCATE, file, NULL);
    const int result = (int)OUTCOME(call, syscall(SYS_ftruncate, file, length));
    end(&call, result == 0, NULL, 0, 0, length);
    return result;
}

static int synced(enum kind kind, int file) {
    struct call call;
    begin(&call, kind, file, NULL);
    if (!call.below) return 0;
    const int result = (int)OUTCOME(call, 0);
    end(&call, result == 0, NULL, 0, 0, 0);
    return result;
}

int fsync(int file) { return synced(SYNC, file); }
int fdatasync(int file) { return synced(SYNC, file); }
int sync_file_range(int file, off_t offset, off_t length, unsigned flags) {
    (void)offset, (void)length, (void)flags;
    return synced(START_SYNC, file);
}

int fcntl(int file, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const int locks = (command == F_SETLK || command == F_SETLKW) &&
                      ((const struct flock*)argument)->l_type != F_UNLCK;
    if (!locks) return (int)syscall(SYS_fcntl, file, command, argument);
    struct call call;
    begin(&call, LOCK, file, NULL);
    const int result = (int)OUTCOME(call, syscall(SYS_fcntl, file, command, argument));
    end(&call, 0, NULL, 0, 0, 0);
    return result;
}

// A failing close closes all the same.
int close(int file) {
    struct call call;
    begin(&call, CLOSE, file, NULL);
    const int result = (int)syscall(SYS_close, file);
    const int outcome = (int)OUTCOME(call, result);
    end(&call, 0, NULL, 0, 0, 0);
    return outcome;
}

// ---- the clock ----

int clock_gettime(clockid_t clock, struct timespec* time) {
    const int result = (int)syscall(SYS_clock_gettime, clock, time);
    const char* const path = getenv("LATER_CLOCK");
    if (result != 0 || clock != CLOCK_MONOTONIC || path == NULL) return result;
    char digits[16] = "";
    const int file = (int)syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC);
    if (file >= 0) syscall(SYS_read, file, digits, sizeof digits - 1);
    if (file >= 0) syscall(SYS_close, file);
    time->tv_sec += atol(digits);
    return 0;
}
