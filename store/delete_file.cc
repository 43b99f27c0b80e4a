// Deleting images, series and studies, from the image upwards: the last image of a series takes
// the series with it, the last series of a study the study.
//
// Every level keeps the exclusive lock of its index until the levels above are done: whether
// something becomes empty must not change before it is gone. Writers hold one lock at a time,
// deletes take them in the order image, series, study: nobody waits in a circle.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include "store/level_index.h"
#include "store/local_store.h"
#include "store/record_file.h"
#include "store/redo_file.h"
#include "store/store_internals.h"
#include "support/crc32.h"
#include "support/file_helpers.h"
#include "support/held_signals.h"
#include "support/log.h"
#include "support/text_field.h"
#include "support/unique_fd.h"
#include "support/whole_file_lock.h"

using tarvo::entry_offset;
using tarvo::LockKind;
using tarvo::record_offset;
using tarvo::UniqueFd;
using tarvo::WholeFileLock;

namespace {

constexpr std::size_t key_width = 64;
constexpr int not_named = 1;  // the index cannot be opened or does not name the thing
constexpr int failure = -1;

struct Uids {
    const char* study;
    const char* series;
    const char* image;
};

UniqueFd open_to_write(const OFString& path) {
    return UniqueFd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
}

// How often an index may be replaced between opening and locking it before we give up.
constexpr int most_reopens = 16;

// The file that stands under the name of an index, under its exclusive lock.
class LockedIndex {
  public:
    explicit LockedIndex(const OFString& path) {
        for (int i = 0; i < most_reopens; ++i) {
            lock_.reset();
            file_ = open_to_write(path);
            if (!file_) return;
            lock_.emplace(file_.get(), LockKind::exclusive);
            if (!lock_->held() || tarvo::is_at_path(file_.get(), path.c_str())) return;
        }
        lock_.reset();
    }

    [[nodiscard]] bool held() const { return lock_ && lock_->held(); }
    void unlock() { lock_.reset(); }
    [[nodiscard]] int get() const { return file_.get(); }

  private:
    UniqueFd file_;
    std::optional<WholeFileLock> lock_;
};

// Where a record stands, and whether the index holds another one that lives.
struct Scan {
    std::optional<std::uint64_t> target;
    bool other_lives = false;
};

Scan scan_index(int index, std::size_t record_size, std::string_view uid) {
    const std::string_view key = uid.substr(0, key_width);
    tarvo::RecordReader reader(index, record_size);
    std::string record(record_size, '\0');
    Scan scan;
    while (!scan.target || !scan.other_lives) {
        const std::uint64_t number = reader.position();
        const ssize_t got = reader.next(record.data());
        if (got < 0) scan.other_lives = true;  // for all we know: what is above stays
        if (got != static_cast<ssize_t>(record_size)) break;
        const std::string_view found = tarvo::field_text(record.data(), key_width);
        if (found.empty()) continue;
        if (!scan.target && found == key) {
            scan.target = number;
        } else {
            scan.other_lives = true;
        }
    }
    return scan;
}

[[nodiscard]] bool blank_record(int index, std::size_t record_size, std::uint64_t number) {
    const std::string blank(record_size, '\0');
    return tarvo::write_at(index, blank.data(), record_size,
                           static_cast<off_t>(number * record_size));
}

// What the log says, and at which level, when an index file withstands.
struct RemovalTexts {
    unsigned level;
    const char* not_unlinked;
    const char* moved_not_unlinked;
};

constexpr RemovalTexts series_texts = {128, "not found", "not found"};
constexpr RemovalTexts study_texts = {16, "not unlinked after failed rename.", "not unlinked."};

}  // namespace

// Every function that returns an int returns the result of the last step that it performed.
class LocalStore::Deletion {
  public:
    Deletion(LocalStore& store, const Uids& uids) : store_(store), uids_(uids) {}

    [[nodiscard]] int delete_image();
    [[nodiscard]] int delete_series();
    [[nodiscard]] int delete_study();

  private:
    [[nodiscard]] OFString index_path(const char* series) const {
        return store_.GetUidIndexPath(uids_.study, series) + ".dat";
    }
    [[nodiscard]] int unlink_image();
    [[nodiscard]] bool wait_for(int file, const OFString& path);
    [[nodiscard]] bool wait_for_study_files(LockedIndex& hash, int data);
    [[nodiscard]] bool blank(int index, std::size_t record_size, std::uint64_t number,
                             const OFString& path);
    void remove_index(const OFString& path, const RemovalTexts& texts);
    [[nodiscard]] int remove_directory(const char* series, unsigned level);
    [[nodiscard]] std::optional<std::uint32_t> find_study(int data) const;
    [[nodiscard]] bool mark_study(int hash, int data, std::uint32_t number);

    LocalStore& store_;
    Uids uids_;
    bool image_was_gone_ = false;
};

// The file goes first: cut short behind it, a record is left that a second delete removes. The
// other way round a file would be left that nobody knows to hold a patient's image. The record goes
// last, so that a second delete can take up the levels above, too. The disk sees it in that order:
// a record that came back after a power cut would stand beside that of the image sent again.
int LocalStore::Deletion::delete_image() {
    logprintf(128, store_.logfile, "Del IMG\n");
    const OFString path = index_path(uids_.series);
    const LockedIndex index(path);
    if (!index.held()) return not_named;
    const Scan scan = scan_index(index.get(), sizeof(tarvo::ImageRecord), uids_.image);
    if (!scan.target) {
        logprintf(16, store_.logfile, "Del IMG - not found!\n");
        return not_named;
    }
    const int unlinked = unlink_image();
    const int result = scan.other_lives ? unlinked : delete_series();
    const bool written = blank(index.get(), sizeof(tarvo::ImageRecord), *scan.target, path);
    return written ? result : failure;
}

// The caller holds the lock of the file.
bool LocalStore::Deletion::wait_for(int file, const OFString& path) {
    tarvo::FileStamp seen;
    seen.take(file);
    return store_.internals_->disk.wait_for_file(file, path.c_str(), seen);
}

bool LocalStore::Deletion::blank(int index, std::size_t record_size, std::uint64_t number,
                                 const OFString& path) {
    if (blank_record(index, record_size, number) && wait_for(index, path)) return true;
    logprintf(8, store_.logfile, "Cannot update index file %s.\n", path.c_str());
    return false;
}

int LocalStore::Deletion::unlink_image() {
    const OFString path = store_.GetUidPath(uids_.study, uids_.series, uids_.image, 1);
    logprintf(128, store_.logfile, "Del IMG - unlink(%s)\n", path.c_str());
    const int result = ::unlink(path.c_str());
    if (result != 0) {
        image_was_gone_ = errno == ENOENT;
        logprintf(8, store_.logfile, "Cannot delete image %s: %s.\n", path.c_str(),
                  std::strerror(errno));
    }
    const std::string directory = tarvo::directory_of(path.c_str());
    if (store_.internals_->disk.wait_for_directory(directory)) return result;
    logprintf(8, store_.logfile, "Cannot bring the delete of %s to the disk: %s.\n", path.c_str(),
              std::strerror(errno));
    return failure;
}

int LocalStore::Deletion::delete_series() {
    const OFString path = index_path(nullptr);
    logprintf(128, store_.logfile, "Del SER in %s\n", path.c_str());
    const LockedIndex index(path);
    if (!index.held()) return not_named;
    const Scan scan = scan_index(index.get(), sizeof(tarvo::SeriesRecord), uids_.series);
    if (!scan.target) {
        logprintf(128, store_.logfile, "Del SERIES - not found!\n");
        // With its image gone too, a delete was killed at this place: this one goes on.
        if (!image_was_gone_) return not_named;
    } else if (!blank(index.get(), sizeof(tarvo::SeriesRecord), *scan.target, path)) {
        // Blank before the image index goes: a series that stands without one stops every query
        // for the images of its study.
        return failure;
    }
    const OFString images = index_path(uids_.series);
    logprintf(128, store_.logfile, "Del SERIES - movedown(%s)\n", images.c_str());
    remove_index(images, series_texts);
    const int removed = remove_directory(uids_.series, 128);
    return scan.other_lives ? removed : delete_study();
}

// A study that is not in the hash is cleaned off the disk all the same.
int LocalStore::Deletion::delete_study() {
    LockedIndex hash(tarvo::study_hash_path(store_));
    if (!hash.held() || !tarvo::finish_compaction(store_, hash.get())) return not_named;
    if (store_.updateStudyHash(hash.get()) < 0) {
        logprintf(128, store_.logfile, "AIEEE: Can't update study hash in delete().\n");
    }
    const UniqueFd data = open_to_write(tarvo::study_data_path(store_));
    if (!data) return not_named;
    const std::optional<std::uint32_t> number = find_study(data.get());
    if (!number) logprintf(128, store_.logfile, "Del STUDY - not found!\n");
    if (number && !mark_study(hash.get(), data.get(), *number)) {
        logprintf(8, store_.logfile, "Cannot update study index %s.\n",
                  tarvo::study_hash_path(store_).c_str());
        return failure;
    }
    const OFString series = index_path(nullptr);
    logprintf(128, store_.logfile, "Del STUDY - movedown(%s)\n", series.c_str());
    remove_index(series, study_texts);
    const int removed = remove_directory(nullptr, 16);
    return wait_for_study_files(hash, data.get()) ? removed : failure;
}

// Without the lock, for which every worker waits that stores or begins.
bool LocalStore::Deletion::wait_for_study_files(LockedIndex& hash, int data) {
    tarvo::FileStamp hash_seen;
    tarvo::FileStamp data_seen;
    hash_seen.take(hash.get());
    data_seen.take(data);
    hash.unlock();
    tarvo::DiskSync& disk = store_.internals_->disk;
    return disk.wait_for_file(hash.get(), tarvo::study_hash_path(store_).c_str(), hash_seen) &&
           disk.wait_for_file(data, tarvo::study_data_path(store_).c_str(), data_seen);
}

std::optional<std::uint32_t> LocalStore::Deletion::find_study(int data) const {
    const std::uint32_t crc = tarvo::crc32_of(uids_.study);
    const std::string_view key = std::string_view(uids_.study).substr(0, key_width);
    for (std::uint32_t i = 0; i < store_.studyHashCount; ++i) {
        if (!tarvo::may_be_study(store_.studyHash[i], crc)) continue;
        studydata record{};
        const ssize_t got = tarvo::read_at(data, &record, sizeof record, record_offset(i));
        if (got == sizeof record && tarvo::field_text(record.study_uid) == key) return i;
    }
    return std::nullopt;
}

// Sets the deleted mark of the study's hash entry and zeroes its record.
bool LocalStore::Deletion::mark_study(int hash, int data, std::uint32_t number) {
    studyhash& entry = store_.studyHash[number];
    entry.nameBits |= tarvo::study_deleted_mark;
    const studydata blank{};
    return tarvo::write_at(hash, &entry, sizeof entry, entry_offset(number)) &&
           tarvo::write_at(data, &blank, sizeof blank, record_offset(number));
}

// Takes an index file away: under a scratch name first, so that its own name vanishes in one step.
void LocalStore::Deletion::remove_index(const OFString& path, const RemovalTexts& texts) {
    const OFString directory = store_.GetUidBasePath(uids_.study);
    logprintf(128, store_.logfile, "SERIES movehelp is %s\n", directory.c_str());
    const OFString scratch = directory + "/DELETEME";
    if (::rename(path.c_str(), scratch.c_str()) != 0) {
        if (::unlink(path.c_str()) == 0) return;
        logprintf(texts.level, store_.logfile, "Del SERIES idx %s %s\n", path.c_str(),
                  texts.not_unlinked);
    } else if (::unlink(scratch.c_str()) != 0) {
        logprintf(texts.level, store_.logfile, "Del SERIES moved idx %s %s\n", scratch.c_str(),
                  texts.moved_not_unlinked);
    }
}

int LocalStore::Deletion::remove_directory(const char* series, unsigned level) {
    const OFString path = store_.GetUidPath(uids_.study, series, nullptr, 1);
    logprintf(128, store_.logfile, "Del SER rmdir(%s)\n", path.c_str());
    const int result = ::rmdir(path.c_str());
    if (result != 0) logprintf(level, store_.logfile, "Del SERIES rmdir %s failed\n", path.c_str());
    return result;
}

int LocalStore::DeleteFile(const char* study, const char* series, const char* image) {
    const bool nameable =
        tarvo::can_name_file(study) && tarvo::can_name_file(series) && tarvo::can_name_file(image);
    if (study == nullptr || !nameable) return not_named;
    const tarvo::HeldSignals together;
    Deletion deletion(*this, {study, series, image});
    if (image != nullptr) return series != nullptr ? deletion.delete_image() : not_named;
    return series != nullptr ? deletion.delete_series() : deletion.delete_study();
}
