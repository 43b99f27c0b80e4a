#include "monitor/monitor_message.h"

#include <unistd.h>

#include <charconv>
#include <limits>
#include <string>

#include "monitor/multicast.h"
#include "support/log.h"

namespace tarvo {
namespace {

// A map that holds this many entries learns no further ones.
constexpr std::size_t learning_limit = 1024;

// A peer that runs this server and announced itself: flag letters FMSD.
constexpr std::uint32_t discovered_peer_flags = 263;

// Takes the field before the next blank off `text`. Empty when there is none.
std::string_view take_field(std::string_view& text) {
    const std::size_t blank = text.find(' ');
    const std::string_view field = text.substr(0, blank);
    text.remove_prefix(blank == std::string_view::npos ? text.size() : blank + 1);
    return field;
}

// A decimal number without sign, at most `limit`; the newline of a last field may follow it.
std::optional<int> read_number(std::string_view field, int limit) {
    if (field.ends_with('\n')) field.remove_suffix(1);
    if (field.empty() || field.front() == '-') return std::nullopt;
    int value = 0;
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value);
    if (error != std::errc() || end != field.data() + field.size() || value > limit) {
        return std::nullopt;
    }
    return value;
}

std::optional<AddAetRequest> decode_add_aet(std::string_view fields) {
    AddAetRequest request;
    if (take_field(fields) != "ADD_AET") return std::nullopt;
    request.aetitle = take_field(fields);
    request.address = take_field(fields);
    const std::string_view letters = take_field(fields);
    // Flags without any letter are all right as long as the field is there, if only its newline.
    if (request.aetitle.empty() || request.address.empty() || letters.empty() || !fields.empty()) {
        return std::nullopt;
    }
    request.flags = AETitleMap_charstoflags(letters);
    return request;
}

std::optional<DiscoverAetRequest> decode_discover_aet(std::string_view fields) {
    DiscoverAetRequest request;
    if (take_field(fields) != "DISCOVER_AET") return std::nullopt;
    request.aetitle = take_field(fields);
    const std::optional<int> port = read_number(take_field(fields), 65535);
    if (request.aetitle.empty() || port.value_or(0) == 0 || !fields.empty()) return std::nullopt;
    request.port = static_cast<std::uint16_t>(*port);
    return request;
}

// Own messages come back from the group.
bool is_own(const MonitorMessage& message) {
    return message.pid == ::getpid() && message.host == multicast_get_hostname();
}

std::string source_address(const sockaddr_in& sender, std::uint16_t port) {
    const std::uint32_t host = ntohl(sender.sin_addr.s_addr);
    char text[32];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u:%d", host >> 24, host >> 16 & 0xFF,
                  host >> 8 & 0xFF, host & 0xFF, port);
    return text;
}

AETitleMapEntry make_peer(std::string_view name, std::string_view aetitle, std::string_view address,
                          std::uint32_t flags) {
    AETitleMapEntry peer;
    peer.name = name;
    peer.aetitle = aetitle;
    peer.address = address;
    peer.flags = flags;
    return peer;
}

// Adds a peer whose AE title is unknown, unless its name is taken. Returns whether it was welcome.
bool learn(AETitleMap& map, const AETitleMapEntry& peer) {
    // The own entry decides under which AE title the next start-up presents this server.
    if (peer.name == own_entry_name) return false;
    return AETitleMap_FindByAET(map, peer.aetitle) == nullptr && reads_back_from_map_file(peer) &&
           AETitleMap_FindByNum(map, learning_limit - 1) == nullptr &&
           AETitleMap_Add(map, peer.name, peer.aetitle, peer.address, peer.flags, nullptr) != -1;
}

}  // namespace

std::optional<MonitorMessage> decode_monitor_message(std::string_view datagram) {
    MonitorMessage message;
    message.rest = datagram.substr(0, datagram.find('\0'));
    message.host = take_field(message.rest);
    const std::optional<int> pid =
        read_number(take_field(message.rest), std::numeric_limits<int>::max());
    message.keyword = take_field(message.rest);
    if (message.host.empty() || !pid || message.keyword.empty()) return std::nullopt;
    message.pid = *pid;
    if (message.keyword == "CONFIG") {
        if (const auto request = decode_add_aet(message.rest)) message.request = *request;
    } else if (message.keyword == "STORAGE") {
        if (const auto request = decode_discover_aet(message.rest)) message.request = *request;
    }
    return message;
}

bool apply_monitor_message(const MonitorMessage& message, const sockaddr_in& sender,
                           AETitleMap& map, FILE* log) {
    if (is_own(message)) return false;
    if (const auto* add = std::get_if<AddAetRequest>(&message.request)) {
        const auto peer = make_peer(message.host, add->aetitle, add->address, add->flags);
        if (!learn(map, peer)) return false;
        logprintf(32, log, "Added new Tarvo AET %s at %s.\n", peer.aetitle.c_str(),
                  peer.address.c_str());
        return true;
    }
    const auto* discovered = std::get_if<DiscoverAetRequest>(&message.request);
    if (discovered == nullptr || sender.sin_family != AF_INET) return false;
    const auto peer = make_peer(message.host, discovered->aetitle,
                                source_address(sender, discovered->port), discovered_peer_flags);
    if (!learn(map, peer)) return false;
    logprintf(32, log, "Discovered new Tarvo AET %s at %s.\n", peer.aetitle.c_str(),
              peer.address.c_str());
    return true;
}

}  // namespace tarvo
