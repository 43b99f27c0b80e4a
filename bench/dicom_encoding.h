// The bytes of DICOM as far as the load generator speaks it: elements of data sets (Explicit VR
// Little Endian, PS3.5), commands (PS3.7) and PDUs (PS3.8), made without looking at what the server
// does.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace bench {

inline constexpr char verification[] = "1.2.840.10008.1.1";
inline constexpr char ct_image[] = "1.2.840.10008.5.1.4.1.1.2";
inline constexpr char study_find[] = "1.2.840.10008.5.1.4.1.2.2.1";
inline constexpr char study_move[] = "1.2.840.10008.5.1.4.1.2.2.2";
inline constexpr char explicit_little[] = "1.2.840.10008.1.2.1";
inline constexpr char root[] = "1.2.826.0.1.3680043.10.999";  // of all UIDs made here

inline constexpr std::size_t our_pdu = 131072;  // the longest that we take

// Numbers of `width` bytes.
[[nodiscard]] std::string big(std::size_t value, int width);
[[nodiscard]] std::string little(std::size_t value, int width);
[[nodiscard]] std::size_t read_big(std::string_view bytes, std::size_t at, int width);

// An element of a data set: `number` is group and element in one, `text` its value as it stands
// there but for the padding to even length.
[[nodiscard]] std::string element(unsigned number, const char* vr, const std::string& text);

// Elements of a command, which is in Implicit VR Little Endian always, and the command of them.
[[nodiscard]] std::string command_text(unsigned number, std::string_view text, char padding = '\0');
[[nodiscard]] std::string command_number(unsigned number, std::size_t value);
[[nodiscard]] std::string command(const std::string& elements);

// The value of a command's element, known by the lower half of its tag.
[[nodiscard]] std::string_view text_in(std::string_view message, unsigned wanted);
[[nodiscard]] std::size_t number_in(std::string_view message, unsigned wanted);

// A PDU, and an item of one.
[[nodiscard]] std::string pdu(int type, const std::string& content);
[[nodiscard]] std::string item(int type, const std::string& content);
// An association request (type 1) or its acceptance (2): everything but the presentation contexts
// is the same.
[[nodiscard]] std::string associate(int type, const std::string& contexts);

}  // namespace bench
