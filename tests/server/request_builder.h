// Association requests, item by item (PS3.8, 9.3.2).
#pragma once

#include <cstdint>
#include <string>

namespace tarvo::test {

inline std::string number(std::size_t value, int width) {
    std::string bytes;
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
    return bytes;
}

inline std::string item(int type, const std::string& content) {
    return number(static_cast<std::size_t>(type) << 8, 2) + number(content.size(), 2) + content;
}

// A text behind its length, as some user items hold it.
inline std::string counted(const std::string& text) { return number(text.size(), 2) + text; }

inline const std::string application = item(0x10, "1.2.840.10008.3.1.1.1");
inline const std::string abstract = item(0x30, "1.2.840.10008.1.1");
inline const std::string transfer = item(0x40, "1.2.840.10008.1.2");
inline const std::string largest_pdu = item(0x51, number(16384, 4));

inline std::string context(const std::string& syntaxes = abstract + transfer) {
    return item(0x20, number(0x01000000, 4) + syntaxes);
}

inline std::string user(const std::string& items = largest_pdu + item(0x52, "1.2.3.4")) {
    return item(0x50, items);
}

inline std::string padded(std::string title) {
    title.resize(16, ' ');
    return title;
}

inline std::string pdu(int type, const std::string& body) {
    std::string bytes = number(static_cast<std::size_t>(type) << 8, 2);
    return bytes.append(number(body.size(), 4)).append(body);
}

inline std::string usual_items() {
    std::string items = application;
    return items.append(context()).append(user());
}

inline std::string request(const std::string& items = usual_items(),
                           const std::string& calling = "CALLING", std::size_t version = 1) {
    std::string body = number(version << 16, 4);
    body.append(padded("CALLED")).append(padded(calling));
    body.resize(68);
    return pdu(1, body.append(items));
}

}  // namespace tarvo::test
