// What every part of the load generator needs: its clock, and its end when something goes wrong.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "load: %s\n", what.c_str());
    std::_Exit(1);
}

}  // namespace bench
