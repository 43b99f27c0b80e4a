#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/dataset.h"
#include "store/local_store.h"
#include "store/records.h"
#include "store/store_internals.h"
#include "support/crc32.h"
#include "support/file_helpers.h"
#include "support/log.h"

namespace tarvo {

bool can_name_file(const char* uid) {
    constexpr std::size_t longest_uid = sizeof(ImageRecord::sop_uid);
    return uid == nullptr || (std::strpbrk(uid, "/ \t\n\v\f\r") == nullptr &&
                              ::strnlen(uid, longest_uid + 1) <= longest_uid);
}

bool make_directory(const OFString& path) {
    return TVCompat_mkdir(path.c_str(), 0777) == 0 || errno == EEXIST;
}

OFString study_hash_path(const LocalStore& store) {
    return store.GetUidIndexPath(nullptr, nullptr) + ".hash";
}

OFString study_data_path(const LocalStore& store) {
    return store.GetUidIndexPath(nullptr, nullptr) + ".dat";
}

}  // namespace tarvo

namespace {

using tarvo::can_name_file;
using tarvo::make_directory;

// The two fan-out directories of a study, each "/XX".
struct FanOut {
    char first[4];
    char second[4];
};

FanOut fan_out_of(const char* study) {
    const std::uint32_t crc = tarvo::crc32_of(study);
    FanOut result{};
    std::snprintf(result.first, sizeof result.first, "/%02X", crc & 0xFF);
    std::snprintf(result.second, sizeof result.second, "/%02X", (crc >> 8) & 0xFF);
    return result;
}

bool can_name_image(const char* study, const char* series, const char* image) {
    return can_name_file(study) && can_name_file(series) && can_name_file(image);
}

// The status of a file that can be read.
std::optional<struct stat> readable_status(const OFString& path) {
    struct stat status {};
    if (::access(path.c_str(), R_OK) != 0 || ::stat(path.c_str(), &status) != 0) return {};
    return status;
}

// One directory of a path that is made step by step, and what is said when it cannot be made.
struct PathStep {
    OFString component;
    const char* message;
};

constexpr char study_failed[] = "Cannot create storage study directory.";
constexpr char series_failed[] = "Cannot create storage series directory.";

std::vector<PathStep> steps_to(const char* base, const char* study, const char* series) {
    std::vector<PathStep> steps{{base, "Cannot create storage base directory."},
                                {"/uid", "Cannot create storage uid base directory."}};
    if (study != nullptr) {
        const FanOut fan_out = fan_out_of(study);
        steps.push_back({fan_out.first, "Cannot create storage study C1 directory."});
        steps.push_back({fan_out.second, "Cannot create storage study C2 directory."});
        steps.push_back({OFString("/study_") + study, study_failed});
    }
    if (series != nullptr) steps.push_back({OFString("/series_") + series, series_failed});
    return steps;
}

std::optional<struct statvfs> file_system_of(const LocalStore& store) {
    struct statvfs status {};
    const OFString root = store.GetUidPath(nullptr, nullptr, nullptr, 1);
    if (::statvfs(root.c_str(), &status) != 0) return {};
    return status;
}

}  // namespace

OFString LocalStore::GetUidPath(const char* study, const char* series, const char* image,
                                int withBase) const {
    OFString path = withBase != 0 ? baseDir : "";
    path += "/uid";
    if (study != nullptr) {
        const FanOut fan_out = fan_out_of(study);
        path.append(fan_out.first).append(fan_out.second).append("/study_").append(study);
    }
    if (series != nullptr) path.append("/series_").append(series);
    if (image != nullptr) path.append("/image_").append(image).append(".dcm");
    logprintf(512, logfile, "GetUidPath() returning %s\n", path.c_str());
    return path;
}

OFString LocalStore::GetUidPath(DcmDataset* dataset, int withBase) const {
    return GetUidPath(DCMTK_getTagString(dataset, DCM_StudyInstanceUID),
                      DCMTK_getTagString(dataset, DCM_SeriesInstanceUID),
                      DCMTK_getTagString(dataset, DCM_SOPInstanceUID), withBase);
}

OFString LocalStore::GetUidIndexPath(const char* study, const char* series) const {
    const char* const name = series != nullptr  ? "/IMAGEINDEX"
                             : study != nullptr ? "/SERIESINDEX"
                                                : "/STUDYINDEX";
    return GetUidPath(study, series, nullptr, 1) + name;
}

OFString LocalStore::GetUidBasePath(const char* study) const {
    const OFString path = GetUidPath(study, nullptr, nullptr, 1);
    return path.substr(0, path.rfind('/'));
}

int LocalStore::CreateUidPath(const char* study, const char* series) {
    // Before the first directory is made.
    if (!can_name_image(study, series, nullptr)) {
        logprintf(16, logfile, "%s\n", can_name_file(study) ? series_failed : study_failed);
        return tarvo::store_directory_failed;
    }
    OFString path;
    for (const PathStep& step : steps_to(baseDir, study, series)) {
        path += step.component;
        if (make_directory(path)) continue;
        logprintf(16, logfile, "%s\n", step.message);
        return tarvo::store_directory_failed;
    }
    return tarvo::store_success;
}

int LocalStore::HaveDataset(DcmDataset* dataset) const {
    return HaveFile(DCMTK_getTagString(dataset, DCM_StudyInstanceUID),
                    DCMTK_getTagString(dataset, DCM_SeriesInstanceUID),
                    DCMTK_getTagString(dataset, DCM_SOPInstanceUID));
}

int LocalStore::HaveFile(const char* study, const char* series, const char* image) const {
    const bool present = can_name_image(study, series, image) &&
                         ::access(GetUidPath(study, series, image, 1).c_str(), R_OK) == 0;
    return present ? tarvo::store_success : tarvo::store_absent;
}

std::uint32_t LocalStore::HaveFileTime(const char* study, const char* series,
                                       const char* image) const {
    if (!can_name_image(study, series, image)) return 0;
    const auto status = readable_status(image != nullptr ? GetUidPath(study, series, image, 1)
                                                         : GetUidIndexPath(study, series) + ".dat");
    return status ? static_cast<std::uint32_t>(status->st_mtim.tv_sec) : 0;
}

std::uint32_t LocalStore::HaveFileSize(const char* study, const char* series,
                                       const char* image) const {
    constexpr std::uint32_t absent = 0xFFFFFFFF;
    if (!can_name_image(study, series, image)) return absent;
    const auto status = readable_status(GetUidPath(study, series, image, 1));
    return status ? static_cast<std::uint32_t>(status->st_size) : absent;
}

// Deliberately in different units: the total counts fragments, the free space counts blocks.
std::int64_t LocalStore::LS_GetTotalSpace() const {
    const auto status = file_system_of(*this);
    if (!status) return 0;
    return static_cast<std::int64_t>(std::uint64_t{status->f_frsize} * status->f_blocks);
}

std::int64_t LocalStore::LS_GetFreeSpace() const {
    const auto status = file_system_of(*this);
    if (!status) return 0;
    return static_cast<std::int64_t>(std::uint64_t{status->f_bsize} * status->f_bavail);
}
