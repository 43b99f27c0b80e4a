// Monitor datagrams, each up to the next byte 0xFF.
#include <arpa/inet.h>

#include <memory>

#include "monitor/monitor_message.h"
#include "support/log.h"
#include "tests/fuzz/map_round_trip.h"

namespace {

using tarvo::fuzz::require;

// Lets the map learn from one datagram, and looks at what is said about it.
void receive(AETitleMap& map, std::string_view datagram) {
    sockaddr_in sender{};
    sender.sin_family = AF_INET;
    sender.sin_addr.s_addr = htonl(0x0A000001);
    const auto message = tarvo::decode_monitor_message(datagram);
    if (!message) return;
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const log = ::open_memstream(&text, &size);
    const bool learned = apply_monitor_message(*message, sender, map, log);
    std::fclose(log);
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    const std::string_view said(text, size);
    require(said.empty() != learned, "what is learned is logged, and nothing else");
    require(said.find('\n') + 1 == said.size() || said.empty(), "a log line is one line");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest = tarvo::fuzz::text_of(data, size);
    AETitleMap map;
    require(AETitleMap_Add(map, "Local", "TARVO", "localhost:1104", 0, "this server") == 0,
            "the map takes the own entry");
    while (!rest.empty()) receive(map, tarvo::fuzz::take_until(rest, '\xff'));
    const tarvo::UniqueFd file(::memfd_create("map", MFD_CLOEXEC));
    tarvo::fuzz::check_round_trip(map, file.get(), [](const std::string&) { return true; });
    require(AETitleMap_FindByName(map, "Local") == map.first.get() &&
                map.first->aetitle == "TARVO" && map.first->comment == "this server",
            "the own entry stays as it is");
    return 0;
}
