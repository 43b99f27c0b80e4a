#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "monitor/aetitle_map.h"
#include "support/file_helpers.h"
#include "support/parse_string.h"
#include "support/paths.h"
#include "support/unique_fd.h"
#include "support/whole_file_lock.h"

namespace {

constexpr std::size_t longest_line = 1023;

struct MapLine {
    char name[128], aetitle[128], address[128], letters[128];
    char comment[longest_line + 1];  // empty: none
};

// Splits a line into its fields. Returns false when one of the first four is missing.
bool split_line(const char* line, MapLine& fields) {
    if (parse_getstring(line, fields.name, sizeof fields.name) != 0 ||
        parse_getstring(line, fields.aetitle, sizeof fields.aetitle) != 0 ||
        parse_getstring(line, fields.address, sizeof fields.address) != 0 ||
        parse_getstring(line, fields.letters, sizeof fields.letters) != 0) {
        return false;
    }
    if (parse_getstring(line, fields.comment, sizeof fields.comment) != 0) {
        fields.comment[0] = '\0';
    }
    return true;
}

// Adds the entry of a line, if it holds one, and empties the line.
void finish_line(AETitleMap& map, std::string& line) {
    MapLine fields;
    if (split_line(line.c_str(), fields)) {
        // A name that is taken: the first line with it counts.
        static_cast<void>(AETitleMap_Add(map, fields.name, fields.aetitle, fields.address,
                                         AETitleMap_charstoflags(fields.letters), fields.comment));
    }
    line.clear();
}

// Takes one block of the file; `line` carries the unfinished line from block to block.
void take_block(AETitleMap& map, std::string& line, std::string_view block) {
    for (const char character : block) {
        const bool ends = character == '\n' || character == '\r';
        if (!ends) line += character;
        if (ends || line.size() == longest_line) finish_line(map, line);
    }
}

std::string make_line(const AETitleMapEntry& entry) {
    const char* const letters = AETitleMap_flagstochars(entry.flags);
    std::string line = parse_string_makeescaped(entry.name, false);
    line += '\t' + parse_string_makeescaped(entry.aetitle, false);
    line += '\t' + parse_string_makeescaped(entry.address, false);
    line += '\t' + parse_string_makeescaped(letters, false);
    if (entry.comment) line += '\t' + parse_string_makeescaped(*entry.comment, false);
    return line;
}

std::string make_file(const AETitleMap& map) {
    std::string text;
    for (const AETitleMapEntry* entry = map.first.get(); entry; entry = entry->next.get()) {
        text += make_line(*entry) + '\n';
    }
    return text;
}

// Takes the space for the new text beforehand: a full disk is noticed while the old text is whole.
bool reserve_space(int descriptor, std::size_t size) {
    return ::fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size)) == 0 ||
           (errno != ENOSPC && errno != EDQUOT);
}

bool replace_content(int descriptor, const std::string& text) {
    return reserve_space(descriptor, text.size()) &&
           tarvo::write_at(descriptor, text.data(), text.size(), 0) &&
           ::ftruncate(descriptor, static_cast<off_t>(text.size())) == 0;
}

int access_mode(int open_flags) {
    switch (open_flags & O_ACCMODE) {
        case O_RDONLY:
            return R_OK;
        case O_WRONLY:
            return W_OK;
        default:
            return R_OK | W_OK;
    }
}

}  // namespace

int AETitleMap_Open(const char* path, int flags, unsigned mode) {
    char found[1024];
    if (path == nullptr) {
        path = getfilepath(tarvo::configuration_search_path, "AETitleMap", access_mode(flags),
                           found, sizeof found);
    }
    return path != nullptr ? ::open(path, flags | O_CLOEXEC, mode) : -1;
}

int AETitleMap_Load_fd(AETitleMap& map, int descriptor) {
    if (descriptor == -1) return 1;
    // Without the lock (some network file systems have none) the file is read all the same: to
    // know no peer at all would be worse than to meet a writer once.
    const tarvo::WholeFileLock lock(descriptor, tarvo::LockKind::shared);
    std::string line;
    char block[16384];
    off_t offset = 0;
    ssize_t got = 0;
    while ((got = tarvo::read_at(descriptor, block, sizeof block, offset)) > 0) {
        take_block(map, line, {block, static_cast<std::size_t>(got)});
        offset += got;
    }
    finish_line(map, line);
    return got == 0 ? 0 : 1;
}

int AETitleMap_Load(AETitleMap& map, const char* path) {
    const tarvo::UniqueFd file(AETitleMap_Open(path, O_RDONLY, 0));
    return AETitleMap_Load_fd(map, file.get());
}

int AETitleMap_Save_fd(const AETitleMap& map, int descriptor) {
    const tarvo::WholeFileLock lock(descriptor, tarvo::LockKind::exclusive);
    if (!lock.held()) return -1;
    try {
        return replace_content(descriptor, make_file(map)) ? 0 : -1;
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int AETitleMap_Save(const AETitleMap& map, const char* path) {
    const tarvo::UniqueFd file(AETitleMap_Open(path, O_WRONLY | O_CREAT, 0666));
    return file ? AETitleMap_Save_fd(map, file.get()) : -1;
}

namespace tarvo {

bool reads_back_from_map_file(const AETitleMapEntry& entry) {
    const std::string line = make_line(entry);
    MapLine fields;
    return line.size() <= longest_line && split_line(line.c_str(), fields) &&
           fields.name == entry.name && fields.aetitle == entry.aetitle &&
           fields.address == entry.address &&
           AETitleMap_charstoflags(fields.letters) == entry.flags && fields.comment[0] == '\0';
}

}  // namespace tarvo
