// File helpers shared by the store and the AE title map: directories, temporary files, whole-file
// locks, and writes and reads that carry on after short results.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// mkdir(2): 0, or -1 with errno set. The callers pass 0777 and count EEXIST as success.
[[nodiscard]] int TVCompat_mkdir(const char* path, unsigned mode);

// Makes a new file "/tmp/<prefix>XXXXXX" and leaves its name in `name` (`size` bytes).
// Returns an open descriptor owned by the caller, or -1.
[[nodiscard]] int TVCompat_mkstemp(char* name, std::size_t size, const char* prefix);

// Sets an fcntl lock on the whole file, waiting for it. Kinds: 0 shared, 1 exclusive, 2 unlock.
// The lock belongs to the process and the file: closing ANY descriptor of the file drops it, a
// child does not inherit it. Returns 0, or -1 with errno set (EDEADLK when the wait would never
// end).
[[nodiscard]] int TVCompat_LockWholeFile(int descriptor, std::int16_t kind);

// Writes `length` bytes, carrying on after short writes and interrupted calls. Returns 0 at once
// for a length of 0, the total when all is written or write returned 0 (then less than `length`),
// and -1 when write failed.
ssize_t writeAll(int descriptor, const void* buffer, std::size_t length);

namespace tarvo {

// Takes the lock on the whole file (kinds as above) if that needs no waiting.
[[nodiscard]] bool try_lock_whole_file(int descriptor, std::int16_t kind);

// Whether another process holds a lock on the file, of either kind; also when that is unknown.
[[nodiscard]] bool is_locked_by_another(int descriptor);

// True when all `length` bytes were written at `offset`; the file position stays as it is.
[[nodiscard]] bool write_at(int descriptor, const void* buffer, std::size_t length, off_t offset);

// Reads up to `length` bytes at `offset`, carrying on after short reads until the end of the
// file. Returns the number of bytes read, or -1.
[[nodiscard]] ssize_t read_at(int descriptor, void* buffer, std::size_t length, off_t offset);

// The size of an open file in bytes, or -1.
[[nodiscard]] off_t file_size(int descriptor);

// Opens /dev/null over every missing descriptor of 0, 1 and 2, so that no listener or index file
// ever gets a number that some library writes messages to.
void fill_standard_descriptors();

}  // namespace tarvo
