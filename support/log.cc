#include "support/log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

#include "support/file_helpers.h"

namespace {

// Zero-data initialised: the store object logs before main runs.
constinit unsigned level_mask = 63;

// One printf conversion of a format, from its '%' to its letter.
struct Conversion {
    std::string text;
    int length = 0;  // 0 int, 1 long, 2 long long, 3 size_t
    char letter = '\0';
};

// Reads the conversion that starts at `format`, which points at its '%'. Leaves `format` behind it.
Conversion read_conversion(const char*& format) {
    Conversion conversion;
    conversion.text += *format++;
    for (; *format != '\0' && std::strchr("diuxXcs%", *format) == nullptr; ++format) {
        if (*format == 'l') ++conversion.length;
        if (*format == 'z') conversion.length = 3;
        conversion.text += *format;
    }
    if (*format != '\0') {
        conversion.letter = *format;
        conversion.text += *format++;
    }
    return conversion;
}

bool is_control(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7f;
}

// A value as it may stand in a log line.
std::string printable(const char* value) {
    std::string shown = value != nullptr ? value : "(null)";
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

void append_message(std::string& line, const char* format, va_list* values) {
    while (*format != '\0') {
        if (*format != '%') {
            line += *format++;
            continue;
        }
        const Conversion conversion = read_conversion(format);
        switch (conversion.letter) {
            case '\0':
                return;
            case '%':
                line += '%';
                break;
            case 's':
                append_formatted(line, conversion, printable(va_arg(*values, const char*)).c_str());
                break;
            case 'c':
                append_character(line, conversion, va_arg(*values, int));
                break;
            default:
                append_integer(line, conversion, values);
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
