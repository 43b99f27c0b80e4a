// The tree of links by patient, study and series, for people who browse the disk.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/dataset.h"
#include "store/local_store.h"
#include "store/store_internals.h"
#include "support/log.h"

namespace {

constexpr std::size_t longest_component = 2047;

bool is_letter_or_digit(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9');
}

// Every byte that could trouble a shell or name another directory becomes '_'. A '.' stays: no
// component stands alone in a directory name, so none can become "." or "..".
std::string cleaned(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return !is_letter_or_digit(c) && c != '.' && c != '^'; }, '_');
    return text;
}

// The attribute's value, or `absent` in its place.
std::string value_of(DcmDataset* dataset, const DcmTagKey& tag, const char* absent) {
    const char* const value = DCMTK_getTagString(dataset, tag);
    if (value == nullptr) return absent;
    return std::strlen(value) <= longest_component ? value : "TooLong";
}

std::string name_part(DcmDataset* dataset, const DcmTagKey& tag, const char* absent) {
    return cleaned(value_of(dataset, tag, absent));
}

// A time without its fraction of a second.
std::string time_part(DcmDataset* dataset, const DcmTagKey& tag) {
    const std::string time = value_of(dataset, tag, "000000");
    return cleaned(time.substr(0, time.find('.')));
}

std::string patient_directory(DcmDataset* dataset) {
    return name_part(dataset, DCM_PatientName, "NoName") + "_" +
           name_part(dataset, DCM_PatientBirthDate, "19000101") + "_" +
           name_part(dataset, DCM_PatientID, "NoID");
}

std::string study_directory(DcmDataset* dataset) {
    return name_part(dataset, DCM_StudyDate, "19000101") + "_" + time_part(dataset, DCM_StudyTime) +
           "_" + name_part(dataset, DCM_StudyDescription, "NoDesc");
}

std::string series_directory(DcmDataset* dataset) {
    return name_part(dataset, DCM_SeriesDate, "19000101") + "_" +
           time_part(dataset, DCM_SeriesTime) + "_" +
           name_part(dataset, DCM_BodyPartExamined, "NoBPE") + "_" +
           name_part(dataset, DCM_SeriesDescription, "NoDesc");
}

std::string link_name(DcmDataset* dataset) {
    const std::string number = value_of(dataset, DCM_InstanceNumber, "0000");
    char name[48];
    std::snprintf(name, sizeof name, "z_%04ld.dcm", std::strtol(number.c_str(), nullptr, 10));
    return name;
}

// A link to an image whose UIDs hold '/' would lead out of the store.
bool names_an_image(DcmDataset* dataset) {
    return tarvo::can_name_file(DCMTK_getTagString(dataset, DCM_StudyInstanceUID)) &&
           tarvo::can_name_file(DCMTK_getTagString(dataset, DCM_SeriesInstanceUID)) &&
           tarvo::can_name_file(DCMTK_getTagString(dataset, DCM_SOPInstanceUID));
}

}  // namespace

int LocalStore::WriteSymlinks(DcmDataset* dataset) {
    if (!names_an_image(dataset)) {
        logprintf(16, logfile, "Cannot link an image whose UID cannot name a file.\n");
        return tarvo::store_directory_failed;
    }
    const struct {
        std::string component;
        const char* message;
    } steps[] = {
        {"patient", "Cannot create patient link base directory."},
        {patient_directory(dataset), "Cannot create patient link directory."},
        {study_directory(dataset), "Cannot create study link directory."},
        {series_directory(dataset), "Cannot create series link directory."},
    };
    OFString link = baseDir;
    for (const auto& step : steps) {
        link.append("/").append(step.component);
        if (tarvo::make_directory(link)) continue;
        logprintf(16, logfile, "%s\n", step.message);
        return tarvo::store_directory_failed;
    }
    link.append("/").append(link_name(dataset));
    const OFString target = "../../../.." + GetUidPath(dataset, 0);
    logprintf(128, logfile, "will link #%s# to #%s#\n", target.c_str(), link.c_str());
    // The first image of a name keeps it.
    static_cast<void>(::symlink(target.c_str(), link.c_str()) == 0);
    // Waited for like the image, but without it nothing is lost: a link can be made again.
    std::string directory = link.c_str();
    for (std::size_t i = 0; i <= std::size(steps); ++i) {
        directory = tarvo::directory_of(directory);
        if (!internals_->disk.wait_for_directory(directory)) break;
    }
    return tarvo::store_success;
}
