// Checksums, and where the program looks for what.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "support/crc32.h"
#include "support/paths.h"
#include "tests/support/test_helpers.h"

namespace {

using tarvo::test::TemporaryDirectory;

TEST(Crc32, MatchesThePublishedValues) {
    crc32_init(0xEDB88320);
    EXPECT_EQ(crc32_table[255], 0x2D02EF8DU);
    EXPECT_EQ(tarvo::crc32_of("123456789"), 0xCBF43926U);
    EXPECT_EQ(tarvo::crc32_of("\xff"), 0xFF000000U);
}

TEST(Paths, InstallationPrefix) {
    const TemporaryDirectory directory;
    const std::string program = directory.write("x/bin/server", "");
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
    const std::string search = "/nowhere:" + std::string(2000, 'l') + ":" + directory.file("x/bin");
    const struct {
        const char *word, *path;
        std::string prefix;
    } table[] = {
        {"/usr/local/bin/server", "/a", "/usr/local"},   {"/bin/server", "/a", "/bin"},
        {"/opt/x//bin///server", "/a", "/opt/x/"},       {"/server", "/a", ""},
        {"server", search.c_str(), directory.file("x")}, {"server", "/nowhere", ""},
    };
    const std::string before = std::getenv("PATH");
    for (const auto& [word, path, prefix] : table) {
        ::setenv("PATH", path, 1);
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
    ::setenv("HOME", "/a/home/dir/1", 1);
    ::setenv("TARVO_NEST", "$(HOME)", 1);
    ::unsetenv("progpath");
    detect_installpath("/opt/x/bin/server");
    const std::pair<const char*, const char*> table[] = {
        {"$HOME/$/x$", "$HOME/$/x$"},
        {"$(progpath)/etc", "/opt/x/etc"},
        {"$(TARVO_NEST)|$$(TARVO_NEST)", "$(HOME)|$$(HOME)"},
        {"$(HOME)1234567890123456", "/a/home/dir/11234567890123456"},
        {"$(HOME)12345678901234567", "fails"},  // no room for the terminator
        {"$(TARVO_NONE)", "fails"},
        {"/$(HOME", "fails"},
    };
    for (const auto& [path, expected] : table) EXPECT_EQ(expansion(path, 30), expected);

    const TemporaryDirectory directory;
    detect_installpath((directory.path() + "/inst/bin/server").c_str());
    const std::string own = directory.write(".tarvo/etc/F", "own");
    const std::string installed = directory.write("inst/share/tarvo/etc/F", "installed");
    char output[1024];
    const auto found = [&](const char* search) {
        return getfilepath(search, "F", R_OK, output, sizeof output);
    };
    ::setenv("HOME", directory.path().c_str(), 1);
    EXPECT_EQ(found(tarvo::configuration_search_path), own);
    EXPECT_EQ(found((std::string(3000, 'x') + "|$(HOME)/.tarvo/etc").c_str()), own);
    EXPECT_EQ(found("/nowhere||$(HOME"), nullptr);
    ::unsetenv("HOME");
    EXPECT_EQ(found(tarvo::configuration_search_path), installed);
}

}  // namespace
