// Fixed-width text fields of on-disk records: cut at the width, zero-filled, and WITHOUT a
// terminating NUL when the text fills the field. Fill and read them through this pair only.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace tarvo {

inline void set_field(char* field, std::size_t width, std::string_view text) {
    const std::size_t length = text.size() < width ? text.size() : width;
    std::memcpy(field, text.data(), length);
    std::memset(field + length, 0, width - length);
}

template <std::size_t width>
void set_field(char (&field)[width], std::string_view text) {
    set_field(field, width, text);
}

[[nodiscard]] inline std::string_view field_text(const char* field, std::size_t width) {
    return {field, ::strnlen(field, width)};
}

template <std::size_t width>
[[nodiscard]] std::string_view field_text(const char (&field)[width]) {
    return field_text(field, width);
}

}  // namespace tarvo
