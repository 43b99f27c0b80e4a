// Bounded operations on zero-terminated strings in fixed buffers.
#pragma once

#include <cstddef>

// Copies `source` into `destination` (`size` bytes), always terminated.
// Returns the destination, or null when the source was cut.
char* vr_strncpy(char* destination, const char* source, std::size_t size);

// Appends `source`; `size` is that of the whole destination buffer. Returns the destination, or
// null when there was no room at all (nothing is appended) or the source was cut.
char* vr_strncat(char* destination, const char* source, std::size_t size);

// The first position of `pattern` in `text` ignoring ASCII case, or null. An empty pattern is
// found at the start.
const char* vr_strcasestr(const char* text, const char* pattern);
