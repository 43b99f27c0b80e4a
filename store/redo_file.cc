#include "store/redo_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "store/local_store.h"
#include "store/record_file.h"
#include "store/store_internals.h"
#include "support/file_helpers.h"
#include "support/unique_fd.h"

namespace {

using tarvo::UniqueFd;

// A redo file: this header, then the entries, then the records (none when there is no data file).
struct RedoHeader {
    std::array<char, 8> magic;
    std::uint32_t first;    // number of the first entry that changes; all behind it are here
    std::uint32_t entries;  // how many are here: the new count is first + entries
    std::uint32_t records;  // entries or 0
    std::uint32_t reserved;
};
static_assert(sizeof(RedoHeader) == 24 && offsetof(RedoHeader, records) == 16);

constexpr std::array<char, 8> redo_magic = {'T', 'V', 'R', 'E', 'D', 'O', '1', '\n'};
constexpr std::size_t block_size = 65536;

off_t entries_end(const RedoHeader& header) {
    return static_cast<off_t>(sizeof header) + tarvo::entry_offset(header.entries);
}

off_t redo_size(const RedoHeader& header) {
    return entries_end(header) + tarvo::record_offset(header.records);
}

// ---- writing the redo file ----

bool write_entries(int redo, std::span<const studyhash> living) {
    return writeAll(redo, living.data(), living.size_bytes()) ==
           static_cast<ssize_t>(living.size_bytes());
}

// The records of the living among `entries`, the first of which has the number `first`. What the
// data file lacks counts as zero.
bool write_records(int redo, int data, std::span<const studyhash> entries, std::uint32_t first) {
    tarvo::RecordReader reader(data, sizeof(studydata), first);
    std::string block;
    for (const studyhash& entry : entries) {
        studydata record{};
        if (reader.next(&record) < 0) return false;
        if (tarvo::is_deleted(entry)) continue;
        block.append(reinterpret_cast<const char*>(&record), sizeof record);
        if (block.size() < block_size) continue;
        if (writeAll(redo, block.data(), block.size()) < static_cast<ssize_t>(block.size())) {
            return false;
        }
        block.clear();
    }
    return writeAll(redo, block.data(), block.size()) == static_cast<ssize_t>(block.size());
}

// ---- changing the two files from it ----

bool copy_range(int from, off_t start, off_t end, int to, off_t target) {
    std::array<char, block_size> block;
    while (start < end) {
        const std::size_t wanted =
            static_cast<std::size_t>(std::min<off_t>(end - start, sizeof block));
        if (tarvo::read_at(from, block.data(), wanted, start) != static_cast<ssize_t>(wanted) ||
            !tarvo::write_at(to, block.data(), wanted, target)) {
            return false;
        }
        start += static_cast<off_t>(wanted);
        target += static_cast<off_t>(wanted);
    }
    return true;
}

bool apply_to_data(const LocalStore& store, int redo, const RedoHeader& header) {
    const UniqueFd data(::open(tarvo::study_data_path(store).c_str(), O_RDWR | O_CLOEXEC));
    // Without a data file there is nothing to move: the hash is compacted all the same.
    if (!data) return errno == ENOENT;
    return copy_range(redo, entries_end(header), redo_size(header), data.get(),
                      tarvo::record_offset(header.first)) &&
           ::ftruncate(data.get(), tarvo::record_offset(header.first + header.entries)) == 0 &&
           ::fdatasync(data.get()) == 0;
}

bool apply_to_hash(int hash, int redo, const RedoHeader& header) {
    return copy_range(redo, sizeof header, entries_end(header), hash,
                      tarvo::entry_offset(header.first)) &&
           ::ftruncate(hash, tarvo::entry_offset(header.first + header.entries)) == 0 &&
           ::fdatasync(hash) == 0;
}

// Empty before it goes: should its name come back after a power cut, it says nothing.
bool remove_redo(const OFString& path, int redo) {
    return ::ftruncate(redo, 0) == 0 && ::fdatasync(redo) == 0 && ::unlink(path.c_str()) == 0 &&
           tarvo::sync_directory(tarvo::directory_of(path.c_str()));
}

// Compaction only ever makes the files shorter: a damaged header that says otherwise must not make
// them grow without bound.
bool is_complete(int redo, const RedoHeader& header, int hash) {
    const std::uint64_t left = std::uint64_t{header.first} + header.entries;
    return header.magic == redo_magic &&
           (header.records == header.entries || header.records == 0) &&
           tarvo::file_size(redo) == redo_size(header) &&
           left <= tarvo::entries_in(tarvo::file_size(hash));
}

// Its name comes to the disk first, which whoever wrote it may not have lived to see: without it
// nobody could complete what a power cut interrupts.
bool apply(const LocalStore& store, int redo, const RedoHeader& header, int hash) {
    return tarvo::sync_directory(tarvo::directory_of(tarvo::redo_path(store).c_str())) &&
           apply_to_data(store, redo, header) && apply_to_hash(hash, redo, header);
}

}  // namespace

OFString tarvo::redo_path(const LocalStore& store) {
    return store.GetUidIndexPath(nullptr, nullptr) + ".redo";
}

bool tarvo::finish_compaction(const LocalStore& store, int hash) {
    const OFString path = redo_path(store);
    const UniqueFd redo(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!redo) return errno == ENOENT;
    RedoHeader header{};
    if (read_at(redo.get(), &header, sizeof header, 0) < 0) return false;
    if (is_complete(redo.get(), header, hash) && !apply(store, redo.get(), header, hash)) {
        return false;
    }
    return remove_redo(path, redo.get());
}

bool tarvo::write_redo_file(const LocalStore& store, std::span<const studyhash> entries,
                            std::uint32_t first, const UniqueFd& data) {
    const OFString path = redo_path(store);
    std::vector<studyhash> living;
    std::remove_copy_if(entries.begin(), entries.end(), std::back_inserter(living), is_deleted);
    const auto count = static_cast<std::uint32_t>(living.size());
    const RedoHeader header = {redo_magic, first, count, data ? count : 0, 0};
    const OFString unfinished = path + ".tmp";
    const UniqueFd redo(::open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0664));
    const bool written = redo && writeAll(redo.get(), &header, sizeof header) == sizeof header &&
                         write_entries(redo.get(), living) &&
                         (!data || write_records(redo.get(), data.get(), entries, first)) &&
                         ::fsync(redo.get()) == 0 &&
                         ::rename(unfinished.c_str(), path.c_str()) == 0;
    if (!written) ::unlink(unfinished.c_str());
    return written;
}
