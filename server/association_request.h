// A first look at an A-ASSOCIATE-RQ PDU (PS3.8, 9.3.2), before any DICOM parser gets it.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace tarvo {

inline constexpr std::size_t pdu_header_length = 6;
inline constexpr std::uint8_t associate_request = 0x01;  // PDU type

// The length that a PDU header promises for what follows it. `header` has at least 6 bytes.
[[nodiscard]] std::size_t promised_length(std::span<const std::uint8_t> header);

// Whether a complete PDU is an A-ASSOCIATE-RQ whose items and sub-items lie inside one another,
// none repeated that must not be. What passes may still ask for nonsense; what fails would make
// the toolkit read beyond an item or, for a repeated user identity, lose up to 64 kB each time.
[[nodiscard]] bool is_well_formed_request(std::span<const std::uint8_t> pdu);

// The AE titles of a well-formed request, without the blanks around them.
[[nodiscard]] std::string calling_title(std::span<const std::uint8_t> pdu);
[[nodiscard]] std::string called_title(std::span<const std::uint8_t> pdu);

}  // namespace tarvo
