#include "store/disk_sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "support/held_signals.h"
#include "support/unique_fd.h"

namespace tarvo {

namespace {

// More than one image ever needs; a worker that goes through thousands of series starts afresh.
constexpr std::size_t most_known = 256;

UniqueFd open_directory(const std::string& path) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Some network file systems know no such thing for directories: there is nothing to wait for.
bool sync_open_directory(int descriptor) {
    const ReleasedSignals mortal;
    return ::fsync(descriptor) == 0 || errno == EINVAL || errno == ENOTSUP;
}

// A delete that came behind has taken it away: there is nothing left to wait for.
bool is_gone() { return errno == ENOENT; }

}  // namespace

bool sync_directory(const std::string& path) {
    const UniqueFd directory = open_directory(path);
    return directory && sync_open_directory(directory.get());
}

void DiskSync::start(int descriptor) const {
    // A hint: what it does not start, the wait will.
    if (waits_) static_cast<void>(::sync_file_range(descriptor, 0, 0, SYNC_FILE_RANGE_WRITE) == 0);
}

bool DiskSync::wait_for_file(int descriptor, const std::string& path, const FileStamp& seen) {
    if (!waits_) return true;
    const auto known = known_.find(path);
    if (known != known_.end() && known->second.proves_unchanged(descriptor)) return true;
    const ReleasedSignals mortal;
    if (::fdatasync(descriptor) != 0) return false;
    remember(path, seen);
    return true;
}

// The stamp is taken before the wait: what changes meanwhile counts as changed afterwards.
bool DiskSync::wait_for_directory(const std::string& path) {
    if (!waits_) return true;
    const auto known = known_.find(path);
    if (known != known_.end() && known->second.proves_unchanged(path.c_str())) return true;
    const UniqueFd directory = open_directory(path);
    if (!directory) return is_gone();
    FileStamp stamp;
    stamp.take(directory.get());
    if (!sync_open_directory(directory.get())) return false;
    remember(path, stamp);
    return true;
}

bool DiskSync::wait_once_for_directory(const std::string& path) {
    return known_.count(path) != 0 || wait_for_directory(path) || errno == EACCES;
}

bool DiskSync::wait_for_contents(const std::string& path) const {
    if (!waits_) return true;
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return is_gone();
    const ReleasedSignals mortal;
    return ::fsync(file.get()) == 0;
}

void DiskSync::remember(const std::string& path, const FileStamp& stamp) {
    if (known_.size() >= most_known) known_.clear();
    known_[path] = stamp;
}

bool waiting_is_wanted() {
    const char* const wish = std::getenv("TARVO_SYNC");
    return wish == nullptr || std::string_view(wish) != "off";
}

}  // namespace tarvo
