// A Specific Character Set, a line end, and any text in it.
#include <cstring>
#include <memory>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/character_sets.h"
#include "dicom/dataset.h"
#include "store/local_store.h"
#include "support/text_field.h"
#include "tests/fuzz/fuzz.h"

namespace {

using tarvo::fuzz::require;

// The length of the character at the start of `text`, 0 when it is none (RFC 3629).
std::size_t utf8_length(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) return 1;
    const std::size_t length = lead < 0xC2   ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length == 0 || text.size() < length) return 0;
    unsigned code = lead & (0x7FU >> length);
    for (const char byte : text.substr(1, length - 1)) {
        if ((static_cast<unsigned char>(byte) & 0xC0) != 0x80) return 0;
        code = code << 6 | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    const bool shortest = length == 2 || (length == 3 ? code >= 0x800 : code >= 0x10000);
    const bool surrogate = code >= 0xD800 && code < 0xE000;
    return shortest && !surrogate && code <= 0x10FFFF ? length : 0;
}

void check_text(const char* converted) {
    if (converted == nullptr) return;
    std::string_view rest(converted, ::strnlen(converted, 2048));
    require(rest.size() < 2048, "a converted text is bounded and terminated");
    while (!rest.empty()) {
        const std::size_t length = utf8_length(rest);
        require(length != 0, "a converted text is UTF-8");
        rest.remove_prefix(length);
    }
}

template <std::size_t width>
void check_field(const char (&field)[width], DcmDataset& dataset, const DcmTagKey& tag,
                 const char* terms, int person_name) {
    char expected[width] = {};
    const char* text = DCMTK_getTagString(&dataset, tag);
    if (text != nullptr && terms != nullptr) {
        text = DCMTK_convertSCS(text, terms, person_name, "UTF-8");
        check_text(text);
    }
    if (text != nullptr) tarvo::set_field(expected, text);
    require(std::memcmp(field, expected, width) == 0, "a field holds the start of its text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const LocalStore store("/nonexistent");
    std::string_view rest = tarvo::fuzz::text_of(data, size);
    const std::string terms = tarvo::fuzz::take_until(rest, '\n');
    const std::string text(rest);
    for (const int person_name : {0, 1}) {
        check_text(DCMTK_convertSCS(text.c_str(), terms.c_str(), person_name, "UTF-8"));
    }

    DcmDataset dataset;
    dataset.putAndInsertString(DCM_SpecificCharacterSet, terms.c_str());
    dataset.putAndInsertString(DCM_PatientName, text.c_str());
    dataset.putAndInsertString(DCM_StudyDescription, text.c_str());
    dataset.putAndInsertString(DCM_AccessionNumber, text.c_str());
    // On the heap, where the sanitizer sees the first byte behind them.
    const auto entry = std::make_unique<studyhash>();
    const auto record = std::make_unique<studydata>();
    store.studyDataMake(&dataset, entry.get(), record.get());
    const char* const set = DCMTK_getTagString(&dataset, DCM_SpecificCharacterSet);
    check_field(record->patient_name, dataset, DCM_PatientName, set, 1);
    check_field(record->description, dataset, DCM_StudyDescription, set, 0);
    check_field(record->accession_number, dataset, DCM_AccessionNumber, set, 0);
    return 0;
}
