// A first look at an A-ASSOCIATE-RQ PDU (PS3.8, 9.3.2), before any DICOM parser gets it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace tarvo {

inline constexpr std::size_t pdu_header_length = 6;
inline constexpr std::uint8_t associate_request = 0x01;  // PDU type

// The length that a PDU header promises for what follows it. `header` has at least 6 bytes.
[[nodiscard]] std::size_t promised_length(std::span<const std::uint8_t> header);

// Whether a complete PDU is an A-ASSOCIATE-RQ whose items and sub-items lie inside one another,
// none repeated that must not be. What passes may still ask for nonsense. What fails is what the
// toolkit does not take either, and repetitions: it loses up to 64 kB with each user identity.
[[nodiscard]] bool is_well_formed_request(std::span<const std::uint8_t> pdu);

// Whether a complete A-ASSOCIATE-RQ is made for other versions of the protocol only. What its items
// are is then anybody's guess.
[[nodiscard]] bool speaks_other_protocol(std::span<const std::uint8_t> pdu);

// The AE titles of a well-formed request, without the blanks around them.
[[nodiscard]] std::string calling_title(std::span<const std::uint8_t> pdu);
[[nodiscard]] std::string called_title(std::span<const std::uint8_t> pdu);

}  // namespace tarvo
