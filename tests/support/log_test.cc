#include "support/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cinttypes>
#include <ctime>
#include <vector>

#include "tests/support/test_helpers.h"

namespace {

// The two ends of a pipe on which every write(2) stays apart; unbuffered like standard error.
int packets = -1;
FILE* open_packet_stream() {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_DIRECT | O_CLOEXEC | O_NONBLOCK) != 0) std::abort();
    packets = ends[0];
    FILE* const stream = ::fdopen(ends[1], "w");
    std::setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}
FILE* const stream = open_packet_stream();

// The line of the next write, empty when nothing was written.
std::string next_line() {
    char packet[4096];
    const ssize_t length = ::read(packets, packet, sizeof packet);
    return length > 0 ? std::string(packet, static_cast<std::size_t>(length)) : "";
}

std::string logged_message(int result) {
    const std::string line = next_line();
    EXPECT_EQ(line.size(), static_cast<std::size_t>(result));
    return line.substr(line.find(']') + 2);
}

TEST(Log, LineIsTimeAndProcessWithTheMessageRightBehind) {
    const std::time_t before = std::time(nullptr);
    logprintf(32, stream, "%d workers\n", 3);
    const std::string line = next_line();
    std::tm local{};
    local.tm_isdst = -1;
    const char* const rest = ::strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &local);
    ASSERT_NE(rest, nullptr) << line;
    EXPECT_EQ(rest - line.c_str(), 19);
    EXPECT_EQ(rest, " [" + std::to_string(::getpid()) + "]:3 workers\n");
    EXPECT_GE(std::mktime(&local), before);
    EXPECT_LE(std::mktime(&local), std::time(nullptr));
}

TEST(Log, MessagesFollowPrintfAndValuesCannotBreakTheLine) {
    const char unterminated[4] = {'1', '.', '2', '.'};
    const char* const nothing = std::getenv("TARVO_NO_SUCH_VARIABLE");
    const std::pair<std::string, std::string> table[] = {
        {logged_message(logprintf(1, stream, "plain\n")), "plain\n"},
        {logged_message(
             logprintf(1, stream, "100%% %c|%5d|%-5s|%05u|%x\n", 'a', -7, "ab", 42U, 255U)),
         "100% a|   -7|ab   |00042|ff\n"},
        {logged_message(logprintf(1, stream, "%ld %lld %zu %hu %" PRIx64 " %jd\n", -1L, 1LL << 40,
                                  std::size_t{9}, static_cast<unsigned short>(8),
                                  std::uint64_t{1} << 63, std::intmax_t{-5})),
         "-1 1099511627776 9 8 8000000000000000 -5\n"},
        {logged_message(logprintf(1, stream, "%.1f %5.2e %o\n", 2.25, 1e9, 8U)),
         "2.2 1.00e+09 10\n"},
        {logged_message(logprintf(1, stream, "[%.*s][%.4s][%*d][%-*d][%.*s]\n", 3, unterminated,
                                  unterminated, 4, 1, 4, 1, -1, "all")),
         "[1.2][1.2.][   1][1   ][all]\n"},
        {logged_message(logprintf(1, stream, "%s at %s\n", "EVIL\n2024\t\x7f\x1b[2J", nothing)),
         "EVIL?2024???[2J at (null)\n"},
        {logged_message(logprintf(1, stream, "%c%c\n", '\r', '\0')), "??\n"},
        {logged_message(logprintf(1, stream, "M\xc3\xbcller %s\n", "M\xc3\xbcller")),
         "M\xc3\xbcller M\xc3\xbcller\n"},
    };
    for (const auto& [shown, expected] : table) EXPECT_EQ(shown, expected);
    EXPECT_EQ(next_line(), "") << "one line took several writes";
}

TEST(Log, MaskDecidesWhatIsWritten) {
    struct Case {
        unsigned highest, level;
        bool written;
    };
    EXPECT_EQ(logprintf(1, nullptr, "to nobody\n"), 0);
    // The first two rows meet the mask as a process starts with it.
    for (const auto& [highest, level, written] : std::vector<Case>{{0, 32, true},
                                                                   {0, 64, false},
                                                                   {128, 64, true},
                                                                   {128, 128, true},
                                                                   {128, 256, false},
                                                                   {256, 256, true},
                                                                   {256, 512, false},
                                                                   {8, 16, false}}) {
        if (highest != 0) logprintf_setmaxlevel(highest);
        EXPECT_EQ(logprintf(level, stream, "x\n") > 0, written) << highest << ' ' << level;
        EXPECT_EQ(!next_line().empty(), written) << highest << ' ' << level;
    }
    logprintf_setmaxlevel(32);
}

TEST(Log, LinesOfManyProcessesStayWhole) {
    constexpr int lines = 200;
    const tarvo::test::TemporaryDirectory directory;
    const std::string path = directory.file("log");
    FILE* const file = std::fopen(path.c_str(), "ae");
    std::array<pid_t, 6> children{};
    for (std::size_t number = 0; number < children.size(); ++number) {
        children[number] = tarvo::test::start_child([&] {
            // Some lines are longer than any buffer of the stream.
            for (int line = 0; line < lines; ++line) {
                const std::string text(static_cast<std::size_t>(line) * 53, "abcdef"[number]);
                logprintf(32, file, "%s>\n", text.c_str());
            }
            return 0;
        });
    }
    for (const pid_t child : children) EXPECT_EQ(tarvo::test::exit_code(child), 0);
    std::fclose(file);
    std::istringstream log(tarvo::test::content_of(path));
    int whole = 0;
    for (std::string line; std::getline(log, line); ++whole) {
        const std::string message = line.substr(line.find("]:") + 2);
        ASSERT_EQ(message, std::string(message.size() - 1, message[0]) + '>') << line;
    }
    EXPECT_EQ(whole, lines * std::ssize(children));
}

}  // namespace
