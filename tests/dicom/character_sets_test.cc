#include "dicom/character_sets.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Sample {
    const char* what;
    const char* character_set;
    const char* text;
    bool person_name;
    const char* utf8;
};

// Names from PS3.5, annexes H to J and the character set examples of PS3.3, C.12.1.1.2.
constexpr Sample samples[] = {
    {"empty set is ASCII", "", "Doe^John=x", true, "Doe^John=x"},
    {"ASCII ends at a byte beyond it", "", "J\xe9r\xf4me", true, "J"},
    {"default repertoire", "ISO_IR 6", "Doe^John", true, "Doe^John"},
    {"unknown set is Latin 1", "KLINGON", "J\xe9r\xf4me", true, "Jérôme"},
    {"a trailing space makes a set unknown", "ISO_IR 126 ", "\xc4", false, "Ä"},
    {"Latin 1", "ISO_IR 100", "Buc^J\xe9r\xf4me", true, "Buc^Jérôme"},
    {"Latin 2", "ISO_IR 101", "Wa\xb3\xeasa", true, "Wałęsa"},
    {"Latin 3", "ISO_IR 109", "\xa9mistir", true, "İmistir"},
    {"Latin 4", "ISO_IR 110", "B\xear\xf0i\xf2\xb9", true, "Bęrđiōš"},
    {"Cyrillic", "ISO_IR 144", "\xbb\xee\xda\x63\x65\xdc\xd1yp\xd3", true, "Люкceмбypг"},
    {"Arabic", "ISO_IR 127", "\xe2\xc8\xc7\xe6\xea^\xe4\xe6\xd2\xc7\xd1", true, "قباني^لنزار"},
    {"Greek", "ISO_IR 126", "\xc4\xe9\xef\xed\xf5\xf3\xe9\xef\xf2", true, "Διονυσιος"},
    {"Hebrew", "ISO_IR 138", "\xf9\xf8\xe5\xef^\xe3\xe1\xe5\xf8\xe4", true, "שרון^דבורה"},
    {"Turkish", "ISO_IR 148",
     "\xc7"
     "avu\xfeo\xf0lu",
     true, "Çavuşoğlu"},
    {"Katakana", "ISO_IR 13", "\xd4\xcf\xc0\xde^\xc0\xdb\xb3", true, "ﾔﾏﾀﾞ^ﾀﾛｳ"},
    {"Thai", "ISO_IR 166", "\xb9\xd2\xc1\xca\xa1\xd8\xc5", true, "นามสกุล"},
    {"UTF-8", "ISO_IR 192", "Wang^XiaoDong=王^小東=", true, "Wang^XiaoDong=王^小東="},
    {"UTF-8 ends at half a character", "ISO_IR 192", "a\xe7\x8e", true, "a"},
    {"GB18030", "GB18030", "Wang^XiaoDong=\xcd\xf5^\xd0\xa1\xb6\xab=", true,
     "Wang^XiaoDong=王^小东="},

    {"Japanese, first value empty", "\\ISO 2022 IR 87",
     "Yamada^Tarou=\033$B;3ED\033(B^\033$BB@O:\033(B=\033$B$d$^$@\033(B^\033$B$?$m$&\033(B", true,
     "Yamada^Tarou=山田^太郎=やまだ^たろう"},
    {"Japanese, first value Katakana", "ISO 2022 IR 13\\ISO 2022 IR 87",
     "\xd4\xcf\xc0\xde^\xc0\xdb\xb3=\033$B;3ED\033(J^\033$BB@O:\033(J=\033$B$d$^$@\033(J^"
     "\033$B$?$m$&\033(J",
     true, "ﾔﾏﾀﾞ^ﾀﾛｳ=山田^太郎=やまだ^たろう"},
    {"Japanese, no return to ASCII at the end", "\\ISO 2022 IR 87", "\033$B;3", false, "山"},
    {"Korean", "\\ISO 2022 IR 149",
     "Hong^Gildong=\033$)C\xfb\xf3^\033$)C\xd1\xce\xd4\xd7=\033$)C\xc8\xab^\033$)C\xb1\xe6\xb5\xbf",
     true, "Hong^Gildong=洪^吉洞=홍^길동"},
    {"Greek and Cyrillic by escape sequences", "ISO 2022 IR 100\\ISO 2022 IR 126\\ISO 2022 IR 144",
     "J\xe9r\xf4me=\033-F\xc4\xe9\xef\033-L\xbb\xee=\xe9", true, "Jérôme=ΔιοЛю=é"},
    {"each single-byte escape sequence", "ISO 2022 IR 6\\ISO 2022 IR 100",
     "\033-A\xe9\033-B\xb3\033-C\xa9\033-D\xf0\033-L\xee\033-G\xe2\033-F\xc4\033-H\xf9\033-M\xfe"
     "\033)I\xd4\033(J\xcf\033-T\xb9\033(Bz",
     false, "éłİđюقΔשşﾔﾏนz"},

    {"components of a name start in the default set", "\\ISO 2022 IR 126", "\033-F\xc4^\xc4", true,
     "Incomplete iconv"},
    {"other values know no components", "\\ISO 2022 IR 126", "\033-F\xc4^\xc4=\xc4", false,
     "Δ^Δ=Δ"},
    {"values and lines start in the default set", "ISO_IR 100\\ISO 2022 IR 126",
     "\033-F\xc4\\\xc4\r\033-F\xc4\n\xc4\033-F\xc4\f\xc4", false, "Δ\\Ä\rΔ\nÄΔ\fÄ"},
    {"a Japanese character with a backslash half is cut", "\\ISO 2022 IR 87", "\033$B;3K\\\033(B",
     true, "Incomplete iconv"},
    {"no converter for JIS X 0212", "\\ISO 2022 IR 159", "a\033$(D\x22\x6f\033(B", true,
     ">>SCS fail"},
    {"escape sequence of no known set", "\\ISO 2022 IR 87", "ab\033$Ac", true, "Unknown ESC"},
    {"escape sequence cut short", "\\ISO 2022 IR 87", "ab\033$", true, "Unknown ESC"},
    {"byte outside the default set", "\\ISO 2022 IR 87", "ab\xe9", true, "Incomplete iconv"},
    {"half a Korean character", "\\ISO 2022 IR 149", "\033$)C\xfb", true, "Incomplete iconv"},
    {"unknown first value is Latin 1", "KLINGON\\ISO 2022 IR 87", "\xe9", true, "é"},
    {"first value Cyrillic", "ISO 2022 IR 144\\ISO 2022 IR 6", "\xd4", false, "д"},
    {"first value Thai", "ISO 2022 IR 166\\ISO 2022 IR 6", "\xd4", false, "ิ"},
    {"first value Japanese", "ISO 2022 IR 87\\ISO 2022 IR 6", "\xd4", false, "ﾔ"},
    {"first value Korean", "ISO 2022 IR 149\\", "\xfb\xf3", false, "洪"},
    {"first value without code extensions", "ISO_IR 126\\ISO 2022 IR 6", "\xd4", false, "Τ"},
    {"empty text", "\\ISO 2022 IR 87", "", true, ""},
};

// Fills the whole buffer with a byte that no other test value has: nothing of an earlier value may
// stand in a later one.
std::string convert(const std::string& text, const std::string& character_set, bool person_name) {
    EXPECT_EQ(DCMTK_convertSCS(std::string(2047, '~').c_str(), "", 0, "UTF-8"),
              std::string(2047, '~'));
    const char* const result =
        DCMTK_convertSCS(text.c_str(), character_set.c_str(), person_name, "UTF-8");
    return result != nullptr ? result : "null";
}

TEST(CharacterSets, ConvertToUtf8) {
    for (const Sample& s : samples) {
        EXPECT_EQ(convert(s.text, s.character_set, s.person_name), s.utf8) << s.what;
    }
}

TEST(CharacterSets, NoConverter) {
    EXPECT_EQ(DCMTK_convertSCS("a", "ISO_IR 100", 0, "NO SUCH SET"), nullptr);
    EXPECT_STREQ(DCMTK_convertSCS("a", "ISO_IR 100\\ISO_IR 6", 0, "NO SUCH SET"), ">>SCS fail");
    EXPECT_STREQ(DCMTK_convertSCS(nullptr, nullptr, 0, "UTF-8"), "");
}

std::string repeated(std::string_view piece, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += piece;
    return text;
}

TEST(CharacterSets, KeepWhatFitsInto2047Bytes) {
    const std::string full(2047, 'a');
    struct Case {
        const char* what;
        const char* character_set;
        std::string text;
        std::string utf8;
    };
    const Case cases[] = {
        {"exact fit", "", full, full},
        {"one byte more", "", full + "b", full},
        {"whole characters only", "ISO_IR 126", repeated("\xc4", 2000), repeated("Δ", 1023)},
        {"segments, exact fit", "\\x", full, full},
        {"segments, one byte more", "\\x", full + "b", full},
        {"no room for a delimiter", "\\x", full + "\\", full},
        {"nor for what follows it", "\\x", full + "\\b", full},
        {"segments, whole characters only", "\\x", full.substr(1) + "\033-F\xc4", full.substr(1)},
        {"nothing after the character that did not fit", "\\x",
         full.substr(1) + "\033-F\xc4\033(Bb", full.substr(1)},
        {"text of many segments", "\\x", repeated("\033-F\xc4\033(Bb", 3000), repeated("Δb", 682)},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(convert(c.text, c.character_set, false), c.utf8) << c.what;
    }
}

}  // namespace
