#include "support/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <ctime>

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

// The message of the next write, whose whole line has the given length.
std::string logged(int length) {
    char packet[4096];
    const ssize_t got = ::read(packets, packet, sizeof packet);
    EXPECT_EQ(got, length);
    const std::string line(packet, static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return got > 0 ? line.substr(line.find(']') + 2) : "";
}

TEST(Log, MessagesFollowPrintfAndValuesCannotBreakTheLine) {
    const char unterminated[4] = {'1', '.', '2', '.'};
    const char* const nothing = std::getenv("TARVO_NO_SUCH_VARIABLE");
    const std::pair<std::string, std::string> table[] = {
        {logged(logprintf(1, stream, "100%% %c|%5d|%-5s|%05u|%x\n", 'a', -7, "ab", 42U, 255U)),
         "100% a|   -7|ab   |00042|ff\n"},
        {logged(logprintf(1, stream, "%ld %lld %zu %hu\n", -1L, 1LL << 40, std::size_t{9},
                          static_cast<unsigned short>(8))),
         "-1 1099511627776 9 8\n"},
        {logged(logprintf(1, stream, "%.1f %5.2e %o\n", 2.25, 1e9, 8U)), "2.2 1.00e+09 10\n"},
        {logged(logprintf(1, stream, "[%.*s][%.4s][%*d][%-*d][%.*s]\n", 3, unterminated,
                          unterminated, 4, 1, 4, 1, -1, "all")),
         "[1.2][1.2.][   1][1   ][all]\n"},
        {logged(logprintf(1, stream, "%s at %s\n", "EVIL\n2024\t\x7f\x1b[2J", nothing)),
         "EVIL?2024???[2J at (null)\n"},
        {logged(logprintf(1, stream, "%c%c M\xc3\xbcller\n", '\r', '\0')), "?? M\xc3\xbcller\n"},
    };
    for (const auto& [shown, expected] : table) EXPECT_EQ(shown, expected);
}

TEST(Log, MaskDecidesWhatIsWritten) {
    struct Case {
        unsigned highest, level;
        bool written;
    };
    EXPECT_EQ(logprintf(1, nullptr, "to nobody\n"), 0);
    // The first two rows meet the mask as a process starts with it.
    for (const auto& [highest, level, written] :
         {Case{0, 32, true}, Case{0, 64, false}, Case{128, 128, true}, Case{128, 256, false},
          Case{256, 256, true}, Case{256, 512, false}, Case{8, 16, false}}) {
        if (highest != 0) logprintf_setmaxlevel(highest);
        const int length = logprintf(level, stream, "x\n");
        EXPECT_EQ(length > 0, written) << highest << ' ' << level;
        EXPECT_EQ(logged(length > 0 ? length : -1), written ? "x\n" : "");
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
        std::tm local{};
        ASSERT_EQ(::strptime(line.c_str(), "%Y-%m-%d %H:%M:%S [", &local) - line.c_str(), 21);
        const std::string message = line.substr(line.find("]:") + 2);
        ASSERT_EQ(message, std::string(message.size() - 1, message[0]) + '>') << line;
    }
    EXPECT_EQ(whole, lines * std::ssize(children));
}

}  // namespace
