#include "server/intake.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <ctime>
#include <vector>

#include "server/association_request.h"
#include "tests/server/request_builder.h"

namespace {

using namespace tarvo::test;
using tarvo::Caller;
using tarvo::Intake;
using tarvo::UniqueFd;

const std::string gone = "gone";

double seconds(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double now() { return seconds(CLOCK_MONOTONIC); }

// A peer at the door of a listening socket on loopback.
class Client {
  public:
    explicit Client(const sockaddr_in& door) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
        EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&door), sizeof door),
                  0);
    }

    void send(const std::string& bytes) {
        EXPECT_EQ(::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    // What has come, and that the other side has closed.
    std::string heard() {
        char bytes[4096];
        const ssize_t got = ::recv(socket_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        if (got > 0) return {bytes, static_cast<std::size_t>(got)};
        return got == 0 || errno != EAGAIN ? gone : "";
    }

    void close() { socket_.reset(); }

    void reset() {
        const linger hard{1, 0};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        close();
    }

  private:
    UniqueFd socket_;
};

class IntakeTest : public testing::Test {
  protected:
    IntakeTest() : door_(::socket(AF_INET, SOCK_STREAM, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const generic = reinterpret_cast<sockaddr*>(&address_);
        socklen_t size = sizeof address_;
        EXPECT_EQ(::bind(door_.get(), generic, size), 0);
        EXPECT_EQ(::listen(door_.get(), 50), 0);
        EXPECT_EQ(::getsockname(door_.get(), generic, &size), 0);
    }

    Intake intake(const tarvo::IntakeLimits& limits = {}) { return Intake(door_.get(), limits); }
    Client client() { return Client(address_); }

    const UniqueFd door_;
    sockaddr_in address_{};
};

// Who comes through within two seconds; nobody is an empty caller.
Caller next(Intake& intake) {
    for (const double end = now() + 2; now() < end;) {
        if (auto caller = intake.wait(0)) return std::move(*caller);
    }
    return {};
}

// Lets the intake take in all that has been sent, and expects nobody to be through.
void settle(Intake& intake) {
    for (int pass = 0; pass < 20; ++pass) EXPECT_FALSE(intake.wait(0));
}

std::string title(const Caller& caller) {
    const std::vector<std::uint8_t> bytes(caller.request.begin(), caller.request.end());
    return bytes.empty() ? "" : tarvo::calling_title(bytes);
}

TEST_F(IntakeTest, ARequestIsReadToItsEndAndNoFurther) {
    Intake intake = this->intake();
    const std::string whole = request();
    for (const std::size_t part : {std::size_t{0}, std::size_t{1}, std::size_t{5}, std::size_t{6},
                                   std::size_t{7}, std::size_t{74}, whole.size() - 1}) {
        Client client = this->client();
        client.send(whole.substr(0, part));
        settle(intake);
        client.send(whole.substr(part) + "behind it");
        const Caller caller = next(intake);
        EXPECT_EQ(caller.request, whole) << part;
        char rest[64];
        EXPECT_EQ(::recv(caller.socket.get(), rest, sizeof rest, MSG_DONTWAIT), 9) << part;
    }
}

TEST_F(IntakeTest, ADrippingRequestArrivesAndHoldsUpNobody) {
    Intake intake = this->intake();
    Client slow = client();
    const std::string whole = request(application + context() + user(), "SLOW");
    for (std::size_t at = 0; at + 1 < whole.size(); ++at) {
        slow.send(whole.substr(at, 1));
        EXPECT_FALSE(intake.wait(0));
    }
    Client quick = client();
    quick.send(request());
    EXPECT_EQ(title(next(intake)), "CALLING");
    slow.send(whole.substr(whole.size() - 1));
    EXPECT_EQ(title(next(intake)), "SLOW");
}

TEST_F(IntakeTest, ALargeRequestArrives) {
    Intake intake = this->intake();
    std::string contexts;
    for (int i = 0; i < 128; ++i) contexts += context();
    std::string padding;
    for (int i = 0; i < 15; ++i) padding += item(0x77, std::string(65000, 'x'));
    const std::string whole = request(application + contexts + padding + user());
    Client client = this->client();
    std::string received;
    for (std::size_t at = 0; at < whole.size(); at += 50'000) {
        client.send(whole.substr(at, 50'000));
        if (auto caller = intake.wait(0)) received = caller->request;
    }
    if (received.empty()) received = next(intake).request;
    EXPECT_EQ(received.size(), whole.size());
    EXPECT_TRUE(received == whole);
}

TEST_F(IntakeTest, CallersComeThroughInTheOrderOfTheirConnections) {
    Intake intake = this->intake();
    std::vector<Client> clients;
    clients.reserve(5);
    for (int i = 0; i < 5; ++i) clients.push_back(client());
    settle(intake);
    for (int i = 4; i >= 0; --i) {
        clients[static_cast<std::size_t>(i)].send(
            request("", std::string(1, static_cast<char>('A' + i))));
    }
    std::string order;
    for (int i = 0; i < 5; ++i) order += title(next(intake));
    EXPECT_EQ(order, "ABCDE");
}

TEST_F(IntakeTest, TheOldestOfTooManyGo) {
    Intake intake = this->intake();
    std::vector<Client> clients;
    clients.reserve(300);
    for (int i = 0; i < 300; ++i) {
        clients.push_back(client());
        if (i % 20 == 19) settle(intake);
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(clients[i].heard(), i < 300 - 256 ? gone : "") << i;
        kept += clients[i].heard().empty() ? 1 : 0;
    }
    EXPECT_EQ(kept, 256U);
    clients[44].send(request());
    EXPECT_EQ(title(next(intake)), "CALLING") << "the oldest left";
}

TEST_F(IntakeTest, TheOldestOfThoseWhoSentTooMuchGo) {
    Intake intake = this->intake({.bytes = 1000});
    Client first = client();
    Client second = client();
    const std::string whole = request(item(0x77, std::string(500, 'x')));
    first.send(whole.substr(0, 450));
    settle(intake);
    second.send(whole.substr(0, 550));
    settle(intake);
    EXPECT_EQ(first.heard(), "") << "1000 bytes are within the limit";
    second.send(whole.substr(550, 1));
    settle(intake);
    EXPECT_EQ(first.heard(), gone);
    second.send(whole.substr(551));
    EXPECT_EQ(next(intake).request, whole);
    Client third = client();
    third.send(whole);
    EXPECT_EQ(next(intake).request, whole) << "what was handed out counts no more";
}

TEST_F(IntakeTest, AnythingButARequestIsAnsweredAndDropped) {
    Intake intake = this->intake();
    const std::string abort = pdu(7, std::string(4, '\0'));
    std::string bad_item = request();
    bad_item[74 + 2] = '\x7F';
    const std::pair<std::string, std::string> cases[] = {
        {pdu(2, "body"), abort},
        {pdu(3, "body"), abort},
        {pdu(4, "body"), abort},
        {pdu(5, "body").substr(0, 6), abort},
        {pdu(6, ""), abort},
        {pdu(7, std::string(4, '\0')), gone},
        {pdu(0, "body"), gone},
        {pdu(8, "body"), gone},
        {"\xFF\xFF\xFF\xFF\xFF\xFF", gone},
        {"GET / HTTP/1.0\r\n\r\n", gone},
        {pdu(1, ""), gone},
        {pdu(1, std::string(67, '\0')), gone},
        {bad_item, gone},
        {"\1" + std::string(1, '\0') + number(0x100001, 4), gone},
        {"\1" + std::string(1, '\0') + number(0xFFFFFFFF, 4), gone},
        {request("garbage", "A", 2), pdu(3, std::string("\0\1\2\2", 4))},
    };
    for (const auto& [sent, answer] : cases) {
        Client client = this->client();
        client.send(sent);
        settle(intake);
        EXPECT_EQ(client.heard(), answer) << testing::PrintToString(sent);
        EXPECT_EQ(client.heard(), gone);
    }
    Client patient = client();
    patient.send("\1" + std::string(1, '\0') + number(0x100000, 4));
    settle(intake);
    EXPECT_EQ(patient.heard(), "") << "the largest request that is waited for";
}

TEST_F(IntakeTest, VanishedPeersAreForgotten) {
    Intake intake = this->intake();
    const std::string whole = request();
    testing::internal::CaptureStderr();
    client().close();
    client().reset();
    settle(intake);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "nothing was ever sent";

    testing::internal::CaptureStderr();
    for (const std::size_t part : {std::size_t{3}, std::size_t{6}, whole.size() - 1}) {
        Client broken = client();
        broken.send(whole.substr(0, part));
        settle(intake);
        broken.reset();
        settle(intake);
    }
    const std::string line = "Association request broken off\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line + line + line);
    Client last = client();
    last.send(whole);
    last.close();
    EXPECT_EQ(next(intake).request, whole) << "it is through, whatever became of it";
}

TEST_F(IntakeTest, TheLateGo) {
    Intake intake = this->intake({.header_time = 100, .request_time = 400});
    const double start = now();
    Client silent = client();
    Client headed = client();
    headed.send(request().substr(0, 6));
    double silent_gone = 0;
    double headed_gone = 0;
    for (std::size_t at = 6; headed_gone == 0 && now() < start + 5; ++at) {
        EXPECT_FALSE(intake.wait(0));
        ::usleep(10'000);
        if (silent_gone == 0 && silent.heard() == gone) silent_gone = now() - start;
        if (headed.heard() == gone) headed_gone = now() - start;
        if (headed_gone == 0 && at < 80) headed.send(request().substr(at, 1));  // helps nobody
    }
    EXPECT_GE(silent_gone, 0.1);
    EXPECT_LT(silent_gone, 0.3);
    EXPECT_GE(headed_gone, 0.4);
    EXPECT_LT(headed_gone, 1.0);
}

// Takes every descriptor that this process may have.
class NoMoreDescriptors {
  public:
    NoMoreDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit few{64, before_.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
        do {
            taken_.emplace_back(::open("/dev/null", O_RDONLY));
        } while (taken_.back());
    }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors(NoMoreDescriptors&&) = delete;
    NoMoreDescriptors& operator=(NoMoreDescriptors&&) = delete;
    ~NoMoreDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

  private:
    rlimit before_{};
    std::vector<UniqueFd> taken_;
};

TEST_F(IntakeTest, WithoutADescriptorItRests) {
    Intake intake = this->intake();
    Client client = this->client();
    client.send(request());
    {
        const NoMoreDescriptors shortage;
        const double used = seconds(CLOCK_PROCESS_CPUTIME_ID);
        EXPECT_FALSE(intake.wait(1));
        EXPECT_LT(seconds(CLOCK_PROCESS_CPUTIME_ID) - used, 0.1);
    }
    EXPECT_EQ(title(next(intake)), "CALLING");
}

TEST_F(IntakeTest, WithoutADescriptorTheOldestGoes) {
    Intake intake = this->intake();
    // The sanitizer opens a pipe to look at a toolkit object for the first time: not later on.
    Client served = client();
    served.send(request());
    EXPECT_EQ(title(next(intake)), "CALLING");
    Client oldest = client();
    settle(intake);
    Client newest = client();
    newest.send(request());
    const NoMoreDescriptors shortage;
    EXPECT_EQ(title(next(intake)), "CALLING");
    EXPECT_EQ(oldest.heard(), gone);
}

TEST_F(IntakeTest, LettingGoClosesEveryConnection) {
    Intake intake = this->intake();
    Client silent = client();
    Client half = client();
    half.send(request().substr(0, 40));
    settle(intake);
    intake.close_all();
    EXPECT_EQ(silent.heard(), gone);
    EXPECT_EQ(half.heard(), gone);
    Client later = client();
    later.send(request());
    EXPECT_EQ(title(next(intake)), "CALLING");
}

}  // namespace
