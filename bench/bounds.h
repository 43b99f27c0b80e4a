// What the machine itself can do: the bounds that no server goes beyond.
#pragma once

#include <cstddef>
#include <string>

namespace bench {

// Prints the seconds that `count` times `size` bytes take: sent to another process over TCP,
// written to files in `folder`, and written with waiting for the disk; and those of `count` forks.
void bounds(const std::string& folder, std::size_t size, int count);

}  // namespace bench
