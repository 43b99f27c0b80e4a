// What the server makes of the messages that it receives on the monitor group.
//
//   <host name> <process id> CONFIG ADD_AET <AE title> <address> <flag letters>\n
//   <host name> <process id> STORAGE DISCOVER_AET <AE title> <port>\n
//
// Fields are separated by single blanks; case counts. Anyone on the network can send anything
// here: what does not have one of these forms, with every field there and every number in its
// range, is not acted upon.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>
#include <variant>

#include "monitor/aetitle_map.h"

namespace tarvo {

struct AddAetRequest {
    std::string_view aetitle, address;
    std::uint32_t flags = 0;
};

struct DiscoverAetRequest {
    std::string_view aetitle;
    std::uint16_t port = 0;
};

// A received message. The texts are parts of the one that was decoded.
struct MonitorMessage {
    std::string_view host;
    int pid = 0;
    std::string_view keyword, rest;  // the last field keeps its newline
    std::variant<std::monostate, AddAetRequest, DiscoverAetRequest> request;
};

// Splits a datagram, which ends at its first NUL. Nothing when host name, process id or keyword
// is missing. A message with any other content than the forms above is one without request.
[[nodiscard]] std::optional<MonitorMessage> decode_monitor_message(std::string_view datagram);

// Carries out a message's request on the map, unless this process sent it or the AE title is
// known, and logs it at level 32. Only an IPv4 `sender` can be discovered. Nothing is learned
// that would not come back from the map file, nor by a map of 1,024 entries, and nobody becomes the
// server's own entry. Returns whether the map file is to be saved.
//
// A host that is already in the map by its name cannot bring in a second AE title: the map stays
// as it is, and yet that is logged and asks for saving.
[[nodiscard]] bool apply_monitor_message(const MonitorMessage& message, const sockaddr_in& sender,
                                         AETitleMap& map, FILE* log);

}  // namespace tarvo
