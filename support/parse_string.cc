#include "support/parse_string.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

bool is_space(char character) { return std::isspace(static_cast<unsigned char>(character)) != 0; }

int hex_value(char character) {
    if (character >= '0' && character <= '9') return character - '0';
    if (character >= 'a' && character <= 'f') return character - 'a' + 10;
    if (character >= 'A' && character <= 'F') return character - 'A' + 10;
    return -1;
}

bool is_octal_digit(char character) { return character >= '0' && character <= '7'; }

// Bounded output of one field.
class FieldBuffer {
  public:
    FieldBuffer(char* buffer, std::size_t size) : buffer_(buffer), size_(size) {}
    [[nodiscard]] bool full() const { return length_ + 1 >= size_; }
    void put(int byte) { buffer_[length_++] = static_cast<char>(byte); }
    void terminate() {
        if (size_ > 0) buffer_[length_] = '\0';
    }

  private:
    char* buffer_;
    std::size_t size_;
    std::size_t length_ = 0;
};

// \x and one or two hexadecimal digits; `cursor` stands behind the x. No digit gives nothing.
void read_hex_escape(const char*& cursor, FieldBuffer& field) {
    int value = -1;
    for (int digits = 0; digits < 2 && hex_value(*cursor) >= 0; ++digits, ++cursor) {
        value = (value < 0 ? 0 : value * 16) + hex_value(*cursor);
    }
    if (value >= 0) field.put(value);
}

// Up to three digits 0-7, accumulated in base 16 and truncated to 8 bits.
void read_digit_escape(const char*& cursor, FieldBuffer& field) {
    int value = 0;
    for (int digits = 0; digits < 3 && is_octal_digit(*cursor); ++digits, ++cursor) {
        value = value * 16 + (*cursor - '0');
    }
    field.put(value & 0xFF);
}

// An escape inside double quotes; `cursor` stands behind the backslash. A backslash before any
// other character is dropped and that character is read normally.
void read_escape(const char*& cursor, FieldBuffer& field) {
    static constexpr char letters[] = "nrt\"'\\";
    static constexpr char bytes[] = "\n\r\t\"'\\";
    if (*cursor == '\0') return;
    if (const char* const letter = std::strchr(letters, *cursor)) {
        field.put(bytes[letter - letters]);
        ++cursor;
    } else if (*cursor == 'x') {
        read_hex_escape(++cursor, field);
    } else if (is_octal_digit(*cursor)) {
        read_digit_escape(cursor, field);
    }
}

bool needs_quoting(std::string_view text) {
    for (const char character : text) {
        if (is_space(character) || character == '"' || character == '\\') return true;
    }
    return false;
}

void append_escaped(std::string& result, char character) {
    static constexpr char bytes[] = "\r\t\n\"\\";
    static constexpr char letters[] = "rtn\"\\";
    const auto byte = static_cast<unsigned char>(character);
    if (const void* const found = std::memchr(bytes, character, sizeof bytes - 1)) {
        result += '\\';
        result += letters[static_cast<const char*>(found) - bytes];
    } else if (byte < 32 || byte > 127) {
        char code[5];
        std::snprintf(code, sizeof code, "\\x%02x", byte);
        result += code;
    } else {
        result += character;
    }
}

}  // namespace

int parse_getstring(const char*& cursor, char* buffer, std::size_t size) {
    while (is_space(*cursor)) ++cursor;
    if (*cursor == '\0') return 1;
    FieldBuffer field(buffer, size);
    char quote = '\0';
    while (*cursor != '\0' && !field.full()) {
        const char character = *cursor;
        if (quote == '\0' && is_space(character)) break;
        ++cursor;
        if (character == quote) {
            quote = '\0';
        } else if (quote == '\0' && (character == '"' || character == '\'')) {
            quote = character;
        } else if (quote == '"' && character == '\\') {
            read_escape(cursor, field);
        } else {
            field.put(character);
        }
    }
    field.terminate();
    return 0;
}

std::string parse_string_makeescaped(std::string_view text, bool force) {
    if (text.empty()) return "\"\"";
    if (!force && !needs_quoting(text)) return std::string(text);
    std::string result = "\"";
    for (const char character : text) append_escaped(result, character);
    return result + '"';
}
