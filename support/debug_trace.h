// Debug tracing for developers, apart from the log. The server leaves it switched off.
#pragma once

#include <cstdio>

namespace tarvo {

// Subsystem numbers and level masks of trace lines.
constexpr int trace_dicom_toolkit = 11;
constexpr unsigned trace_failure = 0x80;
constexpr unsigned trace_information = 0x100;

// Sends the lines of `subsystem` (0 to 31) whose mask has a bit in `mask` to `destination`.
// A null destination switches all tracing off.
void debug_trace_enable(int subsystem, unsigned mask, FILE* destination);

// Writes one line "seconds.microseconds:subsystem mask:message" when enabled, else nothing.
void debug_trace(int subsystem, unsigned mask, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace tarvo
