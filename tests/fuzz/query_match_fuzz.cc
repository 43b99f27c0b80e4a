// A stored value, a pattern and a date range, each up to the next NUL, against a plain model.
#include <climits>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "store/local_store.h"
#include "store/query_template.h"
#include "support/text_field.h"
#include "tests/fuzz/fuzz.h"

namespace {

using tarvo::fuzz::require;

constexpr int any_text = 256;  // no character

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter;
}

// The pattern character by character, with the wildcards told from stars that mean themselves.
std::vector<int> tokens_of(const std::string& pattern) {
    if (pattern.empty()) return {any_text};
    std::vector<int> tokens;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const bool at_end = i == 0 || i == pattern.size() - 1;
        tokens.push_back(pattern[i] == '*' && at_end ? any_text : lower(pattern[i]));
    }
    return tokens;
}

// Keeps, character by character, how much of the pattern may be behind us.
bool model_fits(const std::string& value, const std::string& pattern) {
    const std::vector<int> tokens = tokens_of(pattern);
    std::vector<bool> behind(tokens.size() + 1);
    const auto skip_wildcards = [&] {
        for (std::size_t i = 0; i < tokens.size(); ++i) {
            if (behind[i] && tokens[i] == any_text) behind[i + 1] = true;
        }
    };
    behind[0] = true;
    skip_wildcards();
    for (const char character : value) {
        std::vector<bool> next(tokens.size() + 1);
        for (std::size_t i = 0; i < tokens.size(); ++i) {
            if (behind[i] && tokens[i] == any_text) next[i] = true;
            if (behind[i] && tokens[i] == lower(character)) next[i + 1] = true;
        }
        behind = next;
        skip_wildcards();
    }
    return behind[tokens.size()];
}

// The number at the start of a text, as a C program reads it into a long and keeps 32 bits.
unsigned model_number(std::string_view text) {
    const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
    if (start == std::string_view::npos) return 0;
    text.remove_prefix(start);
    const bool negative = text[0] == '-';
    if (negative || text[0] == '+') text.remove_prefix(1);
    long double number = 0;  // holds every long and more
    for (const char digit : text) {
        if (digit < '0' || digit > '9') break;
        number = number * 10 + (digit - '0');
    }
    if (negative) number = -number;
    if (number > LONG_MAX) number = LONG_MAX;
    if (number < LONG_MIN) number = LONG_MIN;
    return static_cast<unsigned>(static_cast<long>(number));
}

void check_range(const LocalStore& store, const std::string& range) {
    unsigned from = 0;
    unsigned to = 99991231;
    const std::size_t dash = range.find('-');
    if (dash == std::string::npos && !range.empty() && range != "*") {
        from = to = model_number(range);
    } else if (dash != std::string::npos) {
        const std::string end = range.substr(dash + 1);
        if (dash > 0) from = model_number(range);
        if (!end.empty()) to = model_number(end);
    }
    unsigned found_from = 1;
    unsigned found_to = 1;
    store.dateRangeHash(range.c_str(), &found_from, &found_to);
    require(found_from == from && found_to == to, "a date range has the bounds that it says");
}

// The words of the hash must never reject what the texts would accept.
void check_stages(const LocalStore& store, const std::string& value, const std::string& pattern) {
    DcmDataset image;
    DcmDataset query;
    image.putAndInsertString(DCM_PatientName, value.c_str());
    image.putAndInsertString(DCM_StudyDescription, value.c_str());
    query.putAndInsertString(DCM_PatientName, pattern.c_str());
    query.putAndInsertString(DCM_StudyDescription, pattern.c_str());
    studyhash entry{};
    studydata record{};
    store.studyDataMake(&image, &entry, &record);
    studyhash_template words = tarvo::open_hash_template();
    studydata_template texts{};
    store.studyDataMakeTemplate(&query, &words, &texts);
    const bool fits = tarvo::wildcardMismatch(tarvo::field_text(record.patient_name),
                                              tarvo::field_text(texts.patient_name)) == 0;
    require(!fits || store.studyHashCompare(&entry, &words) == 0,
            "the hash rejects nothing that matches");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const LocalStore store("/nonexistent");
    std::string_view rest = tarvo::fuzz::text_of(data, size);
    const std::string value = tarvo::fuzz::take_until(rest, '\0');
    const std::string pattern = tarvo::fuzz::take_until(rest, '\0');
    require((tarvo::wildcardMismatch(value, pattern) == 0) == model_fits(value, pattern),
            "a value fits a pattern as the model says");
    check_range(store, tarvo::fuzz::take_until(rest, '\0'));
    // What fills its field is compared with more than itself.
    if (value.size() < sizeof(studydata::patient_name) &&
        pattern.size() <= sizeof(studydata_template::patient_name)) {
        check_stages(store, value, pattern);
    }
    return 0;
}
