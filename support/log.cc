#include "support/log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "support/file_helpers.h"

namespace {

// Set without any code of ours: the store object logs before main runs.
constinit unsigned level_mask = 63;

// One printf conversion of a format, from its '%' to its letter, stars replaced by their values.
struct Conversion {
    std::string text;
    int length = 0;  // 0 int, 1 long, 2 long long, 3 as wide as a size
    char letter = '\0';
};

bool is_one_of(char character, const char* set) {
    return character != '\0' && std::strchr(set, character) != nullptr;
}

// A negative precision counts as none; a negative width is a '-' flag with its width.
void append_star(std::string& text, int value) {
    if (text.back() != '.' || value >= 0) {
        text += std::to_string(value);
    } else {
        text.pop_back();
    }
}

// Reads the conversion that starts at `format`, which points at its '%'. Leaves `format` behind it.
Conversion read_conversion(const char*& format, va_list* values) {
    Conversion conversion;
    conversion.text += *format++;
    for (; is_one_of(*format, "-+ #0123456789.*hlzjt"); ++format) {
        if (*format == 'l') ++conversion.length;
        if (is_one_of(*format, "zjt")) conversion.length = 3;
        if (*format == '*') {
            append_star(conversion.text, va_arg(*values, int));
        } else {
            conversion.text += *format;
        }
    }
    if (*format != '\0') {
        conversion.letter = *format;
        conversion.text += *format++;
    }
    return conversion;
}

// The most characters that a %s conversion may read: a value with a precision need not end in NUL.
std::size_t readable_length(const Conversion& conversion) {
    const std::size_t point = conversion.text.find('.');
    if (point == std::string::npos) return std::string::npos;
    return std::strtoul(conversion.text.c_str() + point + 1, nullptr, 10);
}

bool is_control(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7f;
}

// A value as it may stand in a log line.
std::string printable(const char* value, std::size_t limit) {
    if (value == nullptr) return "(null)";
    std::string shown(value,
                      limit == std::string::npos ? std::strlen(value) : ::strnlen(value, limit));
    for (char& character : shown) {
        if (is_control(character)) character = '?';
    }
    return shown;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // checked where logprintf is called
template <typename Value>
void append_formatted(std::string& line, const Conversion& conversion, Value value) {
    const int width = std::snprintf(nullptr, 0, conversion.text.c_str(), value);
    if (width <= 0) return;
    const std::size_t start = line.size();
    line.resize(start + static_cast<std::size_t>(width) + 1);
    std::snprintf(line.data() + start, static_cast<std::size_t>(width) + 1, conversion.text.c_str(),
                  value);
    line.pop_back();
}
#pragma GCC diagnostic pop

void append_integer(std::string& line, const Conversion& conversion, va_list* values) {
    switch (conversion.length) {
        case 1:
            return append_formatted(line, conversion, va_arg(*values, long));
        case 2:
            return append_formatted(line, conversion, va_arg(*values, long long));
        case 3:
            return append_formatted(line, conversion, va_arg(*values, std::size_t));
        default:
            return append_formatted(line, conversion, va_arg(*values, int));
    }
}

void append_character(std::string& line, const Conversion& conversion, int value) {
    const char character = static_cast<char>(value);
    append_formatted(line, conversion, is_control(character) ? '?' : character);
}

void append_text(std::string& line, const Conversion& conversion, const char* value) {
    append_formatted(line, conversion, printable(value, readable_length(conversion)).c_str());
}

// Appends one conversion with its value. Returns false for a letter that is not known: the values
// behind it cannot be read.
bool append_conversion(std::string& line, const Conversion& conversion, va_list* values) {
    if (conversion.letter == '%') {
        line += '%';
    } else if (conversion.letter == 's') {
        append_text(line, conversion, va_arg(*values, const char*));
    } else if (conversion.letter == 'c') {
        append_character(line, conversion, va_arg(*values, int));
    } else if (conversion.letter == 'p') {
        append_formatted(line, conversion, va_arg(*values, const void*));
    } else if (is_one_of(conversion.letter, "diouxX")) {
        append_integer(line, conversion, values);
    } else if (is_one_of(conversion.letter, "aAeEfFgG")) {
        append_formatted(line, conversion, va_arg(*values, double));
    } else {
        return false;
    }
    return true;
}

void append_message(std::string& line, const char* format, va_list* values) {
    while (*format != '\0') {
        if (*format != '%') {
            line += *format++;
            continue;
        }
        const Conversion conversion = read_conversion(format, values);
        if (!append_conversion(line, conversion, values)) {
            line += conversion.text;
            line += format;
            return;
        }
    }
}

std::string line_prefix() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char prefix[64];
    std::snprintf(prefix, sizeof prefix,
                  "%04d-%02d-%02d %02d:%02d:%02d [%d]:", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(::getpid()));
    return prefix;
}

// A stream without a descriptor (a memory stream) takes the line through stdio.
void write_line(FILE* stream, const std::string& line) {
    const int descriptor = ::fileno(stream);
    if (descriptor >= 0) {
        std::fflush(stream);
        // There is nowhere to report that the log itself cannot be written.
        static_cast<void>(writeAll(descriptor, line.data(), line.size()));
        return;
    }
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fflush(stream);
}

}  // namespace

int logprintf(unsigned level, FILE* stream, const char* format, ...) {
    if (stream == nullptr || !logprintf_enabled(level)) return 0;
    const int error = errno;
    std::string line = line_prefix();
    std::va_list values;
    va_start(values, format);
    append_message(line, format, &values);
    va_end(values);
    write_line(stream, line);
    errno = error;
    return static_cast<int>(line.size());
}

void logprintf_setmaxlevel(unsigned level) { level_mask = level * 2 - 1; }

bool logprintf_enabled(unsigned level) { return (level_mask & level) != 0; }
