// Monitor datagrams, each up to the next byte 0xFF.
#include <arpa/inet.h>
#include <sys/mman.h>

#include "monitor/aetitle_map.h"
#include "monitor/monitor_message.h"
#include "support/log.h"
#include "support/unique_fd.h"
#include "tests/fuzz/fuzz.h"

namespace {

using tarvo::fuzz::require;

class MemoryLog {
  public:
    MemoryLog() : stream_(::open_memstream(&text_, &size_)) {}
    MemoryLog(const MemoryLog&) = delete;
    MemoryLog& operator=(const MemoryLog&) = delete;
    MemoryLog(MemoryLog&&) = delete;
    MemoryLog& operator=(MemoryLog&&) = delete;
    ~MemoryLog() {
        std::fclose(stream_);
        std::free(text_);
    }
    [[nodiscard]] FILE* stream() { return stream_; }
    [[nodiscard]] std::string_view text() const { return {text_, size_}; }

  private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    FILE* stream_;
};

// Lets the map learn from one datagram, and looks at what is said about it.
void receive(AETitleMap& map, std::string_view datagram) {
    sockaddr_in sender{};
    sender.sin_family = AF_INET;
    sender.sin_addr.s_addr = htonl(0x0A000001);
    const auto message = tarvo::decode_monitor_message(datagram);
    if (!message) return;
    MemoryLog log;
    const bool learned = apply_monitor_message(*message, sender, map, log.stream());
    const std::string_view said = log.text();
    require(said.empty() != learned, "what is learned is logged, and nothing else");
    require(said.find('\n') + 1 == said.size() || said.empty(), "a log line is one line");
}

void check_round_trip(const AETitleMap& map) {
    const tarvo::UniqueFd file(::memfd_create("map", MFD_CLOEXEC));
    require(AETitleMap_Save_fd(map, file.get()) == 0, "the map can be saved");
    AETitleMap again;
    require(AETitleMap_Load_fd(again, file.get()) == 0, "the map can be loaded");
    const AETitleMapEntry* right = again.first.get();
    for (const auto* left = map.first.get(); left; left = left->next.get()) {
        require(right != nullptr && left->name == right->name && left->aetitle == right->aetitle &&
                    left->address == right->address && left->flags == right->flags &&
                    left->comment == right->comment,
                "the map file keeps what was learned");
        right = right->next.get();
    }
    require(right == nullptr, "the map file keeps nothing else");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest = tarvo::fuzz::text_of(data, size);
    AETitleMap map;
    require(AETitleMap_Add(map, "Local", "TARVO", "localhost:1104", 0, "this server") == 0,
            "the map takes the own entry");
    while (!rest.empty()) receive(map, tarvo::fuzz::take_until(rest, '\xff'));
    check_round_trip(map);
    require(AETitleMap_FindByName(map, "Local") == map.first.get() &&
                map.first->aetitle == "TARVO" && map.first->comment == "this server",
            "the own entry stays as it is");
    return 0;
}
