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
    [[nodiscard]] bool wait_for_file(int descriptor, const std::string& path);

    // True when the disk has the entries of the directory, also when the directory is gone.
    [[nodiscard]] bool wait_for_directory(const std::string& path);

  private:
    void remember(const std::string& path, const FileStamp& stamp);

    bool waits_;
    std::unordered_map<std::string, FileStamp> known_;  // as they were when the last wait began
};

// Whether the environment leaves waiting on: TARVO_SYNC=off switches it off for bulk loads.
[[nodiscard]] bool waiting_is_wanted();

}  // namespace tarvo
