// Where the program looks for what, and what a log line may hold.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>

#include "support/log.h"
#include "support/paths.h"
#include "tests/support/test_helpers.h"

namespace {

using tarvo::test::TemporaryDirectory;

TEST(Paths, InstallationPrefix) {
    const TemporaryDirectory directory;
    const std::string program = directory.write("x/bin/server", "");
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
    const std::string search = "/nowhere:" + std::string(2000, 'l') + ":" + directory.file("x/bin");
    const std::string before = std::getenv("PATH");
    ::setenv("PATH", search.c_str(), 1);
    const std::pair<const char*, std::string> table[] = {
        {"/usr/local/bin/server", "/usr/local"}, {"/bin/server", "/bin"},         {"/server", ""},
        {"/opt/x//bin///server", "/opt/x/"},     {"server", directory.file("x")},
    };
    for (const auto& [word, prefix] : table) {
        EXPECT_EQ(detect_installpath(word), 0);
        EXPECT_STREQ(prog_name, "server");
        EXPECT_EQ(prog_path, prefix) << word;
    }
    ::setenv("PATH", before.c_str(), 1);
}

// The expansion in a buffer of exactly that size, so that a sanitizer sees each byte too many.
std::string expansion(const std::string& path, std::size_t size) {
    const auto buffer = std::make_unique<char[]>(size);
    path.copy(buffer.get(), path.size());  // make_unique has set the terminator
    return TVPathExpandEnvironment(buffer.get(), size) == 0 ? buffer.get() : "fails";
}

TEST(Paths, VariablesExpandAndTheFirstUsableCandidateIsFound) {
    const TemporaryDirectory directory;
    ::setenv("HOME", "/a/home/dir/1", 1);
    ::setenv("TARVO_NEST", "$(HOME)", 1);
    detect_installpath((directory.path() + "/inst/bin/server").c_str());
    const std::pair<const char*, const char*> table[] = {
        {"$HOME/$/x$", "$HOME/$/x$"},
        {"$(TARVO_NEST)|$$(TARVO_NEST)", "$(HOME)|$$(HOME)"},
        {"$(HOME)1234567890123456", "/a/home/dir/11234567890123456"},
        {"$(HOME)12345678901234567", "fails"},  // no room for the terminator
        {"$(TARVO_NONE)", "fails"},
        {"/$(HOME", "fails"},
    };
    for (const auto& [path, expected] : table) EXPECT_EQ(expansion(path, 30), expected);

    const std::string own = directory.write(".tarvo/etc/F", "own");
    const std::string installed = directory.write("inst/share/tarvo/etc/F", "installed");
    char output[1024];
    const auto found = [&](const std::string& search) {
        return getfilepath(search.c_str(), "F", R_OK, output, sizeof output);
    };
    ::setenv("HOME", directory.path().c_str(), 1);
    EXPECT_EQ(found(tarvo::configuration_search_path), own);
    EXPECT_EQ(found(std::string(3000, 'x') + "|$(HOME)/.tarvo/etc"), own);
    EXPECT_EQ(found("/nowhere||$(HOME"), nullptr);
    ::unsetenv("HOME");
    EXPECT_EQ(found(tarvo::configuration_search_path), installed);
}

TEST(Log, MessagesFollowPrintfAndTheMask) {
    const TemporaryDirectory directory;
    FILE* const stream = std::fopen(directory.file("log").c_str(), "we");
    const char unterminated[4] = {'1', '.', '2', '.'};
    logprintf(1, stream, "100%% %c|%5d|%-5s|%05u|%x|%ld|%zu|%.1f\n", 'a', -7, "ab", 42U, 255U, -1L,
              std::size_t{9}, 2.25);
    logprintf(1, stream, "[%.*s][%.4s][%*d][%-*d][%.*s]\n", 3, unterminated, unterminated, 4, 1, 4,
              1, -1, "all");
    logprintf(1, stream, "%s %s%c%c\n", "\t\x7f\x1b[2J", std::getenv("TARVO_NO_SUCH"), '\r', '\0');
    logprintf(64, stream, "beyond the mask as a process starts with it\n");
    logprintf_setmaxlevel(128);
    logprintf(128, stream, "within\n");
    logprintf(256, stream, "beyond\n");
    std::fclose(stream);
    std::istringstream log(tarvo::test::content_of(directory.file("log")));
    std::string messages;
    for (std::string line; std::getline(log, line);)
        messages += line.substr(line.find(']') + 2) + '\n';
    EXPECT_EQ(messages,
              "100% a|   -7|ab   |00042|ff|-1|9|2.2\n"
              "[1.2][1.2.][   1][1   ][all]\n"
              "???[2J (null)??\n"
              "within\n");
    logprintf_setmaxlevel(32);
}

}  // namespace
