#include "support/parse_string.h"

#include <gtest/gtest.h>

#include <memory>
#include <tuple>
#include <vector>

#include "support/bounded_string.h"

namespace {

// Every field of a line, read into a buffer of exactly `size` bytes so that a sanitizer sees
// each byte too many.
std::vector<std::string> fields_of(const std::string& line, std::size_t size) {
    std::vector<std::string> fields;
    const char* cursor = line.c_str();
    const auto buffer = std::make_unique<char[]>(size);
    while (parse_getstring(cursor, buffer.get(), size) == 0) fields.emplace_back(buffer.get());
    return fields;
}

TEST(ParseString, ReadsFields) {
    struct Case {
        const char* line;
        std::vector<std::string> fields;
    };
    const Case table[] = {
        {" \t\r\n", {}},
        {"a  b\tc\n", {"a", "b", "c"}},
        {R"("" '' "Reading room" 'it''s' a"b c"d)", {"", "", "Reading room", "its", "ab cd"}},
        {R"('\n "' "it's")", {R"(\n ")", "it's"}},
        {R"("\"\'\\|\n\r\t")", {"\"'\\|\n\r\t"}},
        {R"("\x4A\x4az\xZ\x7")", {"JJzZ\x07"}},
        {R"("\101\12\3777\8")", {"\x01\x12w78"}},
        {R"("\a\ b" \q)", {"a b", "\\q"}},
        {R"("open end\)", {"open end"}},
        {"O'Brien x' y", {"OBrien x", "y"}},
        {"123456789012345678 x", {"123456789012345", "678", "x"}},
        {"123456789012345 x", {"123456789012345", "x"}},
        // The closing quote of a field that fills its buffer is left to the next field.
        {R"("1 3456789012345" x)", {"1 3456789012345", " x"}},
    };
    for (const Case& each : table) EXPECT_EQ(fields_of(each.line, 16), each.fields) << each.line;
}

TEST(ParseString, EscapesWhatNeedsIt) {
    const std::pair<std::string, std::string> table[] = {
        {"", R"("")"},
        {"PACS1", "PACS1"},
        {"O'Brien\x01\xfc", "O'Brien\x01\xfc"},  // nothing that needs quotes
        {"Reading room", R"("Reading room")"},
        {"A\tB", R"("A\tB")"},
        {"\r\n\"", R"("\r\n\"")"},
        {"a\\b", R"("a\\b")"},
        {" \x01\x1f\x7f\xfc\v", "\" \\x01\\x1f\x7f\\xfc\\x0b\""},
    };
    for (const auto& [text, escaped] : table)
        EXPECT_EQ(parse_string_makeescaped(text, false), escaped);
    EXPECT_EQ(parse_string_makeescaped("O'Brien", true), R"("O'Brien")");
}

TEST(BoundedString, CutsAndSaysSo) {
    for (const auto& [before, source, after, fits] :
         {std::tuple{"", "abc", "abc", true}, std::tuple{"", "abcdef", "abc", false},
          std::tuple{"ab", "c", "abc", true}, std::tuple{"ab", "cd", "abc", false}}) {
        const auto buffer = std::make_unique<char[]>(4);
        EXPECT_NE(vr_strncpy(buffer.get(), before, 4), nullptr);
        EXPECT_EQ(vr_strncat(buffer.get(), source, 4) != nullptr, fits);
        EXPECT_STREQ(buffer.get(), after);
    }
}

}  // namespace
