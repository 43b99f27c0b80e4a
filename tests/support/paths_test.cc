#include "support/paths.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <random>

#include "tests/support/test_helpers.h"

namespace {

using tarvo::test::TemporaryDirectory;

void set_variable(const char* name, const char* value) {
    value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
}

class Paths : public testing::Test {
  protected:
    Paths() {
        set_variable("HOME", directory.path().c_str());
        set_variable("TARVO_T", "value");
        set_variable("TARVO_NONE", nullptr);
        set_variable("progpath", nullptr);
    }
    const TemporaryDirectory directory;
};

TEST_F(Paths, InstallationPrefix) {
    const std::string program = directory.write("x/bin/server", "");
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
    directory.write("plain/server", "");
    const std::string search = "/nowhere:" + std::string(2000, 'l') + ":" +
                               directory.file("plain") + ":" + directory.file("x/bin");
    struct Case {
        const char* word;
        const char* path;
        std::string name, prefix;
    };
    const Case table[] = {
        {"/usr/local/bin/server", "/a", "server", "/usr/local"},
        {"./server", "/a", "server", "."},
        {"/bin/server", "/a", "server", "/bin"},
        {"/opt/x//bin///server", "/a", "server", "/opt/x/"},
        {"/server", "/a", "server", ""},
        {"server", search.c_str(), "server", directory.file("x")},
        {"server", "/nowhere", "server", ""},
        {"server", nullptr, "server", ""},
    };
    for (const Case& each : table) {
        set_variable("PATH", each.path);
        EXPECT_EQ(detect_installpath(each.word), 0);
        EXPECT_EQ(prog_name, each.name);
        EXPECT_EQ(prog_path, each.prefix) << each.word;
    }
    set_variable("PATH", "/a:/b::/c");
    detect_installpath("server");
    EXPECT_STREQ(ENV_PATH_PATH, "/a|/b||/c");
    set_variable("PATH", std::string(20000, 'p').c_str());
    detect_installpath(std::string(5000, '/').c_str());
    EXPECT_EQ(std::strlen(ENV_PATH_PATH), 10239U);
    EXPECT_STREQ(prog_path, "");
    set_variable("PATH", "/usr/bin:/bin");
}

// The expansion in a buffer of exactly that size, so that a sanitizer sees each byte too many.
std::string expansion(const std::string& path, std::size_t size) {
    const auto buffer = std::make_unique<char[]>(size);
    path.copy(buffer.get(), path.size());  // make_unique has set the terminator
    return TVPathExpandEnvironment(buffer.get(), size) == 0 ? buffer.get() : "fails";
}

TEST_F(Paths, VariablesExpand) {
    detect_installpath("/opt/x/bin/server");
    set_variable("TARVO_NEST", "$(TARVO_T)");
    set_variable("HOME", "/a/home/dir/1");
    const std::pair<std::string, std::string> table[] = {
        {"$HOME/$/x$", "$HOME/$/x$"},
        {"$(progpath)/etc", "/opt/x/etc"},
        {"$(TARVO_NEST)|$$(TARVO_T)", "$(TARVO_T)|$value"},
        {"$(HOME)123456789012", "/a/home/dir/1123456789012"},
        {"$(HOME)1234567890123", "fails"},  // no room for the terminator
    };
    for (const auto& [path, expected] : table) EXPECT_EQ(expansion(path, 26), expected);
    set_variable("progpath", "/elsewhere");
    EXPECT_EQ(expansion("$(progpath)", 26), "/elsewhere");
    testing::internal::CaptureStderr();
    EXPECT_EQ(expansion("$(TARVO_T)/$(HOME", 26), "fails");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Cannot correctly expand path:$(HOME.\n");
}

TEST_F(Paths, FirstUsableCandidateIsFound) {
    detect_installpath((directory.path() + "/inst/bin/server").c_str());
    const std::string own = directory.write(".tarvo/etc/F", "own");
    const std::string installed = directory.write("inst/share/tarvo/etc/F", "installed");
    const auto found = [](const std::string& search, const char* name, int mode = R_OK) {
        char output[1024];
        const char* const result = getfilepath(search.c_str(), name, mode, output, sizeof output);
        EXPECT_TRUE(result == nullptr || result == output);
        return std::string(result != nullptr ? result : "none");
    };
    const std::string server = tarvo::configuration_search_path;
    const std::string name = own.substr(1);  // below the root, for an empty element
    EXPECT_EQ(found(server, "F"), own);
    EXPECT_EQ(found("/nowhere||$(HOME)", name.c_str()), "/" + name);
    EXPECT_EQ(found("$(HOME", "F"), "none");
    EXPECT_EQ(found("$(HOME)/.tarvo/etc/F", ""), own);
    EXPECT_EQ(found(std::string(3000, 'x') + "|$(HOME)/.tarvo/etc", "F"), own);
    EXPECT_EQ(found("$(HOME)/.tarvo/etc", "F", X_OK), "none");
    EXPECT_EQ(found("", "F"), "none");
    EXPECT_EQ(getfilepath(nullptr, "F", R_OK, prog_path, 1), nullptr);
    set_variable("HOME", nullptr);
    EXPECT_EQ(found(server, "F"), installed);
}

TEST_F(Paths, ElementsAndHomePaths) {
    char output[64];
    const char* const elements = "$(TARVO_NONE)|a|$(TARVO_T)|";
    EXPECT_STREQ(getpathcomponent(elements, 1, output, sizeof output), "value");
    EXPECT_STREQ(getpathcomponent(elements, 2, output, sizeof output), "");
    EXPECT_EQ(getpathcomponent(elements, 3, output, sizeof output), nullptr);
    EXPECT_STREQ(getfilebase(nullptr, "n", output, sizeof output), "/n");
    set_variable("HOME", "/u");
    EXPECT_STREQ(gethomepath("n", output, 6), "/u/n");
    EXPECT_EQ(gethomepath("n", output, 5), nullptr);
    const std::string file = directory.write("file", "");
    EXPECT_EQ(try_mkdir(directory.file("new").c_str()), 0);
    EXPECT_EQ(try_mkdir(directory.file("new").c_str()), 0);
    EXPECT_EQ(try_mkdir(file.c_str()), -2);
    EXPECT_EQ(try_mkdir((file + "/below").c_str()), -1);
}

// The expansion of a template, or "fails", said in another way.
std::string expected_expansion(const std::string& path, std::size_t size) {
    std::string result;
    std::string rest = path;
    for (std::size_t start = 0; (start = rest.find("$(")) != std::string::npos;) {
        const std::size_t end = rest.find(')', start);
        if (end == std::string::npos) return "fails";
        const char* const value = std::getenv(rest.substr(start + 2, end - start - 2).c_str());
        if (value == nullptr) return "fails";
        result += rest.substr(0, start) + value;
        rest = rest.substr(end + 1);
        if (result.size() + rest.size() >= size) return "fails";
    }
    return result + rest;
}

TEST_F(Paths, RandomTemplatesStayInsideTheirBuffers) {
    static const char* const pieces[] = {
        "$",       "(", ")",   "$(TARVO_T)", "$(TARVO_NONE)",   "|",
        "$(HOME)", "/", "abc", "$(TARVO_T",  "xxxxxxxxxxxxxxxx"};
    std::mt19937 random(7);
    testing::internal::CaptureStderr();
    for (int round = 0; round < 5000; ++round) {
        std::string path;
        for (auto count = random() % 40; count > 0; --count) {
            path += pieces[random() % std::size(pieces)];
        }
        const std::size_t size = path.size() + 1 + random() % 40;
        ASSERT_EQ(expansion(path, size), expected_expansion(path, size)) << path;
        const std::size_t small = 1 + random() % 64;
        const auto output = std::make_unique<char[]>(small);
        std::fill_n(output.get(), small, 'z');
        if (getfilepath(path.c_str(), "F", R_OK, output.get(), small) != nullptr ||
            getpathcomponent(path.c_str(), 0, output.get(), small) != nullptr) {
            ASSERT_LT(::strnlen(output.get(), small), small) << path;
        }
    }
    testing::internal::GetCapturedStderr();
}

}  // namespace
