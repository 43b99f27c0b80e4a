// The in-memory copy of the study hash file, and the compaction of both study files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <span>

#include "store/local_store.h"
#include "store/store_internals.h"
#include "support/file_helpers.h"
#include "support/unique_fd.h"
#include "support/whole_file_lock.h"

namespace {

using tarvo::LockKind;
using tarvo::UniqueFd;
using tarvo::WholeFileLock;

constexpr int loaded = 1;
constexpr int compacted = 1;
constexpr int unchanged = 0;
constexpr int failed = -1;

bool is_deleted(const studyhash& entry) {
    return (entry.nameBits & tarvo::study_deleted_mark) != 0;
}

bool holds_deleted(std::span<const studyhash> entries) {
    return std::any_of(entries.begin(), entries.end(), is_deleted);
}

std::uint32_t seconds_of(const timespec& time) { return static_cast<std::uint32_t>(time.tv_sec); }

bool is_valid_size(off_t size) { return size % static_cast<off_t>(sizeof(studyhash)) == 0; }

std::uint32_t entries_in(off_t size) {
    return static_cast<std::uint32_t>(size / static_cast<off_t>(sizeof(studyhash)));
}

bool move_record(int data, std::size_t from, std::size_t to) {
    studydata record{};  // what the file lacks counts as zero
    return tarvo::read_at(data, &record, sizeof record, tarvo::record_offset(from)) >= 0 &&
           tarvo::write_at(data, &record, sizeof record, tarvo::record_offset(to));
}

// Moves the records of living studies down over those of deleted ones. Returns the number of
// entries that were looked at: all of them unless a record could not be moved.
std::size_t move_records_down(int data, std::span<const studyhash> entries) {
    std::size_t next = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (is_deleted(entries[i])) continue;
        if (i != next && !move_record(data, i, next)) return i;
        ++next;
    }
    return entries.size();
}

// Does the same to the first `count` entries and returns how many of them are left. The places
// behind those become deleted entries: they stay when the others could not be moved.
std::size_t move_entries_down(std::span<studyhash> entries, std::size_t count) {
    const auto end = entries.begin() + static_cast<std::ptrdiff_t>(count);
    const auto vacated = std::remove_if(entries.begin(), end, is_deleted);
    for (auto entry = vacated; entry != end; ++entry) entry->nameBits = tarvo::study_deleted_mark;
    return static_cast<std::size_t>(vacated - entries.begin());
}

bool rewrite(int hash, std::span<const studyhash> entries) {
    return tarvo::write_at(hash, entries.data(), entries.size_bytes(), 0) &&
           ::ftruncate(hash, static_cast<off_t>(entries.size_bytes())) == 0;
}

}  // namespace

int LocalStore::reallocStudyHash(int count) {
    const auto entries = static_cast<std::uint32_t>(count);
    studyHash = static_cast<studyhash*>(std::realloc(studyHash, entries * sizeof(studyhash)));
    const bool exhausted = studyHash == nullptr && entries != 0;
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
    const std::uint32_t count = entries_in(status.st_size);
    // Seconds alone would miss a second change within one second.
    if (count == studyHashCount && seconds_of(status.st_mtim) == studyHashMtime &&
        internals_->hash_stamp.matches(status)) {
        return unchanged;
    }
    if (!loadStudyHash(descriptor, count)) return failed;
    studyHashMtime = seconds_of(status.st_mtim);
    return loaded;
}

int LocalStore::updateStudyHash() {
    const UniqueFd hash(::open(tarvo::study_hash_path(*this).c_str(), O_RDONLY | O_CLOEXEC));
    if (!hash) return failed;
    const WholeFileLock lock(hash.get(), LockKind::shared);
    return lock.held() ? updateStudyHash(hash.get()) : failed;
}

bool LocalStore::mustUpdateStudyHash() const {
    struct stat status {};
    if (::stat(tarvo::study_hash_path(*this).c_str(), &status) != 0) return false;
    if (!is_valid_size(status.st_size)) return false;
    return entries_in(status.st_size) != studyHashCount ||
           seconds_of(status.st_mtim) != studyHashMtime || !internals_->hash_stamp.matches(status);
}

int LocalStore::compactStudyHash(int descriptor) {
    const bool fresh = updateStudyHash(descriptor) != failed;
    if (!holds_deleted({studyHash, studyHashCount})) return unchanged;
    // A fragment at the end of the file keeps it from being loaded; this is where it goes away.
    if (!fresh && !loadStudyHash(descriptor, entries_in(tarvo::file_size(descriptor)))) {
        return failed;
    }
    const UniqueFd data(::open(tarvo::study_data_path(*this).c_str(), O_RDWR | O_CLOEXEC));
    // Without a data file there is nothing to move: the hash is compacted all the same.
    if (!data && errno != ENOENT) return failed;
    const std::span<studyhash> entries(studyHash, studyHashCount);
    const std::size_t moved = data ? move_records_down(data.get(), entries) : entries.size();
    const std::size_t left = move_entries_down(entries, moved);
    const bool complete = moved == entries.size();
    internals_->hash_stamp.forget();
    if (!rewrite(descriptor, complete ? entries.first(left) : entries)) {
        studyHashCount = 0;  // file and copy differ: whoever needs it loads it anew
        return failed;
    }
    if (!complete || reallocStudyHash(static_cast<int>(left)) != 0) return failed;
    return !data || ::ftruncate(data.get(), tarvo::record_offset(left)) == 0 ? compacted : failed;
}

int LocalStore::compactStudyHash() {
    const UniqueFd hash(::open(tarvo::study_hash_path(*this).c_str(), O_RDWR | O_CLOEXEC));
    if (!hash) return failed;
    const WholeFileLock lock(hash.get(), LockKind::exclusive);
    return lock.held() ? compactStudyHash(hash.get()) : failed;
}
