// CRC-32 in the reflected form (IEEE 802.3, zlib): names the fan-out directories and keys the
// study hash entries.
#pragma once

#include <cstdint>
#include <string_view>

extern std::uint32_t crc32_table[256];

// Fills crc32_table for a reflected polynomial; 0xEDB88320 gives the standard table.
void crc32_init(std::uint32_t polynomial);

namespace tarvo {

// CRC-32 of a text with the table as it stands (initial value 0xFFFFFFFF, final complement).
// The empty text has the value 0.
[[nodiscard]] std::uint32_t crc32_of(std::string_view text);

}  // namespace tarvo
