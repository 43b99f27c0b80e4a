// Files of fixed-size records: reading them in blocks, and appending to them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tarvo {

// Reads the records of a file in order, 64 KiB or more for each system call. The descriptor is
// borrowed; its file position is neither used nor moved. What other processes change in a block
// that is read already is not seen.
class RecordReader {
  public:
    RecordReader(int descriptor, std::size_t record_size, std::uint64_t first_record = 0);

    // Copies the next record to `record`. Returns the number of bytes copied: the record size;
    // fewer when the file ends with a fragment (the rest of `record` stays as it was); 0 at the
    // end; -1 when the file could not be read.
    [[nodiscard]] ssize_t next(void* record);

    // The number of the record that the coming call of next() looks at.
    [[nodiscard]] std::uint64_t position() const { return position_; }

  private:
    [[nodiscard]] bool fill();

    int descriptor_;
    std::size_t record_size_;
    std::size_t block_size_;
    std::unique_ptr<char[]> block_;
    std::size_t filled_ = 0;  // bytes in the block
    std::size_t used_ = 0;    // of these handed out
    std::uint64_t position_;
};

// Writes a whole record at `offset`, so that the file ends with it, or nothing. The room is
// reserved first, so that the file grows in one step: whoever is killed in between leaves zeros, a
// blank record, and never a fragment. When a step fails the file is cut back to its old length.
// The caller holds the lock that keeps other writers away.
[[nodiscard]] bool append_record(int descriptor, const void* record, std::size_t size,
                                 off_t offset);

}  // namespace tarvo
