// The door: which requests are taken, and who has to go when there is no room or no time.
#include "server/intake.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <ctime>
#include <memory>
#include <vector>

#include "server/association_request.h"

namespace {

using namespace std::string_literals;
using tarvo::Caller;
using tarvo::Intake;
using tarvo::UniqueFd;

// ---- requests, item by item (PS3.8, 9.3.2) ----

std::string number(std::size_t value, int width) {
    std::string bytes;
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xFF);
    }
    return bytes;
}

std::string item(int type, const std::string& content) {
    return number(static_cast<std::size_t>(type) << 8, 2) + number(content.size(), 2) + content;
}

// A text behind its length, as some user items hold it.
std::string counted(const std::string& text) { return number(text.size(), 2) + text; }

const std::string application = item(0x10, "1.2.840.10008.3.1.1.1");
const std::string abstract = item(0x30, "1.2.840.10008.1.1");
const std::string transfer = item(0x40, "1.2.840.10008.1.2");
const std::string largest_pdu = item(0x51, number(16384, 4));

std::string context(const std::string& syntaxes = abstract + transfer) {
    return item(0x20, number(0x01000000, 4) + syntaxes);
}

std::string user(const std::string& items = largest_pdu + item(0x52, "1.2.3.4")) {
    return item(0x50, items);
}

std::string padded(std::string title) {
    title.resize(16, ' ');
    return title;
}

std::string pdu(int type, const std::string& body) {
    std::string bytes = number(static_cast<std::size_t>(type) << 8, 2);
    return bytes.append(number(body.size(), 4)).append(body);
}

std::string usual_items() {
    std::string items = application;
    return items.append(context()).append(user());
}

std::string request(const std::string& items = usual_items(),
                    const std::string& calling = "CALLING", std::size_t version = 1) {
    std::string body = number(version << 16, 4);
    body.append(padded("CALLED")).append(padded(calling));
    body.resize(68);
    return pdu(1, body.append(items));
}

// In a block of exactly its size, so that the address sanitizer sees every byte read beyond it.
bool is_well_formed(const std::string& pdu) {
    const auto copy = std::make_unique<std::uint8_t[]>(pdu.size());
    pdu.copy(reinterpret_cast<char*>(copy.get()), pdu.size());
    return tarvo::is_well_formed_request({copy.get(), pdu.size()});
}

std::string repeated(std::size_t count, const std::string& text) {
    std::string all;
    for (; count > 0; --count) all += text;
    return all;
}

const std::string identity = item(0x58, "\2\1" + counted("name") + counted("secret"));
const std::string role = item(0x54, counted("1.2.840.10008.1.1") + "\1\1");
const std::string extended = item(0x56, counted("1.2.840.10008.1.1") + "\1\1\1");

struct Case {
    const char* what;
    std::string pdu;
};

TEST(AssociationRequest, SoundOnesPass) {
    const Case cases[] = {
        {"an echo", request()},
        {"no items", request("")},
        {"128 contexts of 30 syntaxes",
         request(application + repeated(128, context(abstract + repeated(30, transfer))) + user())},
        {"every user item",
         request(application + context() +
                 user(largest_pdu + item(0x52, "1.2.3.4") + item(0x53, number(0x10001, 4)) + role +
                      role + item(0x55, "VERSION") + extended + extended +
                      item(0x57, counted("1.2") + counted("1.3") + number(0, 2)) + identity))},
        {"names of 64 characters",
         request(item(0x10, repeated(64, "1")) +
                 context(item(0x30, repeated(64, "2")) + item(0x40, repeated(64, "3"))))},
        {"unknown items",
         request(item(0x77, "?") + context(abstract + item(0x78, repeated(99, "?"))) +
                 user(item(0x79, repeated(99, "?"))))},
        {"empty items", request(item(0x10, "") + context("") + user(""))},
        {"an identity of nothing", request(user(item(0x58, "\1" + number(0, 5))))},
        {"other version", request("", "A", 2)},
    };
    for (const Case& each : cases) EXPECT_TRUE(is_well_formed(each.pdu)) << each.what;
}

TEST(AssociationRequest, DamagedOnesFail) {
    const std::string whole = request();
    const std::string too_long = repeated(65, "1");
    const Case cases[] = {
        {"nothing", ""},
        {"a header", whole.substr(0, 6)},
        {"one byte short", whole.substr(0, whole.size() - 1)},
        {"one byte over", whole + '\0'},
        {"too short for its head", pdu(1, std::string(67, '\0'))},
        {"an answer", pdu(2, whole.substr(6))},
        {"a torn item header", request(application + "\x50" + std::string(2, '\0'))},
        {"an item over the end", request("\x10" + number(2, 3) + "1")},
        {"two application contexts", request(application + application)},
        {"a long application context", request(item(0x10, too_long))},
        {"129 contexts", request(repeated(129, context()))},
        {"a context without a head", request(item(0x20, std::string(3, '\0')))},
        {"two abstract syntaxes", request(context(abstract + transfer + abstract))},
        {"a long abstract syntax", request(context(item(0x30, too_long)))},
        {"a long transfer syntax", request(context(abstract + item(0x40, too_long)))},
        {"a syntax over its context",
         request(item(0x20, number(0, 4) + "\x30" + number(9, 3) + "1") + user())},
        {"two user informations", request(user() + user())},
        {"a user item over the end", request(user("\x51" + number(5, 3) + "1234"))},
        {"a short largest length", request(user(item(0x51, "123")))},
        {"two largest lengths", request(user(largest_pdu + largest_pdu))},
        {"two implementations", request(user(item(0x52, "1") + item(0x52, "1")))},
        {"a long implementation", request(user(item(0x52, too_long)))},
        {"two windows", request(user(item(0x53, "1234") + item(0x53, "1234")))},
        {"two version names", request(user(item(0x55, "1") + item(0x55, "1")))},
        {"a long version name", request(user(item(0x55, too_long)))},
        {"two identities", request(user(identity + identity))},
        {"a role without roles", request(user(item(0x54, counted("1.2") + "\1")))},
        {"an empty role", request(user(item(0x54, "")))},
        {"an extension's name over its end", request(user(item(0x56, number(3, 2) + "12")))},
        {"a torn extension", request(user(item(0x56, "1")))},
        {"an identity over its end",
         request(user(item(0x58, "\1" + number(0, 1) + number(3, 2) + "12")))},
        {"a secret over its end",
         request(user(item(0x58, "\2" + number(0, 1) + counted("n") + number(3, 2) + "12")))},
        {"an identity without secret",
         request(user(item(0x58, "\2" + number(0, 1) + counted("nn"))))},
    };
    for (const Case& each : cases) EXPECT_FALSE(is_well_formed(each.pdu)) << each.what;
}

TEST(AssociationRequest, TitlesLoseTheBlanksAroundThem) {
    const std::pair<std::string, std::string> cases[] = {
        {"  A B ", "A B"}, {"SIXTEEN-LETTERS!", "SIXTEEN-LETTERS!"}, {"A\0B"s, "A"}, {"", ""}};
    for (const auto& [sent, read] : cases) {
        const std::string pdu = request("", sent);
        const std::vector<std::uint8_t> bytes(pdu.begin(), pdu.end());
        EXPECT_EQ(tarvo::calling_title(bytes), read);
        EXPECT_EQ(tarvo::called_title(bytes), "CALLED");
    }
}

// ---- the intake ----

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

}  // namespace
