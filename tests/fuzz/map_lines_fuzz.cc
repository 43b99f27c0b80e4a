// Any bytes as an AE title map file, and as a text to be escaped.
#include "support/parse_string.h"
#include "tests/fuzz/map_round_trip.h"

namespace {

using tarvo::fuzz::require;

// Whether a field of at most `width` - 1 characters comes back from what is written for it.
bool reads_back(const std::string& text, bool quoted, std::size_t width) {
    const std::string written = parse_string_makeescaped(text, quoted);
    std::string buffer(width, '\xee');
    const char* cursor = written.c_str();
    return parse_getstring(cursor, buffer.data(), width) == 0 && *cursor == '\0' &&
           buffer.c_str() == text;
}

void check_escaping(const std::string& text) {
    const std::size_t width = text.size() + 2;  // room for the closing quote, too
    require(reads_back(text, true, width), "a quoted text reads back");
    const bool bare_apostrophe =
        text.find('\'') != std::string::npos && parse_string_makeescaped(text, false) == text;
    require(bare_apostrophe || reads_back(text, false, width), "a text reads back");
    // Every narrower field cuts, and never writes behind its end.
    for (const std::size_t narrow : {std::size_t{1}, width / 2 + 1}) {
        std::string buffer(narrow, '\xee');
        const char* cursor = text.c_str();
        while (parse_getstring(cursor, buffer.data(), buffer.size()) == 0 && narrow > 1) {
        }
        require(cursor <= text.c_str() + text.size(), "the cursor stays in its line");
    }
}

bool reads_back(const AETitleMapEntry& entry) {
    return reads_back(entry.name, false, 128) && reads_back(entry.aetitle, false, 128) &&
           reads_back(entry.address, false, 128) &&
           reads_back(entry.comment.value_or("-"), false, 1024);
}

bool lines_fit(const std::string& file) {
    std::string_view rest = file;
    while (!rest.empty()) {
        if (tarvo::fuzz::take_until(rest, '\n').size() > 1023) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(tarvo::fuzz::text_of(data, size));
    check_escaping(input.c_str());

    const tarvo::UniqueFd file(::memfd_create("map", MFD_CLOEXEC));
    require(tarvo::write_at(file.get(), data, size, 0), "the file is there");
    AETitleMap map;
    require(AETitleMap_Load_fd(map, file.get()) == 0, "any file can be loaded");
    // Only texts that the file cannot keep may change what else is in the map.
    tarvo::fuzz::check_round_trip(map, file.get(), [&map](const std::string& saved) {
        bool keeps = lines_fit(saved);
        for (const auto* entry = map.first.get(); entry; entry = entry->next.get()) {
            keeps = keeps && reads_back(*entry);
        }
        return keeps;
    });
    return 0;
}
