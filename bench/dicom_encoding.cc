#include "bench/dicom_encoding.h"

#include <cstring>

#include "bench/basics.h"

namespace bench {
namespace {

constexpr char called_title[] = "ARCHIVE";

std::string tag(unsigned number) { return little(number >> 16, 2) + little(number & 0xffff, 2); }

std::string even(std::string value, char padding) {
    if (value.size() % 2 != 0) value += padding;
    return value;
}

std::size_t read_little(std::string_view bytes, std::size_t at, int width) {
    const std::string_view part = bytes.substr(at, width);
    return read_big(std::string(part.rbegin(), part.rend()), 0, width);
}

std::string title(std::string text) {
    text.resize(16, ' ');
    return text;
}

std::string user_information() {
    return item(0x50, item(0x51, big(our_pdu, 4)) + item(0x52, std::string(root) + ".0"));
}

}  // namespace

std::string big(std::size_t value, int width) {
    std::string bytes;
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xff);
    }
    return bytes;
}

std::string little(std::size_t value, int width) {
    const std::string bytes = big(value, width);
    return {bytes.rbegin(), bytes.rend()};
}

std::size_t read_big(std::string_view bytes, std::size_t at, int width) {
    std::size_t value = 0;
    for (int i = 0; i < width; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
    return value;
}

std::string element(unsigned number, const char* vr, const std::string& text) {
    const bool is_binary = std::strcmp(vr, "OW") == 0 || std::strcmp(vr, "OB") == 0;
    const std::string value = even(text, std::strcmp(vr, "UI") == 0 || is_binary ? '\0' : ' ');
    const std::string length =
        is_binary ? std::string(2, '\0') + little(value.size(), 4) : little(value.size(), 2);
    return tag(number) + vr + length + value;
}

std::string command_text(unsigned number, std::string_view text, char padding) {
    const std::string value = even(std::string(text), padding);
    return tag(number) + little(value.size(), 4) + value;
}

std::string command_number(unsigned number, std::size_t value) {
    return command_text(number, little(value, 2));
}

std::string command(const std::string& elements) {
    return command_text(0x00000000, little(elements.size(), 4)) + elements;
}

std::string_view text_in(std::string_view message, unsigned wanted) {
    for (std::size_t at = 0; at + 8 <= message.size(); at += 8 + read_little(message, at + 4, 4)) {
        if (read_little(message, at + 2, 2) != wanted) continue;
        return message.substr(at + 8, read_little(message, at + 4, 4));
    }
    fail("a message lacks an element");
}

std::size_t number_in(std::string_view message, unsigned wanted) {
    return read_little(text_in(message, wanted), 0, 2);
}

std::string item(int type, const std::string& content) {
    return big(static_cast<std::size_t>(type), 1) + '\0' + big(content.size(), 2) + content;
}

std::string pdu(int type, const std::string& content) {
    return big(static_cast<std::size_t>(type), 1) + '\0' + big(content.size(), 4) + content;
}

std::string associate(int type, const std::string& contexts) {
    return pdu(type, big(1, 2) + std::string(2, '\0') + title(called_title) + title("BENCH") +
                         std::string(32, '\0') + item(0x10, "1.2.840.10008.3.1.1.1") + contexts +
                         user_information());
}

}  // namespace bench
