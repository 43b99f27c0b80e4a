#include "monitor/aetitle_map.h"

#include <cctype>
#include <new>

namespace {

struct Flag {
    char letter;
    std::uint32_t bit;
};

constexpr Flag flag_table[] = {
    {'F', 0x001}, {'M', 0x002}, {'S', 0x004}, {'G', 0x008},
    {'U', 0x010}, {'E', 0x020}, {'D', 0x100}, {'P', 0x200},
};

template <typename Predicate>
const AETitleMapEntry* find_first(const AETitleMap& map, Predicate fits) {
    const AETitleMapEntry* entry = map.first.get();
    while (entry != nullptr && !fits(*entry)) entry = entry->next.get();
    return entry;
}

}  // namespace

AETitleMap::~AETitleMap() { AETitleMap_Destroy(*this); }

void AETitleMap_Create(AETitleMap& map) { AETitleMap_Destroy(map); }

void AETitleMap_Destroy(AETitleMap& map) {
    // One by one: entries that free their successors would recurse as deep as the map is long.
    while (map.first) map.first = std::move(map.first->next);
}

int AETitleMap_Add(AETitleMap& map, std::string_view name, std::string_view aetitle,
                   std::string_view address, std::uint32_t flags, const char* comment) {
    std::unique_ptr<AETitleMapEntry>* end = &map.first;
    for (; *end; end = &(*end)->next) {
        if ((*end)->name == name) return -2;
    }
    try {
        auto entry = std::make_unique<AETitleMapEntry>();
        entry->name = name;
        entry->aetitle = aetitle;
        entry->address = address;
        entry->flags = flags;
        if (comment != nullptr && *comment != '\0') entry->comment = comment;
        *end = std::move(entry);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 0;
}

int AETitleMap_Del(AETitleMap& map, const AETitleMapEntry* entry) {
    for (auto* link = &map.first; *link; link = &(*link)->next) {
        if (link->get() != entry) continue;
        *link = std::move((*link)->next);
        return 0;
    }
    return -1;
}

const AETitleMapEntry* AETitleMap_FindByNum(const AETitleMap& map, std::size_t index) {
    return find_first(map, [&](const AETitleMapEntry&) { return index-- == 0; });
}

const AETitleMapEntry* AETitleMap_FindByName(const AETitleMap& map, std::string_view name) {
    return find_first(map, [&](const AETitleMapEntry& entry) { return entry.name == name; });
}

const AETitleMapEntry* AETitleMap_FindByAET(const AETitleMap& map, std::string_view aetitle) {
    return find_first(map, [&](const AETitleMapEntry& entry) { return entry.aetitle == aetitle; });
}

const char* AETitleMap_flagstochars(std::uint32_t flags) {
    static char letters[std::size(flag_table) + 1];
    char* end = letters;
    for (const Flag& flag : flag_table) {
        if ((flags & flag.bit) != 0) *end++ = flag.letter;
    }
    *end = '\0';
    return letters;
}

std::uint32_t AETitleMap_charstoflags(std::string_view letters) {
    std::uint32_t flags = 0;
    for (const char letter : letters) {
        const int capital = std::toupper(static_cast<unsigned char>(letter));
        for (const Flag& flag : flag_table) {
            if (capital == flag.letter) flags |= flag.bit;
        }
    }
    return flags;
}
