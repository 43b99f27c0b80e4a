// A Specific Character Set, a line end, and any text in it.
#include <iconv.h>

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

// The C library's converter takes nothing that is no UTF-8 (RFC 3629).
void check_text(const char* converted) {
    if (converted == nullptr) return;
    static const iconv_t converter = ::iconv_open("UTF-32", "UTF-8");
    std::size_t length = ::strnlen(converted, 2048);
    require(length < 2048, "a converted text is bounded and terminated");
    char output[4 * 2049];
    std::size_t room = sizeof output;
    char* rest = const_cast<char*>(converted);
    char* target = output;
    const std::size_t result = ::iconv(converter, &rest, &length, &target, &room);
    ::iconv(converter, nullptr, nullptr, nullptr, nullptr);
    require(result == 0 && length == 0, "a converted text is UTF-8");
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
