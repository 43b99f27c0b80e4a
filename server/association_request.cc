#include "server/association_request.h"

#include <optional>
#include <string_view>

namespace tarvo {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t fixed_length = 74;     // everything before the first item
constexpr std::size_t protocol_version = 1;  // a bit
constexpr std::size_t item_header = 4;
constexpr std::size_t context_head = 4;  // context id and three reserved bytes
constexpr unsigned most_contexts = 128;
constexpr std::size_t longest_uid = 64;  // the toolkit takes no longer name either

// Item types.
constexpr std::uint8_t application_context = 0x10;
constexpr std::uint8_t presentation_context = 0x20;
constexpr std::uint8_t context_answer = 0x21;  // which the toolkit also reads in a request
constexpr std::uint8_t abstract_syntax = 0x30;
constexpr std::uint8_t transfer_syntax = 0x40;
constexpr std::uint8_t user_information = 0x50;
constexpr std::uint8_t maximum_length = 0x51;
constexpr std::uint8_t implementation_class = 0x52;
constexpr std::uint8_t asynchronous_window = 0x53;
constexpr std::uint8_t role_selection = 0x54;
constexpr std::uint8_t implementation_version = 0x55;
constexpr std::uint8_t extended_negotiation = 0x56;
constexpr std::uint8_t user_identity = 0x58;
constexpr std::uint8_t identity_answer = 0x59;  // which the toolkit reads like the one above
constexpr std::uint8_t name_and_passcode = 2;   // type of a user identity

std::size_t number16(Bytes bytes, std::size_t at) {
    return static_cast<std::size_t>(bytes[at]) << 8 | bytes[at + 1];
}

struct Item {
    std::uint8_t type;
    Bytes content;
};

// Takes the first item off `rest`; nothing when it does not fit in there.
std::optional<Item> take_item(Bytes& rest) {
    if (rest.size() < item_header) return std::nullopt;
    const std::size_t length = number16(rest, 2);
    if (length > rest.size() - item_header) return std::nullopt;
    const Item item{rest[0], rest.subspan(item_header, length)};
    rest = rest.subspan(item_header + length);
    return item;
}

// A 16-bit length at `at`, and as many bytes and `behind` more behind it.
bool holds_text(Bytes content, std::size_t at, std::size_t behind) {
    return content.size() >= at + 2 && number16(content, at) + behind <= content.size() - at - 2;
}

// Only a name and passcode have a second field. The toolkit goes on with the next item where it
// expects the end of this one, so that nothing may stand in between.
bool is_user_identity(Bytes content) {
    if (content.size() < 6 || !holds_text(content, 2, 2)) return false;
    const std::size_t second = 4 + number16(content, 2);
    const std::size_t length = number16(content, second);
    if (length != 0 && content[0] != name_and_passcode) return false;
    return content.size() == second + 2 + length;
}

bool is_sound_user_item(const Item& item) {
    switch (item.type) {
        case maximum_length:
            return item.content.size() >= 4;
        case implementation_class:
        case implementation_version:
            return item.content.size() <= longest_uid;
        case role_selection:
            return holds_text(item.content, 0, 2);
        case extended_negotiation:
            return holds_text(item.content, 0, 0);
        case user_identity:
        case identity_answer:
            return is_user_identity(item.content);
        default:
            return true;
    }
}

bool is_single(std::uint8_t user_item) {
    switch (user_item) {
        case maximum_length:
        case implementation_class:
        case asynchronous_window:
        case implementation_version:
        case user_identity:
            return true;
        default:
            return false;
    }
}

bool is_user_information(Bytes rest) {
    bool seen[256] = {};
    while (!rest.empty()) {
        const std::optional<Item> item = take_item(rest);
        if (!item || !is_sound_user_item(*item)) return false;
        const std::uint8_t type = item->type == identity_answer ? user_identity : item->type;
        if (is_single(type) && seen[type]) return false;
        seen[type] = true;
    }
    return true;
}

bool is_presentation_context(Bytes content) {
    if (content.size() < context_head) return false;
    bool has_abstract_syntax = false;
    for (Bytes rest = content.subspan(context_head); !rest.empty();) {
        const std::optional<Item> item = take_item(rest);
        if (!item) return false;
        if (item->type != abstract_syntax && item->type != transfer_syntax) continue;
        if (item->content.size() > longest_uid) return false;
        if (item->type == transfer_syntax) continue;
        if (has_abstract_syntax) return false;
        has_abstract_syntax = true;
    }
    return true;
}

// How often the items that are counted have come.
struct Counts {
    unsigned application_contexts = 0;
    unsigned presentation_contexts = 0;
    unsigned user_informations = 0;
};

bool is_sound_item(const Item& item, Counts& counts) {
    switch (item.type) {
        case application_context:
            return ++counts.application_contexts <= 1 && item.content.size() <= longest_uid;
        case presentation_context:
        case context_answer:
            return ++counts.presentation_contexts <= most_contexts &&
                   is_presentation_context(item.content);
        case user_information:
            return ++counts.user_informations <= 1 && is_user_information(item.content);
        default:
            return true;
    }
}

std::string title_at(Bytes pdu, std::size_t offset) {
    constexpr std::size_t width = 16;
    std::string_view title(reinterpret_cast<const char*>(pdu.data()) + offset, width);
    title = title.substr(0, title.find('\0'));
    return std::string(title.substr(0, title.find_last_not_of(' ') + 1));  // all blanks: npos + 1
}

}  // namespace

std::size_t promised_length(Bytes header) {
    return number16(header, 2) << 16 | number16(header, 4);
}

bool is_well_formed_request(Bytes pdu) {
    if (pdu.size() < fixed_length || pdu[0] != associate_request) return false;
    if (promised_length(pdu) != pdu.size() - pdu_header_length) return false;
    Counts counts;
    for (Bytes rest = pdu.subspan(fixed_length); !rest.empty();) {
        const std::optional<Item> item = take_item(rest);
        if (!item || !is_sound_item(*item, counts)) return false;
    }
    return true;
}

bool speaks_other_protocol(Bytes pdu) {
    return pdu.size() >= fixed_length && pdu[0] == associate_request &&
           (number16(pdu, pdu_header_length) & protocol_version) == 0;
}

std::string calling_title(Bytes pdu) { return title_at(pdu, 26); }

std::string called_title(Bytes pdu) { return title_at(pdu, 10); }

}  // namespace tarvo
