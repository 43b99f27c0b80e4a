#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/dataset.h"
#include "store/image_file.h"
#include "store/image_waits.h"
#include "store/local_store.h"
#include "store/store_internals.h"
#include "support/held_signals.h"
#include "support/log.h"

using tarvo::Inserted;

namespace {

constexpr int as_symbolic_link = 1;
constexpr int as_hard_link = 2;

// Copied out of the dataset, whose own texts move when it is written.
struct ImageUids {
    std::string study;
    std::string series;
    std::string image;
};

// One of nothing but padding counts as missing, too: its records would be blank slots of the index
// files, and nobody would find the image again.
bool take_uid(std::string& uid, const DcmDataset& dataset, const DcmTagKey& tag) {
    const char* const value = DCMTK_getTagString(&dataset, tag);
    if (value != nullptr) uid = value;
    return !uid.empty();
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

// Of UIDs that could name files elsewhere nothing may come to the disk, hence before the first
// step.
int refuse_unusable_uids(LocalStore& store, const ImageUids& uids) {
    const char* const study = uids.study.c_str();
    const char* const series = uids.series.c_str();
    const char* const image = uids.image.c_str();
    if (!tarvo::can_name_file(study) || !tarvo::can_name_file(series)) {
        return store.CreateUidPath(study, series);  // says so and makes nothing
    }
    if (tarvo::can_name_file(image)) return tarvo::store_success;
    logprintf(8, store.logfile, "Cannot write image %s: its UID cannot name a file.\n",
              store.GetUidPath(study, series, image, 1).c_str());
    return tarvo::store_io_failure;
}

int link_result(int result) { return result == 0 ? tarvo::store_success : tarvo::store_io_failure; }

// Puts the image itself under its name.
int place_image(DcmDataset& dataset, const OFString& target, const char* source, int mode,
                const tarvo::DiskSync& sync, FILE* log) {
    switch (mode) {
        case as_symbolic_link:
            return link_result(source != nullptr ? ::symlink(source, target.c_str()) : -1);
        case as_hard_link:
            return link_result(source != nullptr ? ::link(source, target.c_str()) : -1);
        default:
            return tarvo::store_image(dataset, target, sync, log) ? tarvo::store_success
                                                                  : tarvo::store_io_failure;
    }
}

// Whether an index cannot be opened because somebody put something else in its place. The image is
// worth more than its record, and sending it again would not help. Anything else may pass: a full
// disk, a full table of descriptors.
bool is_obstructed(int error) {
    return error == EISDIR || error == EACCES || error == ELOOP || error == ENOTDIR;
}

// stat, for access makes a copy of the process's rights first and takes twice as long.
bool exists(const OFString& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

// Besides the results of the store: a delete took the directory away between two of our steps.
constexpr int deleted_meanwhile = -1;

// How often a delete may come in between before we give up.
constexpr int most_attempts = 16;

}  // namespace

// One image's way into the store.
//
// A delete that finds no other live image in the series takes the series away, and with the last
// series the study. It may do so after we have entered the series and before we enter the image,
// or likewise between study and series: hence the check at the end.
//
// The check goes from the image upwards, one lock at a time. A delete takes the locks in the same
// order and keeps them until it is done; it removes an index only when it holds the lock above
// and has blanked the record there. So once the image's record stands in the index, a delete
// that did not see it either is done or makes us wait for the series, and one that comes later
// sees it and leaves the series alone. Then the same holds of series and study.
//
// Mostly nobody has come in between, and that is seen without a lock: nobody has one on the image
// index, it is still the file of its name, and our record stands in it; and neither the series
// index nor the study hash has changed. They are asked in this order, which is that of a delete.
//
// A delete of the image itself takes the file away before anything else. Where the check finds
// the file under a lock, such a delete is yet to come to that level; where it does not, nothing
// is put back.
class LocalStore::ImageWrite {
  public:
    ImageWrite(LocalStore& store, DcmDataset& dataset, const ImageUids& uids)
        : store_(store),
          dataset_(dataset),
          study_(uids.study.c_str()),
          series_(uids.series.c_str()),
          paths_{store.GetUidPath(study_, series_, uids.image.c_str(), 1),
                 store.GetUidPath(study_, series_, nullptr, 1),
                 store.GetUidIndexPath(study_, nullptr) + ".dat",
                 store.GetUidIndexPath(study_, series_) + ".dat"},
          waits_(store, paths_),
          series_index_(store.internals_->series_index),
          image_index_(store.internals_->image_index),
          writes_before_(writes()) {
        const tarvo::AttributeTexts texts(&dataset);
        tarvo::fill_record(&series_record_, tarvo::series_fields, texts);
        tarvo::fill_record(&image_record_, tarvo::image_fields, texts);
    }

    [[nodiscard]] int run(int overwrite, const char* source, int mode) {
        const int result = write(overwrite, source, mode);
        if (result != tarvo::store_success && result != tarvo::store_exists) {
            store_.internals_->series_directory.clear();  // whatever is wrong may be wrong there
            return result;
        }
        if (waits_.wait_for_disk(image_written_)) return result;
        logprintf(8, store_.logfile, "Cannot bring image %s to the disk: %s.\n",
                  paths_.image.c_str(), std::strerror(errno));
        return tarvo::store_io_failure;
    }

  private:
    [[nodiscard]] int write(int overwrite, const char* source, int mode) {
        const tarvo::HeldSignals together;
        int result = deleted_meanwhile;
        for (int i = 0; i < most_attempts && result == deleted_meanwhile; ++i) {
            result = enter();
            if (result == tarvo::store_success) result = place(overwrite, source, mode);
            if (result == deleted_meanwhile) store_.internals_->series_directory.clear();
        }
        if (result == deleted_meanwhile) {
            logprintf(16, store_.logfile, "Cannot create storage series directory.\n");
            return tarvo::store_directory_failed;
        }
        if (result != tarvo::store_success && result != tarvo::store_exists) return result;
        const int checked = check();
        return checked == tarvo::store_success ? result : checked;
    }

    // The steps before the image itself, from the study downwards.
    [[nodiscard]] int enter() {
        // An index that is still there is in a directory that is.
        const bool known = store_.internals_->series_directory == paths_.series_directory &&
                           image_index_.is_prepared(paths_.image_index);
        if (!known) {
            if (const int result = store_.CreateUidPath(study_, nullptr)) return result;
        }
        if (const int result = store_.recordStudy(dataset_, nullptr)) return result;
        if (!known) {
            if (const int result = make_series_directory()) return result;
        }
        if (const int result = enter_indexes(known)) return result;
        waits_.start(!known);
        return tarvo::store_success;
    }

    // That of the study has just been made.
    [[nodiscard]] int make_series_directory() {
        if (tarvo::make_directory(paths_.series_directory)) {
            store_.internals_->series_directory = paths_.series_directory;
            return tarvo::store_success;
        }
        if (errno == ENOENT) return deleted_meanwhile;
        return store_.CreateUidPath(study_, series_);  // says what is wrong
    }

    // The series is entered only when its image index is there: a series without one ends every
    // enumeration of the study's images.
    [[nodiscard]] int enter_indexes(bool known) {
        const bool prepared = known || image_index_.prepare(paths_.image_index);
        if (!prepared) {
            if (const int result = not_opened(paths_.image_index)) return result;
        }
        if (const int result = enter_series(prepared)) return result;
        return prepared ? result_of(insert_image(), paths_.image_index) : tarvo::store_success;
    }

    [[nodiscard]] int enter_series(bool prepared) {
        if (!prepared) {
            return result_of(series_index_.insert(paths_.series_index, &series_record_),
                             paths_.series_index);
        }
        if (series_index_.stands(paths_.series_index, &series_record_)) return tarvo::store_success;
        return result_of(series_index_.insert(paths_.series_index, &series_record_,
                                              paths_.image_index.c_str(), names_first_),
                         paths_.series_index);
    }

    // Success: the image is stored without that index.
    [[nodiscard]] int not_opened(const OFString& path) const {
        if (errno == ENOENT) return deleted_meanwhile;
        if (is_obstructed(errno)) return tarvo::store_success;
        return complain_of_index(path);
    }

    [[nodiscard]] int result_of(Inserted inserted, const OFString& path) const {
        switch (inserted) {
            case Inserted::not_opened:
                return not_opened(path);
            case Inserted::unneeded:
                return deleted_meanwhile;
            case Inserted::failed:
                return complain_of_index(path);
            default:
                return tarvo::store_success;
        }
    }

    [[nodiscard]] int place(int overwrite, const char* source, int mode) {
        if (overwrite == 0 && exists(paths_.image)) {
            logprintf(16, store_.logfile, "Target file %s exists - not storing.\n",
                      paths_.image.c_str());
            return tarvo::store_exists;
        }
        const int result = place_image(dataset_, paths_.image, source, mode,
                                       store_.internals_->disk, store_.logfile);
        image_written_ =
            result == tarvo::store_success && mode != as_symbolic_link && mode != as_hard_link;
        return result == tarvo::store_success || !was_deleted() ? result : deleted_meanwhile;
    }

    // Whether a delete of this very image came in between: it may take the directory away.
    [[nodiscard]] bool was_deleted() {
        const std::uint64_t written = writes();
        const Inserted result = insert_image();
        return writes() != written || (result == Inserted::not_opened && errno == ENOENT);
    }

    // Puts back the records that were lost on the way. Where the image is gone it was deleted
    // after it had been stored, and stays so.
    [[nodiscard]] int check() {
        if (image_index_.still_holds_last(paths_.image_index) && above_stands()) {
            return tarvo::store_success;
        }
        for (int i = 0; i < most_attempts; ++i) {
            const std::uint64_t written = writes();
            const Inserted image = restore_image();
            if (const int result = lost(image, paths_.image_index)) return result;
            const bool stands = writes() == written && above_stands();
            if (image == Inserted::unneeded || stands) return tarvo::store_success;
            const Inserted series = restore_series();
            if (const int result = lost(series, paths_.series_index)) return result;
            if (series == Inserted::unneeded) return tarvo::store_success;
            // When all was there before we came, so was the study.
            if (writes() != writes_before_) {
                if (const int result = store_.recordStudy(dataset_, paths_.image.c_str()))
                    return result;
            }
            if (writes() == written) return tarvo::store_success;
        }
        return complain_of_index(paths_.image_index);
    }

    // What a record that could not be restored makes of the store. The directory is gone only when
    // somebody deleted the image behind us.
    [[nodiscard]] int lost(Inserted inserted, const OFString& path) const {
        const bool refused =
            inserted == Inserted::not_opened && errno != ENOENT && !is_obstructed(errno);
        return refused || inserted == Inserted::failed ? complain_of_index(path)
                                                       : tarvo::store_success;
    }

    // Whether the entries of series and study are certainly as we left them. No lock is needed to
    // see that: a delete that overlooked the image's record was done before we could insert it,
    // and one that comes later leaves the series alone.
    [[nodiscard]] bool above_stands() const {
        const auto& internals = *store_.internals_;
        return series_index_.unchanged() &&
               internals.last_study.hash.proves_unchanged(internals.hash_file.get());
    }

    [[nodiscard]] Inserted insert_image() {
        return image_index_.insert(paths_.image_index, &image_record_);
    }
    [[nodiscard]] Inserted restore_series() {
        return series_index_.restore(paths_.series_index, &series_record_, paths_.image.c_str(),
                                     names_first_);
    }
    [[nodiscard]] Inserted restore_image() {
        return image_index_.restore(paths_.image_index, &image_record_, paths_.image.c_str());
    }
    [[nodiscard]] int complain_of_index(const OFString& path) const {
        logprintf(8, store_.logfile, "Cannot update index file %s.\n", path.c_str());
        return tarvo::store_io_failure;
    }

    [[nodiscard]] std::uint64_t writes() const {
        return series_index_.writes() + image_index_.writes();
    }

    LocalStore& store_;
    DcmDataset& dataset_;
    const char* study_;
    const char* series_;
    const ImagePaths paths_;
    ImageWaits waits_;
    tarvo::LevelIndex& series_index_;
    tarvo::LevelIndex& image_index_;
    const std::uint64_t writes_before_;
    const tarvo::LevelIndex::BeforeAppend names_first_ = [this] { return waits_.wait_for_names(); };
    bool image_written_ = false;  // by us, hence on the disk already
    tarvo::SeriesRecord series_record_{};
    tarvo::ImageRecord image_record_{};
};

int LocalStore::WriteDataset(DcmDataset* dataset, int overwrite, const char* source, int mode) {
    ImageUids uids;
    if (const int result = take_uids(uids, *dataset, logfile)) return result;
    if (const int result = refuse_unusable_uids(*this, uids)) return result;
    return ImageWrite(*this, *dataset, uids).run(overwrite, source, mode);
}
