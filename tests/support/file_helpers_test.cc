#include "support/file_helpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "support/crc32.h"
#include "support/unique_fd.h"
#include "support/whole_file_lock.h"
#include "tests/support/test_helpers.h"

namespace {

using tarvo::LockKind;
using tarvo::UniqueFd;
using tarvo::WholeFileLock;
using tarvo::test::content_of;
using tarvo::test::TemporaryDirectory;

TEST(Crc32, MatchesThePublishedValues) {
    crc32_init(0xEDB88320);
    EXPECT_EQ(crc32_table[1], 0x77073096U);
    EXPECT_EQ(crc32_table[255], 0x2D02EF8DU);
    EXPECT_EQ(tarvo::crc32_of("123456789"), 0xCBF43926U);
    EXPECT_EQ(tarvo::crc32_of("\xff"), 0xFF000000U);
    EXPECT_EQ(tarvo::crc32_of(""), 0U);
}

TEST(FileHelpers, MakeDirectoriesAndTemporaryFiles) {
    const TemporaryDirectory directory;
    EXPECT_EQ(TVCompat_mkdir(directory.file("a").c_str(), 0777), 0);
    EXPECT_EQ(TVCompat_mkdir(directory.file("a").c_str(), 0777), -1);
    EXPECT_EQ(errno, EEXIST);
    char name[64];
    const UniqueFd file(TVCompat_mkstemp(name, sizeof name, "abc"));
    ASSERT_TRUE(file);
    EXPECT_EQ(std::string(name).substr(0, 8), "/tmp/abc");
    EXPECT_EQ(std::strlen(name), 14U);
    EXPECT_NE(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(::unlink(name), 0);
    EXPECT_EQ(TVCompat_mkstemp(name, 12, "abc"), -1) << "a cut template";
}

TEST(FileHelpers, WritesCarryOnAndReportTheFirstFailure) {
    const TemporaryDirectory directory;
    const std::string path = directory.write("file", "0123456789");
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    char text[8] = {};
    EXPECT_EQ(tarvo::read_at(file.get(), text, 8, 6), 4);
    EXPECT_STREQ(text, "6789");
    EXPECT_TRUE(tarvo::write_at(file.get(), "ab", 2, 9));
    EXPECT_EQ(writeAll(file.get(), "", 0), 0);
    EXPECT_EQ(writeAll(file.get(), "XY", 2), 2) << "at the start: the position had not moved";
    EXPECT_EQ(content_of(path), "XY2345678ab");
    EXPECT_EQ(tarvo::file_size(file.get()), 11);
    // A limit on the file's size lets one short write through and refuses the next.
    EXPECT_EQ(tarvo::test::in_child([&] {
                  std::signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{20, 20};
                  ::setrlimit(RLIMIT_FSIZE, &limit);
                  const std::string much(40, '-');
                  return (writeAll(file.get(), much.data(), 40) == -1) +
                         2 * !tarvo::write_at(file.get(), much.data(), 40, 10);
              }),
              3);
    EXPECT_EQ(tarvo::file_size(file.get()), 20);
}

// What a second process gets when it asks for a lock without waiting.
bool second_process_may(const std::string& path, short kind) {
    return tarvo::test::in_child([&] {
               const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
               struct flock lock {};
               lock.l_type = kind;
               lock.l_whence = SEEK_SET;
               lock.l_start = 1'000'000;  // far beyond the end: whole means whole
               return ::fcntl(file.get(), F_SETLK, &lock) == 0 ? 0 : 1;
           }) == 0;
}

TEST(WholeFileLock, KeepsOtherProcessesOut) {
    const TemporaryDirectory directory;
    const std::string path = directory.write("file", "x");
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    {
        const WholeFileLock lock(file.get(), LockKind::shared);
        ASSERT_TRUE(lock.held());
        EXPECT_TRUE(second_process_may(path, F_RDLCK));
        EXPECT_FALSE(second_process_may(path, F_WRLCK));
        ASSERT_EQ(TVCompat_LockWholeFile(file.get(), 1), 0);
        EXPECT_FALSE(second_process_may(path, F_RDLCK));
    }
    EXPECT_TRUE(second_process_may(path, F_WRLCK));
    const UniqueFd read_only(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(TVCompat_LockWholeFile(read_only.get(), 1), -1);
    EXPECT_EQ(errno, EBADF);
}

}  // namespace
