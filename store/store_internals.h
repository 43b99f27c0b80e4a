// Private to store/: what a LocalStore keeps behind its published fields, and what its source
// files share.
#pragma once

#include "store/file_stamp.h"
#include "store/level_index.h"
#include "store/local_store.h"

struct LocalStore::Internals {
    // Of the study hash file when studyHash was known to be its contents.
    tarvo::FileStamp hash_stamp;
    tarvo::LevelIndex series_index{sizeof(tarvo::SeriesRecord)};
    tarvo::LevelIndex image_index{sizeof(tarvo::ImageRecord)};
};

namespace tarvo {

// Whether a UID (null: not asked for) can be part of a file name. One that holds '/' would name a
// file elsewhere.
[[nodiscard]] bool can_name_file(const char* uid);

// mkdir that counts anything which is there already as made.
[[nodiscard]] bool make_directory(const OFString& path);

// STUDYINDEX.hash and STUDYINDEX.dat.
[[nodiscard]] OFString study_hash_path(const LocalStore& store);
[[nodiscard]] OFString study_data_path(const LocalStore& store);

// Where entry and record of a study stand in them.
inline off_t entry_offset(std::size_t number) {
    return static_cast<off_t>(number * sizeof(studyhash));
}
inline off_t record_offset(std::size_t number) {
    return static_cast<off_t>(number * sizeof(studydata));
}

}  // namespace tarvo
