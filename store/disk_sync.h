// Private to store/: waiting until the disk has what an image needs, so that Success means that
// the image outlives a power cut.
#pragma once

#include <string>
#include <unordered_map>

#include "store/file_stamp.h"

namespace tarvo {

// Opens a directory, waits until the disk has its entries, and closes it. False with errno set.
[[nodiscard]] bool sync_directory(const std::string& path);

// Waits for files and directories, each only when it has changed since this process last waited
// for it: by whomever, for an image may rest on a record or a directory that another worker has
// made and not waited for itself. Signals that are held back are let through meanwhile.
class DiskSync {
  public:
    // Without waiting every operation does nothing and succeeds.
    explicit DiskSync(bool waits) : waits_(waits) {}

    [[nodiscard]] bool waits() const { return waits_; }

    // Begins to write a file back, so that the later waits for several files run side by side.
    void start(int descriptor) const;

    // True when the disk has the contents of the open file `path` and what is needed to read them.
    // `seen`: the file as it was under its lock, when what the image needs stood in it. One taken
    // here might belong to a write that has moved the file's times and not yet its bytes.
    [[nodiscard]] bool wait_for_file(int descriptor, const std::string& path,
                                     const FileStamp& seen);

    // True when the disk has the entries of the directory, also when the directory is gone.
    [[nodiscard]] bool wait_for_directory(const std::string& path);

    // The same for a directory that is not ours, of which one entry matters that never changes:
    // once in the life of the process. One that may not be read counts as waited for.
    [[nodiscard]] bool wait_once_for_directory(const std::string& path);

    // True when the disk has the contents of a file that was not written by this process.
    [[nodiscard]] bool wait_for_contents(const std::string& path) const;

  private:
    void remember(const std::string& path, const FileStamp& stamp);

    bool waits_;
    std::unordered_map<std::string, FileStamp> known_;  // as they were when the last wait began
};

// Whether the environment leaves waiting on: TARVO_SYNC=off switches it off for bulk loads.
[[nodiscard]] bool waiting_is_wanted();

}  // namespace tarvo
