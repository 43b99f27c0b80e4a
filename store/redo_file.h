// Private to store/: removing deleted studies from the two study files, so that a crash at any
// point loses nothing.
//
// What the files shall hold from the first deleted study on is written to a redo file first. Only
// when that is complete on the disk does it get its name, and only then are the two files changed
// from it. It goes when the disk has both. Whoever takes the lock and finds it does the changing
// again: it holds contents, not moves, so doing it twice does no harm. On a full disk there is no
// room for it: then the deleted studies stay where they are.
//
// This waits for the disk whatever TARVO_SYNC says: a redo file that came back after a power cut
// would undo every image stored since.
#pragma once

#include <cstdint>
#include <span>

#include "store/local_store.h"
#include "support/unique_fd.h"

namespace tarvo {

// STUDYINDEX.redo, there only while a compaction is under way.
[[nodiscard]] OFString redo_path(const LocalStore& store);

[[nodiscard]] inline bool is_deleted(const studyhash& entry) {
    return (entry.nameBits & study_deleted_mark) != 0;
}

// Writes what shall stand in the study files from entry `first` on: the living among `entries`, and
// their records out of `data` (closed: there are none). False when it cannot; nothing is left then.
// The caller holds the exclusive lock of the hash file.
[[nodiscard]] bool write_redo_file(const LocalStore& store, std::span<const studyhash> entries,
                                   std::uint32_t first, const UniqueFd& data);

// Completes a compaction that did not come to its end, or takes away what one left behind. Whoever
// takes the exclusive lock of the hash file (`hash`) calls it before anything else. False when the
// two study files cannot be relied on, hence must not be changed.
[[nodiscard]] bool finish_compaction(const LocalStore& store, int hash);

}  // namespace tarvo
