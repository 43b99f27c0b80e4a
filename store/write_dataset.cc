#include <unistd.h>

#include <string>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/dataset.h"
#include "store/image_file.h"
#include "store/local_store.h"
#include "store/store_internals.h"
#include "support/log.h"

namespace {

constexpr int as_symbolic_link = 1;
constexpr int as_hard_link = 2;

// Copied out of the dataset, whose own texts move when it is written.
struct ImageUids {
    std::string study;
    std::string series;
    std::string image;
};

bool take_uid(std::string& uid, const DcmDataset& dataset, const DcmTagKey& tag) {
    const char* const value = DCMTK_getTagString(&dataset, tag);
    if (value != nullptr) uid = value;
    return value != nullptr;
}

int take_uids(ImageUids& uids, const DcmDataset& dataset, FILE* log) {
    if (!take_uid(uids.study, dataset, DCM_StudyInstanceUID)) {
        logprintf(16, log, "No DCM_StudyInstanceUID?\n");
        return tarvo::store_uid_missing;
    }
    if (!take_uid(uids.series, dataset, DCM_SeriesInstanceUID)) {
        logprintf(16, log, "No DCM_SeriesInstanceUID?\n");
        return tarvo::store_uid_missing;
    }
    if (!take_uid(uids.image, dataset, DCM_SOPInstanceUID)) {
        logprintf(16, log, "No DCM_SOPInstanceUID?\n");
        return tarvo::store_uid_missing;
    }
    return tarvo::store_success;
}

int link_result(int result) { return result == 0 ? tarvo::store_success : tarvo::store_io_failure; }

// Puts the image itself under its name.
int place_image(DcmDataset& dataset, const OFString& target, const char* source, int mode,
                FILE* log) {
    switch (mode) {
        case as_symbolic_link:
            return link_result(source != nullptr ? ::symlink(source, target.c_str()) : -1);
        case as_hard_link:
            return link_result(source != nullptr ? ::link(source, target.c_str()) : -1);
        default:
            return tarvo::store_image(dataset, target, log) ? tarvo::store_success
                                                            : tarvo::store_io_failure;
    }
}

bool exists(const OFString& path) { return ::access(path.c_str(), F_OK) == 0; }

}  // namespace

int LocalStore::WriteDataset(DcmDataset* dataset, int overwrite, const char* source, int mode) {
    ImageUids uids;
    if (const int result = take_uids(uids, *dataset, logfile)) return result;
    const char* const study = uids.study.c_str();
    const char* const series = uids.series.c_str();
    const char* const image = uids.image.c_str();
    if (const int result = refuseUnusableUids(study, series, image)) return result;
    if (const int result = CreateUidPath(study, nullptr)) return result;
    if (const int result = recordStudy(*dataset)) return result;
    if (const int result = CreateUidPath(study, series)) return result;
    if (const int result = recordSeries(*dataset, study)) return result;
    if (const int result = recordImage(*dataset, study, series)) return result;
    const OFString target = GetUidPath(study, series, image, 1);
    if (overwrite == 0 && exists(target)) {
        logprintf(16, logfile, "Target file %s exists - not storing.\n", target.c_str());
        return tarvo::store_exists;
    }
    return place_image(*dataset, target, source, mode, logfile);
}

// Of UIDs that could name files elsewhere nothing may come to the disk, hence before the first
// step.
int LocalStore::refuseUnusableUids(const char* study, const char* series, const char* image) {
    if (!tarvo::can_name_file(study) || !tarvo::can_name_file(series)) {
        return CreateUidPath(study, series);  // says so and makes nothing
    }
    if (tarvo::can_name_file(image)) return tarvo::store_success;
    logprintf(8, logfile, "Cannot write image %s: '/' in its UID.\n",
              GetUidPath(study, series, image, 1).c_str());
    return tarvo::store_io_failure;
}

int LocalStore::recordSeries(const DcmDataset& dataset, const char* study) {
    tarvo::SeriesRecord record{};
    tarvo::fill_record(&record, tarvo::series_fields, dataset);
    return insertRecord(internals_->series_index, GetUidIndexPath(study, nullptr), &record);
}

int LocalStore::recordImage(const DcmDataset& dataset, const char* study, const char* series) {
    tarvo::ImageRecord record{};
    tarvo::fill_record(&record, tarvo::image_fields, dataset);
    return insertRecord(internals_->image_index, GetUidIndexPath(study, series), &record);
}

// An index that cannot be opened is passed over: the image is worth more than its record.
int LocalStore::insertRecord(tarvo::LevelIndex& index, const OFString& path, const void* record) {
    const OFString file = path + ".dat";
    if (index.insert(file, record) != tarvo::Inserted::failed) return tarvo::store_success;
    logprintf(8, logfile, "Cannot update index file %s.\n", file.c_str());
    return tarvo::store_io_failure;
}
