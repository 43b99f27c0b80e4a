#include "store/level_index.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>

#include "store/record_file.h"
#include "support/file_helpers.h"
#include "support/text_field.h"
#include "support/whole_file_lock.h"

namespace tarvo {

namespace {

#define TARVO_FIELD(record, member, group, element) \
    { group, element, offsetof(record, member), sizeof(record::member) }

constexpr IndexField series_table[] = {
    TARVO_FIELD(SeriesRecord, series_uid, 0x0020, 0x000E),
    TARVO_FIELD(SeriesRecord, study_uid, 0x0020, 0x000D),
    TARVO_FIELD(SeriesRecord, description, 0x0008, 0x103E),
    TARVO_FIELD(SeriesRecord, protocol_name, 0x0018, 0x1030),
    TARVO_FIELD(SeriesRecord, series_date, 0x0008, 0x0021),
    TARVO_FIELD(SeriesRecord, series_time, 0x0008, 0x0031),
    TARVO_FIELD(SeriesRecord, series_number, 0x0020, 0x0011),
    TARVO_FIELD(SeriesRecord, body_part, 0x0018, 0x0015),
    TARVO_FIELD(SeriesRecord, patient_position, 0x0018, 0x5100),
    TARVO_FIELD(SeriesRecord, modality, 0x0008, 0x0060),
};

constexpr IndexField image_table[] = {
    TARVO_FIELD(ImageRecord, sop_uid, 0x0008, 0x0018),
    TARVO_FIELD(ImageRecord, series_uid, 0x0020, 0x000E),
    TARVO_FIELD(ImageRecord, study_uid, 0x0020, 0x000D),
    TARVO_FIELD(ImageRecord, image_type, 0x0008, 0x0008),
    TARVO_FIELD(ImageRecord, comments, 0x0020, 0x4000),
    TARVO_FIELD(ImageRecord, patient_orientation, 0x0020, 0x0020),
    TARVO_FIELD(ImageRecord, slice_location, 0x0020, 0x1041),
    TARVO_FIELD(ImageRecord, image_position, 0x0020, 0x0032),
    TARVO_FIELD(ImageRecord, image_orientation, 0x0020, 0x0037),
    TARVO_FIELD(ImageRecord, acquisition_number, 0x0020, 0x0012),
    TARVO_FIELD(ImageRecord, instance_number, 0x0020, 0x0013),
    TARVO_FIELD(ImageRecord, acquisition_images, 0x0020, 0x1002),
    TARVO_FIELD(ImageRecord, acquisition_date, 0x0008, 0x0022),
    TARVO_FIELD(ImageRecord, acquisition_time, 0x0008, 0x0032),
};

#undef TARVO_FIELD

// How often a file may be replaced between opening and locking it before we give up.
constexpr int most_reopens = 16;

constexpr std::size_t key_width = 64;

std::string key_of(const void* record) {
    return std::string(field_text(static_cast<const char*>(record), key_width));
}

}  // namespace

constinit const std::span<const IndexField> series_fields = series_table;
constinit const std::span<const IndexField> image_fields = image_table;

void fill_record(void* record, std::span<const IndexField> fields, const AttributeTexts& texts) {
    for (const IndexField& field : fields) {
        const char* const value = texts[{field.group, field.element}];
        if (value != nullptr) {
            set_field(static_cast<char*>(record) + field.offset, field.width, value);
        }
    }
}

bool is_at_path(const struct stat& opened, const std::string& path) {
    struct stat named {};
    return ::stat(path.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

bool is_at_path(int descriptor, const std::string& path) {
    struct stat opened {};
    return ::fstat(descriptor, &opened) == 0 && is_at_path(opened, path);
}

bool is_there(const char* path) {
    struct stat status {};
    return ::lstat(path, &status) == 0;
}

bool LevelIndex::is_prepared(const std::string& path) const {
    return file_ && path == path_ && is_at_path(file_.get(), path);
}

bool LevelIndex::prepare(const std::string& path) {
    if (is_prepared(path)) return true;
    close();  // another file, or a delete has taken it away
    return open(path);
}

Inserted LevelIndex::enter(const std::string& path, const Entry& entry) {
    for (int attempt = 0; attempt < most_reopens; ++attempt) {
        if (!open(path)) return Inserted::not_opened;
        const std::optional<Inserted> result = enter_locked(entry);
        if (result == Inserted::done || result == Inserted::unneeded) return *result;
        close();  // nothing that we remember of this file can be relied on
        if (result) return *result;
    }
    return Inserted::failed;
}

bool LevelIndex::open(const std::string& path) {
    if (file_ && path == path_) return true;
    close();
    file_.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0664));
    path_ = path;
    return static_cast<bool>(file_);
}

void LevelIndex::close() {
    file_.reset();
    last_record_.clear();
    entered_.forget();
    forget_records();
}

std::optional<Inserted> LevelIndex::enter_locked(const Entry& entry) {
    // Exclusive before the search: two writers that both search under a shared lock would both
    // append behind the same last record.
    const WholeFileLock lock(file_.get(), LockKind::exclusive);
    if (!lock.held()) return Inserted::failed;
    struct stat before {};
    if (::fstat(file_.get(), &before) != 0 || !is_at_path(before, path_)) return std::nullopt;
    if (entry.reason != nullptr && !is_there(entry.reason)) return Inserted::unneeded;
    const std::uint64_t written = writes_;
    size_ = before.st_size;
    if (!insert_or_replace(entry)) return Inserted::failed;
    last_record_.clear();
    if (entry.replaces) last_record_.assign(static_cast<const char*>(entry.record), record_size_);
    if (writes_ == written) {
        entered_.take(before);
    } else {
        entered_.take(file_.get());
    }
    return Inserted::done;
}

bool LevelIndex::stands(const std::string& path, const void* record) const {
    return path == path_ && last_record_.size() == record_size_ &&
           std::memcmp(last_record_.data(), record, record_size_) == 0 &&
           entered_.proves_unchanged(path.c_str());
}

// Whoever has the lock now took it behind our insert, hence knows the record, and may be about to
// blank it. Asked first: what such a one has done by then is seen in the record.
bool LevelIndex::still_holds_last(const std::string& path) const {
    if (path != path_ || last_record_.size() != record_size_) return false;
    if (is_locked_by_another(file_.get()) || !is_at_path(file_.get(), path)) return false;
    char key[key_width];
    const auto place = static_cast<off_t>(last_slot_ * record_size_);
    return read_at(file_.get(), key, key_width, place) == key_width &&
           field_text(key, key_width) == key_of(last_record_.data());
}

bool LevelIndex::insert_or_replace(const Entry& entry) {
    const std::string key = key_of(entry.record);
    Slot slot;
    switch (find(key, slot)) {
        case Lookup::failed:
            return false;
        case Lookup::found:
            last_slot_ = slot.number;
            return !entry.replaces || replace(slot, entry.record);
        default:
            return (!entry.first || entry.first()) && append(key, entry.record);
    }
}

bool LevelIndex::replace(const Slot& slot, const void* record) {
    if (std::memcmp(slot.content.data(), record, record_size_) == 0) return true;
    ++writes_;
    return write_at(file_.get(), record, record_size_,
                    static_cast<off_t>(slot.number * record_size_));
}

bool LevelIndex::append(const std::string& key, const void* record) {
    const auto end = static_cast<off_t>(known_records_ * record_size_);
    ++writes_;
    if (!append_record(file_.get(), record, record_size_, end)) return false;
    last_slot_ = known_records_++;
    first_record_.try_emplace(key, last_slot_);
    return true;
}

// A second look-up starts from an empty table, hence reads the whole file. Still stale after that
// means that somebody has just blanked the record without the lock: it is gone.
LevelIndex::Lookup LevelIndex::find(const std::string& key, Slot& slot) {
    // Blank slots come and go without a trace in the table, and only an empty key meets them.
    if (key.empty()) forget_records();
    const Lookup first = look_up(key, slot);
    if (first != Lookup::stale) return first;
    forget_records();
    return look_up(key, slot);
}

LevelIndex::Lookup LevelIndex::look_up(const std::string& key, Slot& slot) {
    if (!catch_up()) return Lookup::failed;
    const auto entry = first_record_.find(key);
    if (entry == first_record_.end()) return Lookup::absent;
    slot.number = entry->second;
    slot.content.assign(record_size_, '\0');
    const ssize_t got = read_at(file_.get(), slot.content.data(), record_size_,
                                static_cast<off_t>(slot.number * record_size_));
    if (got < 0) return Lookup::failed;
    return key_of(slot.content.data()) == key ? Lookup::found : Lookup::stale;
}

// Takes the records that the table does not know yet from the end of the file.
bool LevelIndex::catch_up() {
    const std::uint64_t records = static_cast<std::uint64_t>(size_) / record_size_;
    if (records < known_records_) forget_records();
    if (records == known_records_) return true;
    RecordReader reader(file_.get(), record_size_, known_records_);
    std::string record(record_size_, '\0');
    while (known_records_ < records) {
        if (reader.next(record.data()) != static_cast<ssize_t>(record_size_)) return false;
        first_record_.try_emplace(key_of(record.data()), known_records_++);
    }
    return true;
}

void LevelIndex::forget_records() {
    first_record_.clear();
    known_records_ = 0;
}

}  // namespace tarvo
