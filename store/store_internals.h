// Private to store/: what a LocalStore keeps behind its published fields, and what its source
// files share.
#pragma once

#include "store/disk_sync.h"
#include "store/file_stamp.h"
#include "store/level_index.h"
#include "store/local_store.h"
#include "support/unique_fd.h"

struct LocalStore::Internals {
    // Of the study hash file when studyHash was known to be its contents.
    tarvo::FileStamp hash_stamp;
    tarvo::LevelIndex series_index{sizeof(tarvo::SeriesRecord)};
    tarvo::LevelIndex image_index{sizeof(tarvo::ImageRecord)};
    // The study files that the last image was entered into, kept open until the disk has them.
    tarvo::UniqueFd hash_file;
    tarvo::UniqueFd data_file;
    // What the last image asked to have entered into them, and the files when it stood there.
    struct {
        studyhash entry;
        studydata record;
        tarvo::FileStamp hash;
        tarvo::FileStamp data;
    } last_study{};
    tarvo::DiskSync disk{tarvo::waiting_is_wanted()};
    // The series directory that was made or found last: its path need not be made step by step.
    OFString series_directory;
};

namespace tarvo {

// The directory that holds `path`.
[[nodiscard]] inline std::string directory_of(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

// Whether a UID (null: not asked for) can be part of a file name. One that holds '/' would name a
// file elsewhere; one of more than 64 bytes (PS3.5, VR UI) stands cut in its record, which then
// leads to no file. White space the toolkit takes out of a UID: only one that came under another VR
// still has it, and no query could name it.
[[nodiscard]] bool can_name_file(const char* uid);

// mkdir that counts anything which is there already as made.
[[nodiscard]] bool make_directory(const OFString& path);

// STUDYINDEX.hash and STUDYINDEX.dat.
[[nodiscard]] OFString study_hash_path(const LocalStore& store);
[[nodiscard]] OFString study_data_path(const LocalStore& store);

// How many entries a study hash file of this size holds.
inline std::uint32_t entries_in(off_t size) {
    return static_cast<std::uint32_t>(size / static_cast<off_t>(sizeof(studyhash)));
}

// Where entry and record of a study stand in them.
inline off_t entry_offset(std::size_t number) {
    return static_cast<off_t>(number * sizeof(studyhash));
}
inline off_t record_offset(std::size_t number) {
    return static_cast<off_t>(number * sizeof(studydata));
}

// Whether the record of an entry can be that of the study with this checksum. An entry whose
// writer was killed has room and no checksum yet.
inline bool may_be_study(const studyhash& entry, std::uint32_t crc) {
    return entry.uidCrc == crc || entry.uidCrc == 0;
}

}  // namespace tarvo
