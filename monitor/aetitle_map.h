// The AE title map: the DICOM peers that this server knows, and the text file that keeps them.
//
// File "AETitleMap": one entry a line, lines end at LF or CR, empty lines count for nothing.
//   name TAB aetitle TAB address TAB flag letters [TAB comment] LF
// Fields are written by parse_string_makeescaped and read by parse_getstring, so any white space
// separates them and a quoted field may hold blanks. A line of fewer than four fields is skipped.
// The first four fields hold at most 127 characters; a line holds 1023, and what stands behind
// them is read as a line of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct AETitleMapEntry {
    std::unique_ptr<AETitleMapEntry> next;
    std::string name;     // unique key: a learned peer's host name
    std::string aetitle;  // may stand in several entries
    std::string address;  // presentation address, host:port
    std::uint32_t flags = 0;
    std::optional<std::string> comment;  // never empty
};

// A singly linked list in the order of insertion. Entries stay where they are until they are
// deleted, but whoever needs a text for longer keeps a copy.
struct AETitleMap {
    std::unique_ptr<AETitleMapEntry> first;

    AETitleMap() = default;
    AETitleMap(const AETitleMap&) = delete;
    AETitleMap& operator=(const AETitleMap&) = delete;
    AETitleMap(AETitleMap&&) = delete;
    AETitleMap& operator=(AETitleMap&&) = delete;
    ~AETitleMap();
};

namespace tarvo {

// Name of the server's own entry.
inline constexpr char own_entry_name[] = "Local";

}  // namespace tarvo

// The map of this process; workers have a copy from the fork.
extern AETitleMap aetitle_map;

// Make the map empty.
void AETitleMap_Create(AETitleMap& map);
void AETitleMap_Destroy(AETitleMap& map);

// Adds an entry at the end. `comment` may be null; an empty one counts as none.
// Returns 0, -1 out of memory, -2 when the name is taken (the AE title may well be known).
[[nodiscard]] int AETitleMap_Add(AETitleMap& map, std::string_view name, std::string_view aetitle,
                                 std::string_view address, std::uint32_t flags,
                                 const char* comment);

// Unlinks and frees an entry. Returns 0, or -1 when it is not in this map.
int AETitleMap_Del(AETitleMap& map, const AETitleMapEntry* entry);

// The first entry that fits exactly (index from 0; case counts), or null. The map keeps it.
const AETitleMapEntry* AETitleMap_FindByNum(const AETitleMap& map, std::size_t index);
const AETitleMapEntry* AETitleMap_FindByName(const AETitleMap& map, std::string_view name);
const AETitleMapEntry* AETitleMap_FindByAET(const AETitleMap& map, std::string_view aetitle);

// Flag letters: F 0x001, M 0x002, S 0x004, G 0x008, U 0x010, E 0x020, D 0x100, P 0x200.
// Letters are written as capitals in that order, into a buffer that the next call overwrites;
// they are read in either case, and any other character is skipped.
const char* AETitleMap_flagstochars(std::uint32_t flags);
std::uint32_t AETitleMap_charstoflags(std::string_view letters);

// Opens a map file as open(2) does; close-on-exec. Without a path (null), the first AETitleMap
// along the configuration search path that may be read, written or both as `flags` ask: none is
// made there. Returns a descriptor of the caller, or -1.
[[nodiscard]] int AETitleMap_Open(const char* path, int flags, unsigned mode);

// Adds the entries of a file to the map; of several with one name the first counts. Waits for a
// shared lock. Returns 0, or 1 when the descriptor is -1 or the file cannot be read to its end:
// saving the map would then drop what was not read.
[[nodiscard]] int AETitleMap_Load_fd(AETitleMap& map, int descriptor);
[[nodiscard]] int AETitleMap_Load(AETitleMap& map, const char* path);

// Rewrites the whole file from the map under an exclusive lock. Returns 0, or -1; a file that
// could not be written completely is not shortened.
[[nodiscard]] int AETitleMap_Save_fd(const AETitleMap& map, int descriptor);
[[nodiscard]] int AETitleMap_Save(const AETitleMap& map, const char* path);

namespace tarvo {

// Whether an entry without comment would come back from the file as it is. Texts that are too
// long do not, nor those with an apostrophe that nothing makes the writer quote.
[[nodiscard]] bool reads_back_from_map_file(const AETitleMapEntry& entry);

}  // namespace tarvo
