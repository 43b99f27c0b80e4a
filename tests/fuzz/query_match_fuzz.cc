// A stored value, a pattern and a date range, each up to the next NUL, against a plain model.
#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "store/local_store.h"
#include "store/query_template.h"
#include "support/text_field.h"
#include "tests/fuzz/fuzz.h"

namespace {

using tarvo::fuzz::require;

std::string lower(std::string text) {
    for (char& letter : text) {
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter + ('a' - 'A'));
    }
    return text;
}

// Only "*" is a wildcard, and only at the ends.
bool model_fits(const std::string& stored, const std::string& wanted) {
    const std::string value = lower(stored);
    std::string text = lower(wanted);
    const bool open_start = text.starts_with('*');
    if (open_start) text.erase(0, 1);
    const bool open_end = text.ends_with('*');
    if (open_end) text.pop_back();
    if (wanted.empty() || (open_start && open_end)) return value.find(text) != std::string::npos;
    if (open_start) return text.empty() || value.ends_with(text);
    return open_end ? value.starts_with(text) : value == text;
}

// The number at the start of a text, as a C program keeps it in 32 bits.
unsigned model_number(const std::string& text) {
    return static_cast<unsigned>(std::strtol(text.c_str(), nullptr, 10));
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
