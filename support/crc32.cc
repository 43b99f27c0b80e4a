#include "support/crc32.h"

std::uint32_t crc32_table[256];

void crc32_init(std::uint32_t polynomial) {
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1) != 0 ? (value >> 1) ^ polynomial : value >> 1;
        }
        crc32_table[byte] = value;
    }
}

namespace tarvo {

std::uint32_t crc32_of(std::string_view text) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char character : text) {
        crc = (crc >> 8) ^ crc32_table[(crc ^ static_cast<unsigned char>(character)) & 0xFF];
    }
    return ~crc;
}

}  // namespace tarvo
