// The in-memory copy of the study hash file, and the compaction of both study files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "store/local_store.h"
#include "store/redo_file.h"
#include "store/store_internals.h"
#include "support/file_helpers.h"
#include "support/held_signals.h"
#include "support/unique_fd.h"
#include "support/whole_file_lock.h"

namespace {

using tarvo::HeldSignals;
using tarvo::LockKind;
using tarvo::UniqueFd;
using tarvo::WholeFileLock;

constexpr int loaded = 1;
constexpr int compacted = 1;
constexpr int unchanged = 0;
constexpr int failed = -1;

std::uint32_t seconds_of(const timespec& time) { return static_cast<std::uint32_t>(time.tv_sec); }

bool is_valid_size(off_t size) { return size % static_cast<off_t>(sizeof(studyhash)) == 0; }

}  // namespace

int LocalStore::reallocStudyHash(int count) {
    const auto entries = static_cast<std::uint32_t>(count);
    const std::uint32_t room = std::max(entries, 1U);  // what 0 means is the library's choice
    studyHash = static_cast<studyhash*>(std::realloc(studyHash, room * sizeof(studyhash)));
    const bool exhausted = studyHash == nullptr;
    studyHashCount = exhausted ? 0 : entries;
    return exhausted ? failed : 0;
}

// The caller holds a lock on the file, which has `count` entries.
bool LocalStore::loadStudyHash(int descriptor, std::uint32_t count) {
    struct stat status {};
    internals_->hash_stamp.forget();
    if (::fstat(descriptor, &status) != 0 || reallocStudyHash(static_cast<int>(count)) != 0) {
        return false;
    }
    const std::size_t length = count * sizeof(studyhash);
    if (tarvo::read_at(descriptor, studyHash, length, 0) != static_cast<ssize_t>(length)) {
        studyHashCount = 0;
        return false;
    }
    internals_->hash_stamp.take(status);
    return true;
}

int LocalStore::updateStudyHash(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !is_valid_size(status.st_size)) return failed;
    const std::uint32_t count = tarvo::entries_in(status.st_size);
    // Seconds alone would miss a second change within one second.
    const bool looks_unchanged = count == studyHashCount &&
                                 seconds_of(status.st_mtim) == studyHashMtime &&
                                 internals_->hash_stamp.matches(status);
    if (looks_unchanged && internals_->hash_stamp.proves_unchanged(status)) return unchanged;
    if (!loadStudyHash(descriptor, count)) return failed;
    studyHashMtime = seconds_of(status.st_mtim);
    // It was loaded in the very step of the clock in which it had changed: once more, to be
    // certain.
    return looks_unchanged ? unchanged : loaded;
}

int LocalStore::updateStudyHash() {
    // Half compacted, the two files do not belong together.
    if (tarvo::is_there(tarvo::redo_path(*this).c_str())) static_cast<void>(compactStudyHash());
    return updateStudyHash(tarvo::LockWait::forever);
}

bool LocalStore::tryUpdateStudyHash() {
    if (tarvo::is_there(tarvo::redo_path(*this).c_str())) return false;
    return updateStudyHash(tarvo::LockWait::never) >= 0;
}

int LocalStore::updateStudyHash(tarvo::LockWait wait) {
    const UniqueFd hash(::open(tarvo::study_hash_path(*this).c_str(), O_RDONLY | O_CLOEXEC));
    if (!hash) return failed;
    const WholeFileLock lock(hash.get(), LockKind::shared, wait);
    return lock.held() ? updateStudyHash(hash.get()) : failed;
}

bool LocalStore::mustUpdateStudyHash() const {
    // A compaction that another process left half done may not have come to the hash file yet.
    if (tarvo::is_there(tarvo::redo_path(*this).c_str())) return true;
    struct stat status {};
    if (::stat(tarvo::study_hash_path(*this).c_str(), &status) != 0) return false;
    if (!is_valid_size(status.st_size)) return false;
    return tarvo::entries_in(status.st_size) != studyHashCount ||
           seconds_of(status.st_mtim) != studyHashMtime ||
           !internals_->hash_stamp.proves_unchanged(status);
}

int LocalStore::compactStudyHash(int descriptor) {
    if (!tarvo::finish_compaction(*this, descriptor)) return failed;
    const bool fresh = updateStudyHash(descriptor) != failed;
    if (std::none_of(studyHash, studyHash + studyHashCount, tarvo::is_deleted)) return unchanged;
    // A fragment at the end of the file keeps it from being loaded; this is where it goes away.
    if (!fresh && !loadStudyHash(descriptor, tarvo::entries_in(tarvo::file_size(descriptor)))) {
        return failed;
    }
    const UniqueFd data(::open(tarvo::study_data_path(*this).c_str(), O_RDONLY | O_CLOEXEC));
    if (!data && errno != ENOENT) return failed;
    studyhash* const end = studyHash + studyHashCount;
    studyhash* const first = std::find_if(studyHash, end, tarvo::is_deleted);
    if (!tarvo::write_redo_file(*this, {first, end}, static_cast<std::uint32_t>(first - studyHash),
                                data)) {
        return failed;
    }
    internals_->hash_stamp.forget();
    if (!tarvo::finish_compaction(*this, descriptor)) {
        studyHashCount = 0;  // file and copy differ: whoever needs it loads it anew
        return failed;
    }
    const studyhash* const left = std::remove_if(first, end, tarvo::is_deleted);
    return reallocStudyHash(static_cast<int>(left - studyHash)) == 0 ? compacted : failed;
}

int LocalStore::compactStudyHash() { return compactStudyHash(tarvo::LockWait::forever); }

bool LocalStore::tryCompactStudyHash() { return compactStudyHash(tarvo::LockWait::never) >= 0; }

int LocalStore::compactStudyHash(tarvo::LockWait wait) {
    const UniqueFd hash(::open(tarvo::study_hash_path(*this).c_str(), O_RDWR | O_CLOEXEC));
    if (!hash) return failed;
    // Ended half way by its watchdog, a worker would leave the same to the next one, for ever.
    const HeldSignals together;
    const WholeFileLock lock(hash.get(), LockKind::exclusive, wait);
    return lock.held() ? compactStudyHash(hash.get()) : failed;
}
