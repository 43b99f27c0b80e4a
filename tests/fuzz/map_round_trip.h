// What the AE title map file must keep, for the targets that write one.
#pragma once

#include <sys/mman.h>

#include "monitor/aetitle_map.h"
#include "support/file_helpers.h"
#include "support/unique_fd.h"
#include "tests/fuzz/fuzz.h"

namespace tarvo::fuzz {

// Saves the map, requires that it reads back equal, and returns the text of the file. `keeps` says
// from that text whether the file can keep the map.
template <typename Keeps>
void check_round_trip(const AETitleMap& map, int file, Keeps keeps) {
    require(AETitleMap_Save_fd(map, file) == 0, "any map can be saved");
    std::string saved(static_cast<std::size_t>(file_size(file)), '\0');
    require(read_at(file, saved.data(), saved.size(), 0) == static_cast<ssize_t>(saved.size()),
            "the file is read to its end");
    AETitleMap again;
    require(AETitleMap_Load_fd(again, file) == 0, "a saved map can be loaded");
    if (!keeps(saved)) return;
    const AETitleMapEntry* right = again.first.get();
    for (const auto* left = map.first.get(); left; left = left->next.get()) {
        require(right != nullptr && left->name == right->name && left->aetitle == right->aetitle &&
                    left->address == right->address && left->flags == right->flags &&
                    left->comment == right->comment,
                "a saved map reads back equal");
        right = right->next.get();
    }
    require(right == nullptr, "nothing is added to a saved map");
}

}  // namespace tarvo::fuzz
