// To be preloaded: the monotonic clock runs ahead by the seconds in the file LATER_CLOCK names.
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static long seconds_ahead(void) {
    char digits[16] = "";
    const char* const path = getenv("LATER_CLOCK");
    const int file = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) return 0;
    const ssize_t length = read(file, digits, sizeof digits - 1);
    close(file);
    return length > 0 ? atol(digits) : 0;
}

int clock_gettime(clockid_t clock, struct timespec* time) {
    const int result = (int)syscall(SYS_clock_gettime, clock, time);
    if (result == 0 && clock == CLOCK_MONOTONIC) time->tv_sec += seconds_ahead();
    return result;
}
