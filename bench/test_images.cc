#include "bench/test_images.h"

#include <algorithm>
#include <fstream>

#include "bench/dicom_encoding.h"

namespace bench {
namespace {

// The pixels are the same in all: made once.
const std::string& pixel_data(const Images& images) {
    static const std::string pixels =
        element(0x7FE00010, "OW", std::string(static_cast<std::size_t>(images.pixels), 'x'));
    return pixels;
}

// The form of the pixels: 16 bits of grey.
std::string pixel_form(const Images& images) {
    const long columns = std::min(images.pixels / 2, 128L);
    const long rows = images.pixels / 2 / columns;
    return element(0x00280002, "US", little(1, 2)) + element(0x00280004, "CS", "MONOCHROME2") +
           element(0x00280010, "US", little(static_cast<std::size_t>(rows), 2)) +
           element(0x00280011, "US", little(static_cast<std::size_t>(columns), 2)) +
           element(0x00280100, "US", little(16, 2)) + element(0x00280101, "US", little(16, 2)) +
           element(0x00280102, "US", little(15, 2)) + element(0x00280103, "US", little(0, 2));
}

}  // namespace

Uids uids_of(const Images& images, long number) {
    const long study = images.per_study > 0 ? number / images.per_study + 1 : 0;
    const std::string study_uid = std::string(root) + ".1." + std::to_string(study);
    return {study_uid, study_uid + ".1", study_uid + ".1." + std::to_string(number)};
}

std::string data_set(const Images& images, long number) {
    const Uids uids = uids_of(images, number);
    const long study = images.per_study > 0 ? number / images.per_study : 0;
    // One patient in a hundred is a Smith, one study in a hundred of the second of January.
    const bool selected = study % 100 == 0;
    const std::string id = std::to_string(study);
    return element(0x00080016, "UI", ct_image) + element(0x00080018, "UI", uids.image) +
           element(0x00080020, "DA", selected ? "20260102" : "20250607") +
           element(0x00080030, "TM", "101112") + element(0x00080050, "SH", "A" + id) +
           element(0x00080060, "CS", "CT") + element(0x00081030, "LO", "Bench study") +
           element(0x00100010, "PN", (selected ? "SMITH^P" : "PERSON^P") + id) +
           element(0x00100020, "LO", "P" + id) + element(0x0020000D, "UI", uids.study) +
           element(0x0020000E, "UI", uids.series) + element(0x00200010, "SH", "S" + id) +
           element(0x00200013, "IS", std::to_string(number + 1)) + pixel_form(images) +
           pixel_data(images);
}

namespace {

// As a DICOM file (PS3.10, 7.1).
std::string file_of(const Images& images, long number) {
    const std::string meta = element(0x00020001, "OB", std::string("\0\1", 2)) +
                             element(0x00020002, "UI", ct_image) +
                             element(0x00020003, "UI", uids_of(images, number).image) +
                             element(0x00020010, "UI", explicit_little) +
                             element(0x00020012, "UI", std::string(root) + ".0");
    return std::string(128, '\0') + "DICM" + element(0x00020000, "UL", little(meta.size(), 4)) +
           meta + data_set(images, number);
}

}  // namespace

void write_files(const std::string& folder, const Images& images) {
    for (long number = images.first; number < images.first + images.count; ++number) {
        std::ofstream(folder + "/" + std::to_string(number) + ".dcm") << file_of(images, number);
    }
}

}  // namespace bench
