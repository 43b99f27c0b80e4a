#include "server/association_request.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "tests/server/request_builder.h"

namespace {

using namespace tarvo::test;

// In a block of exactly its size, so that the address sanitizer sees every byte read beyond it.
bool is_well_formed(const std::string& pdu) {
    const auto copy = std::make_unique<std::uint8_t[]>(pdu.size());
    std::copy(pdu.begin(), pdu.end(), copy.get());
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

const std::vector<Case>& sound() {
    static const std::vector<Case> cases = {
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
    return cases;
}

TEST(AssociationRequest, SoundOnesPass) {
    for (const Case& each : sound()) EXPECT_TRUE(is_well_formed(each.pdu)) << each.what;
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
        {"a secret of another identity",
         request(user(item(0x58, "\1\1" + counted("name") + counted("secret"))))},
        {"an item behind the secret",
         request(user(item(0x58, "\2\1" + counted("name") + counted("secret") + largest_pdu)))},
        {"an identity and an answer to one", request(user(identity + "\x59" + identity.substr(1)))},
        {"129 contexts and answers to them",
         request(repeated(64, context()) + repeated(65, "\x21" + context().substr(1)))},
        {"an identity without secret",
         request(user(item(0x58, "\2" + number(0, 1) + counted("nn"))))},
    };
    for (const Case& each : cases) EXPECT_FALSE(is_well_formed(each.pdu)) << each.what;
}

// The same rules over a reader that throws at the end of what it holds.
class Reader {
  public:
    explicit Reader(std::string bytes) : bytes_(std::move(bytes)) {}

    std::string take(std::size_t count) {
        if (count > left()) throw std::out_of_range("end");
        at_ += count;
        return bytes_.substr(at_ - count, count);
    }
    std::size_t take_number(int width) {
        std::size_t value = 0;
        for (; width > 0; --width) value = value << 8 | static_cast<std::uint8_t>(take(1)[0]);
        return value;
    }
    std::size_t left() const { return bytes_.size() - at_; }

  private:
    std::string bytes_;
    std::size_t at_ = 0;
};

struct Rule {
    std::size_t most;  // how many
    void (*read)(Reader& content);
};

void anything(Reader&) {}
void name(Reader& content) {
    if (content.left() > 64) throw std::out_of_range("name");
}
void four(Reader& content) { content.take(4); }
void role_selection(Reader& content) { content.take(content.take_number(2)), content.take(2); }
void extension(Reader& content) { content.take(content.take_number(2)); }
void user_identity(Reader& content) {
    const std::size_t type = content.take_number(1);
    content.take(1);
    content.take(content.take_number(2));
    const std::size_t second = content.take_number(2);
    content.take(second);
    if (content.left() > 0 || (second > 0 && type != 2)) throw std::out_of_range("secret");
}

void read_items(Reader& rest, const std::map<std::size_t, Rule>& rules) {
    std::map<std::size_t, std::size_t> seen;
    while (rest.left() > 0) {
        std::size_t type = rest.take_number(2) >> 8;
        if (type == 0x21 || type == 0x59) --type;  // an answer, read like what it answers
        Reader content(rest.take(rest.take_number(2)));
        const auto rule = rules.find(type);
        if (rule == rules.end()) continue;
        if (++seen[type] > rule->second.most) throw std::out_of_range("repeated");
        rule->second.read(content);
    }
}

void presentation(Reader& content) {
    content.take(4);
    read_items(content, {{0x30, {1, name}}, {0x40, {9999, name}}});
}

void user_items(Reader& content) {
    read_items(content, {{0x51, {1, four}},
                         {0x52, {1, name}},
                         {0x53, {1, anything}},
                         {0x54, {9999, role_selection}},
                         {0x55, {1, name}},
                         {0x56, {9999, extension}},
                         {0x58, {1, user_identity}}});
}

bool model(const std::string& pdu) {
    try {
        Reader reader(pdu);
        if (reader.take_number(2) >> 8 != 1) return false;
        if (reader.take_number(4) != reader.left()) return false;
        reader.take(68);
        read_items(reader,
                   {{0x10, {1, name}}, {0x20, {128, presentation}}, {0x50, {1, user_items}}});
        return true;
    } catch (const std::out_of_range&) {
        return false;
    }
}

class Mutator {
  public:
    std::string mutate(std::string pdu) {
        for (std::size_t count = 1 + below(3); count > 0; --count) mutate_once(pdu);
        if (below(4) != 0 && pdu.size() >= 6) pdu.replace(2, 4, number(pdu.size() - 6, 4));
        return pdu;
    }

  private:
    std::size_t below(std::size_t limit) { return random_() % limit; }

    void mutate_once(std::string& pdu) {
        static constexpr char telling[] = {0,    1,    2,    4,    0x10, 0x20, 0x30,
                                           0x40, 0x41, 0x50, 0x51, 0x52, 0x54, 0x56,
                                           0x58, 0x59, 0x21, 0x7F, -1};
        if (pdu.empty()) return;
        const std::size_t at = below(pdu.size());
        switch (below(4)) {
            case 0:
                pdu[at] = telling[below(sizeof telling)];
                break;
            case 1:
                pdu[at] = static_cast<char>(pdu[at] + (below(2) != 0 ? 1 : -1));
                break;
            case 2:
                pdu.erase(at, 1 + below(8));
                break;
            default:
                pdu.insert(at, pdu, below(pdu.size()), 1 + below(40));
        }
    }

    std::mt19937 random_{20100};  // the same every time
};

TEST(AssociationRequest, MutantsAreJudgedAsByAPlainReader) {
    Mutator mutator;
    std::array<int, 2> verdicts{};
    for (int round = 0; round < 20'000; ++round) {
        for (const Case& each : sound()) {
            if (each.pdu.size() > 2000) continue;
            const std::string mutant = mutator.mutate(each.pdu);
            const bool expected = model(mutant);
            ASSERT_EQ(is_well_formed(mutant), expected) << each.what << ", round " << round;
            ++verdicts[expected];
        }
    }
    // Both kinds, or nothing has been compared.
    EXPECT_GT(verdicts[0], 10'000);
    EXPECT_GT(verdicts[1], 10'000);
}

TEST(AssociationRequest, TitlesLoseTheBlanksAroundThem) {
    const std::pair<std::string, std::string> cases[] = {{"A", "A"},
                                                         {"  A B ", "A B"},
                                                         {"SIXTEEN-LETTERS!", "SIXTEEN-LETTERS!"},
                                                         {std::string("A\0B", 3), "A"},
                                                         {"", ""}};
    for (const auto& [sent, read] : cases) {
        const std::string pdu = request("", sent);
        const std::vector<std::uint8_t> bytes(pdu.begin(), pdu.end());
        EXPECT_EQ(tarvo::calling_title(bytes), read);
        EXPECT_EQ(tarvo::called_title(bytes), "CALLED");
    }
}

TEST(AssociationRequest, AnyVersionWithTheFirstBitWillDo) {
    const std::pair<std::size_t, bool> cases[] = {
        {0, true}, {1, false}, {2, true}, {3, false}, {0xFFFE, true}};
    for (const auto& [version, other] : cases) {
        const std::string pdu = request("", "A", version);
        const std::vector<std::uint8_t> bytes(pdu.begin(), pdu.end());
        EXPECT_EQ(tarvo::speaks_other_protocol(bytes), other) << version;
    }
}

}  // namespace
