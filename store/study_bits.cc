#include "store/study_bits.h"

#include <cstring>
#include <string_view>

namespace {

struct ModalityCode {
    std::string_view code;
    unsigned bit;
};

// OT (other) stands far from the rest, which may grow.
constexpr ModalityCode modality_codes[] = {
    {"CT", 0x1},  {"MR", 0x2},  {"PT", 0x4},  {"ST", 0x8},   {"CR", 0x10},
    {"NM", 0x20}, {"US", 0x40}, {"RG", 0x80}, {"XA", 0x100}, {"OT", 0x10000000},
};

constexpr unsigned punctuation_bit = 1U << 29;
constexpr unsigned digit_bit = 1U << 30;

unsigned char_class_bit(char character) {
    if (character >= 'a' && character <= 'z') return 1U << (character - 'a' + 1);
    if (character >= 'A' && character <= 'Z') return 1U << (character - 'A' + 1);
    if (character >= '0' && character <= '9') return digit_bit;
    return std::strchr("!(),-./:;[]{}", character) != nullptr ? punctuation_bit : 0;
}

}  // namespace

unsigned modalityBit(const char* code) {
    for (const ModalityCode& known : modality_codes) {
        if (known.code == code) return known.bit;
    }
    return 0;
}

unsigned charClassBits(const char* text) {
    unsigned bits = 0;
    for (; *text != '\0'; ++text) bits |= char_class_bit(*text);
    return bits;
}
