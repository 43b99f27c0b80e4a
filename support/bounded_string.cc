#include "support/bounded_string.h"

#include <strings.h>

#include <cstring>

char* vr_strncpy(char* destination, const char* source, std::size_t size) {
    if (size == 0) return nullptr;
    const std::size_t length = ::strnlen(source, size);
    const bool fits = length < size;
    const std::size_t kept = fits ? length : size - 1;
    std::memcpy(destination, source, kept);
    std::memset(destination + kept, 0, size - kept);
    return fits ? destination : nullptr;
}

char* vr_strncat(char* destination, const char* source, std::size_t size) {
    if (size == 0) return nullptr;
    const std::size_t length = ::strnlen(destination, size - 1);
    if (length == size - 1) return nullptr;  // only the terminator fits
    return vr_strncpy(destination + length, source, size - length) != nullptr ? destination
                                                                              : nullptr;
}

const char* vr_strcasestr(const char* text, const char* pattern) {
    const std::size_t length = std::strlen(pattern);
    if (length == 0) return text;
    for (; *text != '\0'; ++text) {
        if (::strncasecmp(text, pattern, length) == 0) return text;
    }
    return nullptr;
}
