#include "store/record_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/file_helpers.h"

namespace tarvo {

namespace {

constexpr std::size_t smallest_block = 65536;

// posix_fallocate returns the error, and tells of an interrupted call like write.
bool reserve(int descriptor, off_t offset, std::size_t size) {
    int error = EINTR;
    while (error == EINTR) error = ::posix_fallocate(descriptor, offset, static_cast<off_t>(size));
    return error == 0;
}

}  // namespace

RecordReader::RecordReader(int descriptor, std::size_t record_size, std::uint64_t first_record)
    : descriptor_(descriptor),
      record_size_(record_size),
      block_size_((smallest_block + record_size - 1) / record_size * record_size),
      block_(std::make_unique_for_overwrite<char[]>(block_size_)),
      position_(first_record) {}

ssize_t RecordReader::next(void* record) {
    if (used_ == filled_ && !fill()) return -1;
    const std::size_t length = std::min(record_size_, filled_ - used_);
    if (length == 0) return 0;
    std::memcpy(record, block_.get() + used_, length);
    used_ += length;
    ++position_;
    return static_cast<ssize_t>(length);
}

bool RecordReader::fill() {
    const ssize_t got = read_at(descriptor_, block_.get(), block_size_,
                                static_cast<off_t>(position_ * record_size_));
    if (got < 0) return false;
    filled_ = static_cast<std::size_t>(got);
    used_ = 0;
    return true;
}

bool append_record(int descriptor, const void* record, std::size_t size, off_t offset) {
    const off_t length = file_size(descriptor);
    if (length < 0) return false;
    if (reserve(descriptor, offset, size) && write_at(descriptor, record, size, offset)) {
        return true;
    }
    // Should even this fail there is nothing left to do: the caller reports the failed write.
    static_cast<void>(::ftruncate(descriptor, length) == 0);
    return false;
}

}  // namespace tarvo
