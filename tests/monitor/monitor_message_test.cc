#include "monitor/monitor_message.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <vector>

#include "monitor/multicast.h"
#include "tests/support/test_helpers.h"

namespace {

using namespace std::string_literals;

// A map that knows one peer, told of messages that come from 10.1.2.3.
class MonitorMessage : public testing::Test {
  protected:
    MonitorMessage() {
        EXPECT_EQ(AETitleMap_Add(map, "old", "OLD", "h:1", 0, nullptr), 0);
        sender.sin_family = AF_INET;
        ::inet_pton(AF_INET, "10.1.2.3", &sender.sin_addr);
    }

    // Handles a datagram in a buffer of its exact size, so that a sanitizer sees each byte too
    // many. Returns whether the map is to be saved.
    bool handle(const std::string& datagram) {
        const std::unique_ptr<char[]> bytes(new char[datagram.size()]);
        datagram.copy(bytes.get(), datagram.size());
        const auto message = tarvo::decode_monitor_message({bytes.get(), datagram.size()});
        return message && tarvo::apply_monitor_message(*message, sender, map, nullptr);
    }

    // "name|AE title|address|letters" of the second entry, which the test then forgets.
    std::string take_learned() {
        const AETitleMapEntry* const entry = AETitleMap_FindByNum(map, 1);
        if (entry == nullptr) return "";
        std::string shown = entry->name + '|' + entry->aetitle + '|' + entry->address + '|' +
                            AETitleMap_flagstochars(entry->flags);
        AETitleMap_Del(map, entry);
        return shown;
    }

    AETitleMap map;
    sockaddr_in sender{};
};

const std::string own_host = multicast_get_hostname();
const std::string longest(127, 'x');

TEST_F(MonitorMessage, RequestsExtendTheMap) {
    const std::pair<std::string, std::string> table[] = {
        {"h 7 CONFIG ADD_AET NEW 10.0.0.5:104 fms\n", "h|NEW|10.0.0.5:104|FMS"},
        {"h 7 CONFIG ADD_AET NEW a \n", "h|NEW|a|"},
        {"h 7 CONFIG ADD_AET old \"\x01\xfc XF", "h|old|\"\x01\xfc|F"},
        {"h 2147483647 STORAGE DISCOVER_AET NEW 104\n", "h|NEW|10.1.2.3:104|FMSD"},
        {"h 7 STORAGE DISCOVER_AET NEW 65535\0 x"s, "h|NEW|10.1.2.3:65535|FMSD"},
        {longest + " 7 CONFIG ADD_AET N" + longest.substr(1) + " " + longest + " F\n",
         longest + "|N" + longest.substr(1) + "|" + longest + "|F"},
        {own_host + " 1 STORAGE DISCOVER_AET NEW 1\n", own_host + "|NEW|10.1.2.3:1|FMSD"},
        // A second AE title of a known host changes nothing, and yet is saved.
        {"old 7 STORAGE DISCOVER_AET NEW 104\n", ""},
        {"old 7 CONFIG ADD_AET NEW a F\n", ""},
    };
    for (const auto& [datagram, learned] : table) {
        EXPECT_TRUE(handle(datagram)) << datagram;
        EXPECT_EQ(take_learned(), learned);
    }
}

TEST_F(MonitorMessage, NothingElseChangesAnything) {
    const std::string own = own_host + " " + std::to_string(::getpid());
    const std::string wild = std::string(100, '\x01') + "\t";  // four times as long in the file
    const std::pair<std::string, std::vector<std::string>> table[] = {
        {"", {"", " ", "   ", "h", "h 7", "h 7 CONFIG", "h 7 STORAGE", "h 7 STORAGE IDLE 1"}},
        {own, {" CONFIG ADD_AET NEW a F", " STORAGE DISCOVER_AET NEW 104"}},
        {"h 7 ", {"config ADD_AET NEW a F", "CONFIG add_aet NEW a F", "CONFIG  ADD_AET NEW a F"}},
        {"h 7 ", {"STORAGE ADD_AET NEW a F", "CONFIG DISCOVER_AET NEW 104"}},
        {"",
         {" 7 CONFIG ADD_AET NEW a F", "h CONFIG ADD_AET NEW a F", "Local 7 CONFIG ADD_AET N a F"}},
        {"h",
         {"  7 CONFIG ADD_AET NEW a F", " x CONFIG ADD_AET NEW a F", " -7 CONFIG ADD_AET NEW a F"}},
        {"h", {" 7x CONFIG ADD_AET NEW a F", " 99999999999 CONFIG ADD_AET NEW a F"}},
        {"h 7 CONFIG ADD_AET ", {"OLD a F", "", "NEW", "NEW a", " a F", "NEW  F", "NEW a F G"}},
        {"h 7 STORAGE DISCOVER_AET ", {"OLD 104", "NEW", "NEW ", " 104", "NEW 104 x", "NEW 104x"}},
        {"h 7 STORAGE DISCOVER_AET ", {"NEW 0", "NEW -1", "NEW +1", "NEW 65536", "NEW 4294967400"}},
        // Texts that would not come back from the map file.
        {"h 7 CONFIG ADD_AET ", {longest + "x a F", "N " + longest + "x F", "O'N a F", "'N a F"}},
        {longest, {"x 7 CONFIG ADD_AET NEW a F", "x 7 STORAGE DISCOVER_AET NEW 1"}},
        {wild, {" 7 CONFIG ADD_AET " + wild + " " + wild + " F"}},
    };
    for (const auto& [start, ends] : table) {
        for (const std::string& end : ends) {
            for (const char* const newline : {"", "\n"}) {
                EXPECT_FALSE(handle(start + end + newline)) << start << end;
                EXPECT_EQ(take_learned(), "") << start << end;
            }
        }
    }
    EXPECT_FALSE(handle("h 7 CONFIG ADD_AET NEW a "));
    sender.sin_family = AF_INET6;
    EXPECT_FALSE(handle("h 7 STORAGE DISCOVER_AET NEW 104\n"));
}

TEST_F(MonitorMessage, RandomDatagramsNeverLeaveAnUnreadableMap) {
    const tarvo::test::TemporaryDirectory directory;
    static const std::string special = " \n'\"\\\t\x01\xff" + std::string(1, '\0') + "7FxA";
    std::mt19937 random(99);
    for (int round = 0; round < 30000; ++round) {
        const std::string number = std::to_string(round);
        std::string datagram = "hNUMBER 7 CONFIG ADD_AET NEWNUMBER a:104 FMS\n";
        datagram.replace(28, 6, number).replace(1, 6, number);
        for (auto changes = random() % 4; changes > 0; --changes) {
            datagram.replace(random() % 30, random() % 3, random() % 40 == 0 ? 200 : random() % 3,
                             special[random() % special.size()]);
        }
        static_cast<void>(handle(datagram));
    }
    EXPECT_NE(AETitleMap_FindByNum(map, tarvo::learning_limit - 1), nullptr);
    EXPECT_EQ(AETitleMap_FindByNum(map, tarvo::learning_limit), nullptr) << "no end to learning";
    const std::string path = directory.file("map");
    AETitleMap copy;
    ASSERT_EQ(AETitleMap_Save(map, path.c_str()) + AETitleMap_Load(copy, path.c_str()), 0);
    const std::string saved = tarvo::test::content_of(path);
    ASSERT_EQ(AETitleMap_Save(copy, path.c_str()), 0);
    EXPECT_EQ(tarvo::test::content_of(path), saved);
}

}  // namespace
