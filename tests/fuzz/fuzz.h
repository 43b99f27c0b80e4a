// What the fuzz targets share. A target runs one input after the other in one process; whatever
// it finds ends that process.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace tarvo::fuzz {

// A promise that any input must keep.
inline void require(bool kept, const char* promise) {
    if (kept) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

// Takes the text in front of the next `end`, or all that is left, off `rest`.
inline std::string take_until(std::string_view& rest, char end) {
    const std::size_t found = rest.find(end);
    std::string text(rest.substr(0, found));
    rest.remove_prefix(found == std::string_view::npos ? rest.size() : found + 1);
    return text;
}

inline std::string_view text_of(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// A directory below $TMPDIR; script/fuzz takes it away.
inline std::string make_scratch_directory() {
    std::string name = std::filesystem::temp_directory_path() / "tarvo-fuzz-XXXXXX";
    require(::mkdtemp(name.data()) != nullptr, "a scratch directory can be made");
    return name;
}

inline void write_file(const std::string& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace tarvo::fuzz
