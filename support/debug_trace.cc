#include "support/debug_trace.h"

#include <sys/time.h>

#include <array>
#include <cstdarg>

namespace tarvo {
namespace {

constexpr int subsystem_count = 32;

struct TraceState {
    FILE* destination;
    std::array<unsigned, subsystem_count> masks;
};

constinit TraceState trace{};

bool wanted(int subsystem, unsigned mask) {
    return trace.destination != nullptr && subsystem >= 0 && subsystem < subsystem_count &&
           (trace.masks[static_cast<std::size_t>(subsystem)] & mask) != 0;
}

}  // namespace

void debug_trace_enable(int subsystem, unsigned mask, FILE* destination) {
    trace.destination = destination;
    if (subsystem < 0 || subsystem >= subsystem_count) return;
    trace.masks[static_cast<std::size_t>(subsystem)] = mask;
}

void debug_trace(int subsystem, unsigned mask, const char* format, ...) {
    if (!wanted(subsystem, mask)) return;
    timeval now{};
    gettimeofday(&now, nullptr);
    std::fprintf(trace.destination, "%d.%06d:% 2d %08x:", static_cast<int>(now.tv_sec),
                 static_cast<int>(now.tv_usec), subsystem, mask);
    std::va_list values;
    va_start(values, format);
    std::vfprintf(trace.destination, format, values);
    va_end(values);
    std::fflush(trace.destination);
}

}  // namespace tarvo
