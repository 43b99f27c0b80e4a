#include "dicom/character_sets.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <map>
#include <span>
#include <string_view>

namespace {

struct Term {
    std::string_view defined_term;  // of Specific Character Set (0008,0005)
    const char* iconv_name;
};

// Searched from the top; the first exact match wins.
constexpr std::array single_value_terms{
    Term{"", "ASCII"},
    Term{"ISO_IR 6", "ASCII"},
    Term{"ISO_IR 100", "ISO-8859-1"},
    Term{"ISO_IR 101", "ISO-8859-2"},
    Term{"ISO_IR 109", "ISO-8859-3"},
    Term{"ISO_IR 110", "ISO-8859-4"},
    Term{"ISO_IR 144", "ISO-8859-5"},
    Term{"ISO_IR 127", "ISO-8859-6"},
    Term{"ISO_IR 126", "ISO-8859-7"},
    Term{"ISO_IR 138", "ISO-8859-8"},
    Term{"ISO_IR 148", "ISO-8859-9"},
    Term{"ISO_IR 13", "SJIS"},
    Term{"ISO_IR 166", "ISO-IR-166"},
    Term{"ISO_IR 192", "UTF-8"},
    Term{"GB18030", "GB18030"},
};

// The first of several values may also be one of these. The multi-byte Japanese sets start as
// SJIS: their text only begins behind an escape sequence, which has a row of its own below.
constexpr std::array code_extension_terms{
    Term{"ISO 2022 IR 6", "ASCII"},        Term{"ISO 2022 IR 100", "ISO-8859-1"},
    Term{"ISO 2022 IR 101", "ISO-8859-2"}, Term{"ISO 2022 IR 109", "ISO-8859-3"},
    Term{"ISO 2022 IR 110", "ISO-8859-4"}, Term{"ISO 2022 IR 144", "ISO-8859-5"},
    Term{"ISO 2022 IR 127", "ISO-8859-6"}, Term{"ISO 2022 IR 126", "ISO-8859-7"},
    Term{"ISO 2022 IR 138", "ISO-8859-8"}, Term{"ISO 2022 IR 148", "ISO-8859-9"},
    Term{"ISO 2022 IR 13", "SJIS"},        Term{"ISO 2022 IR 166", "ISO-IR-166"},
    Term{"ISO 2022 IR 87", "SJIS"},        Term{"ISO 2022 IR 159", "SJIS"},
    Term{"ISO 2022 IR 149", "EUC-KR"},
};

constexpr const char* unknown_term_set = "ISO-8859-1";

constexpr char escape = '\x1b';

// As much as a length of 16 bits allows. Only Implicit VR can say more, and somebody who sends
// megabytes of escape sequences must not keep others waiting for the study index.
constexpr std::size_t longest_text = 0xFFFF;

struct EscapeSequence {
    std::string_view bytes;
    const char* iconv_name;
    std::size_t kept;  // bytes at its end that the converter needs to see
};

// glibc knows "ISO-2022-JP-2" but not "ISO-2022-JP2": there text in JIS X 0212 cannot be converted.
constexpr std::array escape_sequences{
    EscapeSequence{"\x1b(B", "ASCII", 0},         EscapeSequence{"\x1b-A", "ISO-8859-1", 0},
    EscapeSequence{"\x1b-B", "ISO-8859-2", 0},    EscapeSequence{"\x1b-C", "ISO-8859-3", 0},
    EscapeSequence{"\x1b-D", "ISO-8859-4", 0},    EscapeSequence{"\x1b-L", "ISO-8859-5", 0},
    EscapeSequence{"\x1b-G", "ISO-8859-6", 0},    EscapeSequence{"\x1b-F", "ISO-8859-7", 0},
    EscapeSequence{"\x1b-H", "ISO-8859-8", 0},    EscapeSequence{"\x1b-M", "ISO-8859-9", 0},
    EscapeSequence{"\x1b)I", "SJIS", 0},          EscapeSequence{"\x1b(J", "SJIS", 0},
    EscapeSequence{"\x1b-T", "ISO-IR-166", 0},    EscapeSequence{"\x1b$B", "ISO-2022-JP", 3},
    EscapeSequence{"\x1b$(D", "ISO-2022-JP2", 4}, EscapeSequence{"\x1b$)C", "EUC-KR", 0},
};

const char* find_term(std::span<const Term> terms, std::string_view wanted) {
    const auto found = std::ranges::find(terms, wanted, &Term::defined_term);
    return found == terms.end() ? nullptr : found->iconv_name;
}

const EscapeSequence* find_escape_sequence(std::string_view text) {
    const auto found = std::ranges::find_if(escape_sequences, [text](const EscapeSequence& row) {
        return text.starts_with(row.bytes);
    });
    return found == escape_sequences.end() ? nullptr : &*found;
}

class Converter {
  public:
    Converter(const char* source, const char* target) : handle_(::iconv_open(target, source)) {}
    Converter(const Converter&) = delete;
    Converter(Converter&&) = delete;
    Converter& operator=(const Converter&) = delete;
    Converter& operator=(Converter&&) = delete;
    ~Converter() {
        if (*this) ::iconv_close(handle_);
    }

    // As if it had just been opened.
    void restart() const { ::iconv(handle_, nullptr, nullptr, nullptr, nullptr); }

    explicit operator bool() const { return handle_ != failed(); }
    [[nodiscard]] iconv_t get() const { return handle_; }

  private:
    // POSIX: iconv_open fails with "(iconv_t)-1".
    static iconv_t failed() {
        return reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr)
    }

    iconv_t handle_;
};

enum class Conversion { whole, stopped_at_byte, no_room, no_converter };

// The converted text. It is terminated at the point reached after every step, so that nothing of
// an earlier value ever stands in a later one.
class Output {
  public:
    void clear() { end_at(0); }

    Conversion append(const Converter& converter, std::string_view bytes) {
        char* input = const_cast<char*>(bytes.data());  // iconv's signature; it only reads
        std::size_t input_left = bytes.size();
        char* output = text_.data() + used_;
        std::size_t room = capacity - used_;
        const std::size_t result = ::iconv(converter.get(), &input, &input_left, &output, &room);
        const bool no_room = result == static_cast<std::size_t>(-1) && errno == E2BIG;
        end_at(capacity - room);
        if (input_left == 0) return Conversion::whole;
        return no_room ? Conversion::no_room : Conversion::stopped_at_byte;
    }

    void append(char byte) {
        if (used_ == capacity) return;
        text_[used_] = byte;
        end_at(used_ + 1);
    }

    [[nodiscard]] const char* text() const { return text_.data(); }

  private:
    static constexpr std::size_t capacity = 2047;

    void end_at(std::size_t used) {
        used_ = used;
        text_[used_] = '\0';
    }

    std::array<char, capacity + 1> text_{};
    std::size_t used_ = 0;
};

constinit Output output;

const char* convert_single(std::string_view text, std::string_view term, const char* target) {
    const char* const source = find_term(single_value_terms, term);
    const Converter converter(source != nullptr ? source : unknown_term_set, target);
    if (!converter) return nullptr;
    // With its terminating NUL, which makes the converter end the text properly. Stopping early
    // is not an error here: what came before stands.
    static_cast<void>(output.append(converter, {text.data(), text.size() + 1}));
    return output.text();
}

// The character set of the first of several values.
const char* default_character_set(std::string_view terms) {
    const std::string_view first = terms.substr(0, terms.find('\\'));
    if (const char* set = find_term(single_value_terms, first)) return set;
    if (const char* set = find_term(code_extension_terms, first)) return set;
    return unknown_term_set;
}

// Walks over a text with escape sequences, which falls into segments: each stands in one character
// set and ends in front of a delimiter, an escape sequence or the end of the text.
class Segments {
  public:
    Segments(std::string_view text, const char* default_set, bool person_name)
        : text_(text),
          default_set_(default_set),
          current_set_(default_set),
          person_name_(person_name) {}

    // The rest of the text up to the next end byte.
    std::string_view next() {
        const std::size_t found = text_.find_first_of(end_bytes(), position_);
        position_ = std::min(found, text_.size());
        return text_.substr(start_, position_ - start_);
    }

    [[nodiscard]] const char* character_set() const { return current_set_; }
    [[nodiscard]] bool at_end() const { return position_ == text_.size(); }
    [[nodiscard]] char end_byte() const { return text_[position_]; }

    // The next value, line or component of a name starts in the default set.
    void step_over_delimiter() {
        current_set_ = default_set_;
        start_ = ++position_;
    }

    [[nodiscard]] bool step_over_escape_sequence() {
        const EscapeSequence* const sequence = find_escape_sequence(text_.substr(position_));
        if (sequence == nullptr) return false;
        current_set_ = sequence->iconv_name;
        position_ += sequence->bytes.size();
        start_ = position_ - sequence->kept;
        return true;
    }

  private:
    // A backslash ends a segment even as the second half of a Japanese character (0x5C); "=" and
    // "^" do not: there they are always such halves.
    [[nodiscard]] std::string_view end_bytes() const {
        const bool components = person_name_ && current_set_ != std::string_view("ISO-2022-JP");
        return components ? "\r\n\f\\\x1b=^" : "\r\n\f\\\x1b";
    }

    std::string_view text_;
    const char* default_set_;
    const char* current_set_;
    bool person_name_;
    std::size_t start_ = 0;
    std::size_t position_ = 0;
};

// A text may fall into thousands of segments: each character set is opened once.
class Converters {
  public:
    explicit Converters(const char* target) : target_(target) {}

    Conversion convert(std::string_view segment, const char* source) {
        const auto [place, is_new] = opened_.try_emplace(source, source, target_);
        const Converter& converter = place->second;
        if (!converter) return Conversion::no_converter;
        if (!is_new) converter.restart();
        return output.append(converter, segment);
    }

  private:
    const char* target_;
    std::map<std::string_view, Converter> opened_;
};

const char* convert_segments(std::string_view text, std::string_view terms, bool person_name,
                             const char* target) {
    Segments segments(text.substr(0, longest_text), default_character_set(terms), person_name);
    Converters converters(target);
    for (;;) {
        const std::string_view segment = segments.next();
        switch (converters.convert(segment, segments.character_set())) {
            case Conversion::no_converter:
                return ">>SCS fail";
            case Conversion::stopped_at_byte:
                return "Incomplete iconv";
            case Conversion::no_room:
                return output.text();
            case Conversion::whole:
                break;
        }
        if (segments.at_end()) return output.text();
        if (segments.end_byte() == escape) {
            if (!segments.step_over_escape_sequence()) return "Unknown ESC";
        } else {
            output.append(segments.end_byte());
            segments.step_over_delimiter();
        }
    }
}

}  // namespace

const char* DCMTK_convertSCS(const char* text, const char* specificCharacterSet, int personName,
                             const char* targetCharset) {
    const std::string_view value = text != nullptr ? text : "";
    const std::string_view terms = specificCharacterSet != nullptr ? specificCharacterSet : "";
    output.clear();
    if (terms.find('\\') == std::string_view::npos) {
        return convert_single(value, terms, targetCharset);
    }
    return convert_segments(value, terms, personName != 0, targetCharset);
}
