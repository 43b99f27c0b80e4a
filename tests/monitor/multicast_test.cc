#include "monitor/multicast.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "monitor/aetitle_map.h"
#include "monitor/serverstate.h"
#include "support/server_config.h"
#include "support/unique_fd.h"
#include "tests/support/test_helpers.h"

namespace {

using tarvo::UniqueFd;
using tarvo::test::content_of;
using tarvo::test::in_child;

// Uses the group 224.0.0.1 on a port of its own, and only where it is bound to loopback.
class Multicast : public testing::Test {
  protected:
    void SetUp() override {
        server_config.monitor_port = port;
        const UniqueFd sender(multicast_sendsocket(port, group));
        sockaddr_in own{};
        socklen_t size = sizeof own;
        if (::getsockname(sender.get(), reinterpret_cast<sockaddr*>(&own), &size) != 0 ||
            ntohl(own.sin_addr.s_addr) >> 24 != 127) {
            GTEST_SKIP() << "no multicast on loopback: run this inside script/private_network";
        }
    }

    const char* const group = "224.0.0.1";
    // Below the numbers that sockets for sending get by themselves.
    const std::uint16_t port = static_cast<std::uint16_t>(20000 + ::getpid() % 12000);
    const std::string host = (multicast_init(), multicast_get_hostname());
};

// The next datagram, waited for at most five seconds.
std::string next_datagram(int descriptor) {
    pollfd waiting{descriptor, POLLIN, 0};
    if (::poll(&waiting, 1, 5000) != 1) return "nothing came";
    char bytes[4096];
    const ssize_t length = ::recv(descriptor, bytes, sizeof bytes, 0);
    return {bytes, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

TEST_F(Multicast, HostWithoutNameIsUnknown) {
    const int result = in_child([&] {
        if (::unshare(CLONE_NEWUTS) != 0 || ::setdomainname("example", 7) != 0) return 2;
        multicast_init();
        if (std::string("example") != multicast_get_domainname()) return 1;
        if (::sethostname("", 0) != 0 || ::setdomainname("(none)", 6) != 0) return 2;
        multicast_init();
        const std::string names =
            std::string(multicast_get_hostname()) + multicast_get_domainname();
        return names == "TARVO_UNKNOWN" ? 0 : 1;
    });
    if (result == 2) GTEST_SKIP() << "may not change the name of the host";
    EXPECT_EQ(result, 0);
}

TEST_F(Multicast, StateMessagesAreExact) {
    serverstate state;
    EXPECT_EQ(state.change(serverstate_currop::store, 1), 15) << "the length, while not sent";
    state.init();
    const UniqueFd monitor(multicast_listen_udp(port, group));  // a second one on the port
    ASSERT_TRUE(monitor);
    EXPECT_NE(::fcntl(monitor.get(), F_GETFD) & ::fcntl(state.send_socket(), F_GETFD) & FD_CLOEXEC,
              0);
    using enum serverstate_currop;
    const std::tuple<serverstate_currop, int, std::string> table[] = {
        {idle, 1, "IDLE 1"},
        {busy, 12, "BUSY 12"},
        {disk, 100, "DISK 100"},
        {echo, 1, "ECHO 1"},
        {store, 0, "STORE 0"},
        {find, 1, "FIND 1"},
        {serverstate_currop::move, 0, "MOVE 0"}};
    const std::string verbose = "STOREUID 1.2 1.2.3 1.2.3.4";
    const std::string too_long(1500, 'x');
    const pid_t worker = tarvo::test::start_child([&] {
        const std::string start = host + " " + std::to_string(::getpid()) + " STORAGE ";
        for (const auto& [operation, number, text] : table) {
            if (state.change(operation, number) !=
                static_cast<int>(start.size() + text.size() + 1)) {
                return 1;
            }
        }
        state.change_verbose(verbose.c_str());
        state.change_verbose(too_long.c_str());
        return 0;
    });
    EXPECT_EQ(tarvo::test::exit_code(worker), 0);
    const std::string start = host + " " + std::to_string(worker) + " STORAGE ";
    for (const int listener : {monitor.get(), state.listen_socket()}) {
        for (const auto& each : table) {
            EXPECT_EQ(next_datagram(listener), start + std::get<2>(each) + "\n");
        }
        EXPECT_EQ(next_datagram(listener), start + verbose + "\n");
        EXPECT_EQ(next_datagram(listener), (start + too_long).substr(0, 1023));
    }
}

TEST_F(Multicast, WhatCannotBeOpenedIsMinusOne) {
    EXPECT_EQ(multicast_send(-1, "x"), -1);
    EXPECT_EQ(multicast_sendsocket(port, "group"), -1);
    EXPECT_EQ(multicast_listen_udp(port, "group"), -1);
    EXPECT_EQ(multicast_listen_udp(port, "127.0.0.1"), -1) << "not a group";
    const UniqueFd selfish(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ASSERT_EQ(::bind(selfish.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto start = std::chrono::steady_clock::now();
    serverstate state;
    EXPECT_FALSE(state.checklisten());
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken.count(), 2.0) << "three attempts, two pauses";
    EXPECT_LT(taken.count(), 2.9);
    EXPECT_NE(state.send_socket(), -1);
}

TEST_F(Multicast, ReceivedRequestsReachTheMapFile) {
    const tarvo::test::TemporaryDirectory directory;
    const std::string path = directory.write("map", std::string(9000, '\n'));
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    server_config.aetmap_fd = file.get();
    server_config.log = nullptr;
    serverstate state;
    EXPECT_TRUE(state.checklisten());
    const int room = 1 << 20;
    ::setsockopt(state.listen_socket(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    const auto tell = [&](const std::string& text) {
        EXPECT_EQ(::send(state.send_socket(), text.data(), text.size(), 0),
                  static_cast<ssize_t>(text.size()));
    };
    const auto padded = [](std::string text, char filler, std::size_t size) {
        text.resize(size - 1, filler);
        return text + 'P';
    };
    EXPECT_EQ(in_child([&] {
                  return multicast_send(state.send_socket(), "STORAGE DISCOVER_AET PEER 11112") < 0;
              }),
              0);
    tell(padded("a 1 CONFIG ADD_AET FULL a:1 ", 'F', 1024));  // its last letter is lost
    tell(padded("b 1 CONFIG ADD_AET LARGER a:2 ", 'F', 1025));
    tell("\xff\xfe\n");
    multicast_send(state.send_socket(), "CONFIG ADD_AET OWN a F");
    EXPECT_TRUE(state.checklisten());
    EXPECT_EQ(content_of(path), host + "\tPEER\t127.0.0.1:11112\tFMSD\na\tFULL\ta:1\tF\n");

    for (int number = 0; number < 260; ++number) {
        tell("h" + std::to_string(number) + " 1 CONFIG ADD_AET A" + std::to_string(number) +
             " a F\n");
    }
    const auto lines = [&] {
        const std::string content = content_of(path);
        return std::count(content.begin(), content.end(), '\n');
    };
    EXPECT_TRUE(state.checklisten());
    EXPECT_EQ(lines(), 2 + 256) << "one pass takes 256 datagrams";
    EXPECT_TRUE(state.checklisten());
    EXPECT_EQ(lines(), 2 + 260);
    server_config.aetmap_fd = -1;
    AETitleMap_Destroy(aetitle_map);
}

}  // namespace
