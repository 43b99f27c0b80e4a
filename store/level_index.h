// The level index files: SERIESINDEX.dat of a study, IMAGEINDEX.dat of a series. They hold what
// queries at SERIES and IMAGE level answer with (PS3.4, C.6.1.1.4 and C.6.1.1.5), so that no
// image file is opened for a query.
//
// Records are inserted or replaced by writers and blanked by deletes, each under the exclusive
// lock of the file. Blank slots are never filled again.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>

#include "dicom/dataset.h"
#include "store/file_stamp.h"
#include "store/records.h"
#include "support/unique_fd.h"

struct stat;

namespace tarvo {

// Where the value of one attribute stands in a record.
struct IndexField {
    std::uint16_t group;
    std::uint16_t element;
    std::uint16_t offset;
    std::uint16_t width;
};

// The fields of the records in their order.
extern const std::span<const IndexField> series_fields;
extern const std::span<const IndexField> image_fields;

// Copies the attributes of an item into the fields of a zeroed record.
void fill_record(void* record, std::span<const IndexField> fields, const AttributeTexts& texts);

// What became of a record.
enum class Inserted {
    done,        // it is in the file; an equal one was there already, or it was written
    not_opened,  // the file could neither be opened nor created; errno tells why
    failed,      // the file could not be locked, read or written
    unneeded,    // the file for whose sake the record is kept is gone: nothing was written
};

// Whether `path` still leads to the open file: a delete may have removed that, and a writer made
// another one. Ask under the lock.
[[nodiscard]] bool is_at_path(int descriptor, const std::string& path);
[[nodiscard]] bool is_at_path(const struct stat& opened, const std::string& path);

// Whether a file has that name, be it a symbolic link that leads nowhere.
[[nodiscard]] bool is_there(const char* path);

// Writer of one level, holding the index file used last and a table of the keys in it, so that an
// insert costs the same however long the file has grown.
//
// The table is only a memory of where to look: under the lock, every insert checks that the path
// still names the same file, takes in what others have appended, and compares the record found
// with the key. Whatever does not agree makes it read the whole file again.
class LevelIndex {
  public:
    explicit LevelIndex(std::size_t record_size) : record_size_(record_size) {}

    // Whether it is the file used last, and still there under its name.
    [[nodiscard]] bool is_prepared(const std::string& path) const;
    // Makes the file be there (mode 0664), but not its directory. False with errno set.
    [[nodiscard]] bool prepare(const std::string& path);

    // What must be done before a record is appended; false: it is not appended.
    using BeforeAppend = std::function<bool()>;

    // Replaces the first record whose key (its first 64 bytes) is that of `record`, else appends
    // it; all or nothing. Prepares the file, and waits for its lock. With `reason` it does so only
    // while that file exists, which is looked up under the lock. An append takes the place of a
    // fragment that a power cut left at the end: behind it no reader would find the record.
    [[nodiscard]] Inserted insert(const std::string& path, const void* record,
                                  const char* reason = nullptr, const BeforeAppend& first = {}) {
        return enter(path, {record, reason, true, first});
    }
    // Puts a record back that others may have removed: appends it unless there is one with its
    // key, equal or not.
    [[nodiscard]] Inserted restore(const std::string& path, const void* record, const char* reason,
                                   const BeforeAppend& first = {}) {
        return enter(path, {record, reason, false, first});
    }

    // True when `record` is what was inserted last and nobody has touched the file since: inserting
    // it again would change nothing. False may only mean that this is not certain.
    [[nodiscard]] bool stands(const std::string& path, const void* record) const;
    // True when the file at `path` certainly has the record inserted last, as far as its key goes,
    // and nobody is about to change that. Takes no lock; false may only mean that this is not
    // certain.
    [[nodiscard]] bool still_holds_last(const std::string& path) const;
    // True when nobody has touched the file since the last insert or restore.
    [[nodiscard]] bool unchanged() const { return entered_.proves_unchanged(file_.get()); }

    // The file used last, for waiting until the disk has it, and as it was after the last insert or
    // restore: -1 when it could not be opened.
    [[nodiscard]] int descriptor() const { return file_.get(); }
    [[nodiscard]] const FileStamp& entered() const { return entered_; }

    // How often a file was changed so far.
    [[nodiscard]] std::uint64_t writes() const { return writes_; }

  private:
    enum class Lookup { found, absent, stale, failed };
    // The record that a key leads to.
    struct Slot {
        std::uint64_t number = 0;
        std::string content;
    };

    struct Entry {
        const void* record;
        const char* reason;  // the file for whose sake it is kept, null for none
        bool replaces;       // a record with its key
        const BeforeAppend& first;
    };

    [[nodiscard]] Inserted enter(const std::string& path, const Entry& entry);
    [[nodiscard]] bool open(const std::string& path);
    void close();
    // Nothing when another file has taken the path since it was opened.
    [[nodiscard]] std::optional<Inserted> enter_locked(const Entry& entry);
    [[nodiscard]] bool insert_or_replace(const Entry& entry);
    [[nodiscard]] bool replace(const Slot& slot, const void* record);
    [[nodiscard]] bool append(const std::string& key, const void* record);
    [[nodiscard]] Lookup find(const std::string& key, Slot& slot);
    [[nodiscard]] Lookup look_up(const std::string& key, Slot& slot);
    [[nodiscard]] bool catch_up();
    void forget_records();

    std::size_t record_size_;
    std::string path_;
    UniqueFd file_;
    off_t size_ = 0;  // of the file before our own writes, valid under the lock
    std::unordered_map<std::string, std::uint64_t> first_record_;  // by key
    std::uint64_t known_records_ = 0;                              // of these the table knows
    std::uint64_t writes_ = 0;
    std::string last_record_;      // inserted last, empty after a restore
    std::uint64_t last_slot_ = 0;  // where it stands
    FileStamp entered_;            // the file after that
};

}  // namespace tarvo
