// Entering an image into the study hash and study data files.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <optional>

#include "store/local_store.h"
#include "store/record_file.h"
#include "store/redo_file.h"
#include "store/store_internals.h"
#include "support/file_helpers.h"
#include "support/log.h"
#include "support/text_field.h"
#include "support/unique_fd.h"
#include "support/whole_file_lock.h"

namespace {

using tarvo::entry_offset;
using tarvo::LockKind;
using tarvo::record_offset;
using tarvo::UniqueFd;
using tarvo::WholeFileLock;

UniqueFd open_or_create(const OFString& path) {
    return UniqueFd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0664));
}

template <typename Record>
bool same_bytes(const Record& left, const Record& right) {
    return std::memcmp(&left, &right, sizeof left) == 0;
}

}  // namespace

// One image's way into the two files.
class LocalStore::StudyUpdate {
  public:
    StudyUpdate(LocalStore& store, const DcmDataset& dataset) : store_(store), dataset_(dataset) {
        store_.studyDataMake(&dataset_, &new_entry_, &new_record_);
    }

    // Whether the last image asked for the same, and nobody has touched the files since: merging it
    // again would change nothing.
    [[nodiscard]] bool stands() const {
        const LocalStore::Internals& internals = *store_.internals_;
        const auto& last = internals.last_study;
        // Without the files, which once could not be opened, nobody could wait for the disk.
        return internals.hash_file && internals.data_file && same_bytes(last.entry, new_entry_) &&
               same_bytes(last.record, new_record_) &&
               last.hash.proves_unchanged(tarvo::study_hash_path(store_).c_str()) &&
               last.data.proves_unchanged(tarvo::study_data_path(store_).c_str());
    }

    // Enters the image into the two open files; the caller holds the exclusive lock of the hash
    // file. True when the study's entry and record stand in both.
    [[nodiscard]] bool run(int hash, int data) {
        hash_ = hash;
        data_ = data;
        if (!load_if_counts_differ() || !find()) return false;
        if (!found_ && !known_current_) {
            // Another server on this store may have removed a study and added this one: then
            // the counts agree and the entries do not.
            if (!load(entries_in_file_) || !find()) return false;
        }
        const bool written = found_ ? merge() : append();
        remember(written);
        return written;
    }

  private:
    [[nodiscard]] bool load(std::uint32_t count) {
        known_current_ = store_.loadStudyHash(hash_, count);
        return known_current_;
    }

    [[nodiscard]] bool load_if_counts_differ() {
        struct stat status {};
        if (::fstat(hash_, &status) != 0) return false;
        if (status.st_size % static_cast<off_t>(sizeof(studyhash)) != 0) return false;
        entries_in_file_ = tarvo::entries_in(status.st_size);
        if (entries_in_file_ != store_.studyHashCount) return load(entries_in_file_);
        known_current_ = store_.internals_->hash_stamp.proves_unchanged(status);
        return true;
    }

    // Looks for the study from the newest entry backwards. False when a record cannot be read.
    [[nodiscard]] bool find() {
        for (std::uint32_t i = store_.studyHashCount; i-- > 0;) {
            if (!tarvo::may_be_study(store_.studyHash[i], new_entry_.uidCrc)) continue;
            studydata record{};  // what the file lacks counts as zero
            if (tarvo::read_at(data_, &record, sizeof record, record_offset(i)) < 0) return false;
            if (tarvo::field_text(record.study_uid) != tarvo::field_text(new_record_.study_uid)) {
                continue;
            }
            found_ = i;
            found_record_ = record;
            return true;
        }
        return true;
    }

    // The entry is read again: another process may have merged an image since it was loaded.
    [[nodiscard]] bool merge() {
        const off_t offset = entry_offset(*found_);
        studyhash old_entry{};
        if (tarvo::read_at(hash_, &old_entry, sizeof old_entry, offset) != sizeof old_entry) {
            return false;
        }
        // One whose writer or deleter was killed half way: nothing of it goes into the new one.
        const bool unfinished = old_entry.uidCrc != new_entry_.uidCrc ||
                                (old_entry.nameBits & tarvo::study_deleted_mark) != 0;
        studyhash entry = unfinished ? new_entry_ : old_entry;
        studydata record = unfinished ? new_record_ : found_record_;
        if (!unfinished) store_.studyDataMake(&dataset_, &entry, &record);
        store_.studyHash[*found_] = old_entry;
        if (!same_bytes(record, found_record_) &&
            !tarvo::write_at(data_, &record, sizeof record, record_offset(*found_))) {
            return false;
        }
        if (!same_bytes(entry, old_entry) &&
            !tarvo::write_at(hash_, &entry, sizeof entry, offset)) {
            return false;
        }
        store_.studyHash[*found_] = entry;
        return true;
    }

    // The record before its entry: an entry without a record would be a study that no query finds
    // and no later image joins. Room for an entry without its contents is no harm: the next image
    // of the study finds the record and fills it.
    [[nodiscard]] bool append() {
        const std::uint32_t number = store_.studyHashCount;
        if (!tarvo::append_record(data_, &new_record_, sizeof new_record_, record_offset(number)) ||
            !tarvo::append_record(hash_, &new_entry_, sizeof new_entry_, entry_offset(number))) {
            return false;
        }
        if (store_.reallocStudyHash(static_cast<int>(number + 1)) != 0) return false;
        store_.studyHash[number] = new_entry_;
        return true;
    }

    // Our own writes leave the copy as current as it was before.
    void remember(bool written) {
        LocalStore::Internals& known = *store_.internals_;
        known.hash_stamp.forget();
        known.last_study = {};
        if (!written) return;
        known.last_study.entry = new_entry_;
        known.last_study.record = new_record_;
        known.last_study.hash.take(hash_);
        known.last_study.data.take(data_);
        if (known_current_) known.hash_stamp = known.last_study.hash;
    }

    LocalStore& store_;
    const DcmDataset& dataset_;
    int hash_ = -1;
    int data_ = -1;
    studyhash new_entry_{};
    studydata new_record_{};
    std::uint32_t entries_in_file_ = 0;
    bool known_current_ = false;  // the copy in memory certainly equals the file
    std::optional<std::uint32_t> found_;
    studydata found_record_{};
};

int LocalStore::recordStudy(const DcmDataset& dataset, const char* image) {
    StudyUpdate update(*this, dataset);  // converts texts, hence before the lock is taken
    if (image == nullptr && update.stands()) return tarvo::store_success;
    const OFString hash_path = tarvo::study_hash_path(*this);
    // The files of the image before are closed without the lock, which that would drop.
    UniqueFd& hash = internals_->hash_file;
    UniqueFd& data = internals_->data_file;
    hash = open_or_create(hash_path);
    data = open_or_create(tarvo::study_data_path(*this));
    const WholeFileLock lock(hash.get(), LockKind::exclusive);
    if (lock.held() && data) {
        if (image != nullptr && !tarvo::is_there(image)) return tarvo::store_success;
        if (tarvo::finish_compaction(*this, hash.get()) && update.run(hash.get(), data.get())) {
            return tarvo::store_success;
        }
    }
    logprintf(8, logfile, "Cannot update study index %s.\n", hash_path.c_str());
    return tarvo::store_io_failure;
}
