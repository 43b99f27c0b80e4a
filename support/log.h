// Log output: one time-stamped, level-filtered line a call, for every process of the server.
#pragma once

#include <cstdio>

// Writes one message to `stream` when the bit `level` (1, 2, 4 ... 512) is in the mask.
//
// The line is "YYYY-MM-DD hh:mm:ss [pid]:" in local time followed directly by the message. It
// leaves the process in one write, so lines of different processes never mix. `format` and values
// follow printf, without n, m, wide characters and long double; a string with a precision need not
// be terminated. Values come from strangers (AE titles, UIDs, paths made of them): a control
// character in a value shows as '?', a null string as "(null)". `stream` may be null: then nothing
// is written.
//
// Returns the number of characters of the line, 0 when it was filtered out.
int logprintf(unsigned level, FILE* stream, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Enables every level up to and including `level` (128 gives the mask 255). The mask starts as
// 63: the levels 1 to 32.
void logprintf_setmaxlevel(unsigned level);

// Whether a message of this level would be written: for callers whose arguments cost something.
[[nodiscard]] bool logprintf_enabled(unsigned level);
