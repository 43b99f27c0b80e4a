#include "store/local_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/store/store_test_support.h"

namespace {

using namespace tarvo::test;

TEST(StorePaths, FollowTheUidsAndTheChecksumOfTheStudy) {
    const LocalStore store("/base");
    EXPECT_EQ(store.GetUidPath(nullptr, nullptr, nullptr, 1), "/base/uid");
    EXPECT_EQ(store.GetUidPath("", nullptr, nullptr, 0), "/uid/00/00/study_");
    EXPECT_EQ(store.GetUidPath(nullptr, nullptr, "5", 0), "/uid/image_5.dcm");
    EXPECT_EQ(store.GetUidPath("a/b", "../c", "d", 0),
              "/uid/1C/40/study_a/b/series_../c/image_d.dcm");
    EXPECT_EQ(store.GetUidIndexPath("1.2.3", "4"),
              "/base/uid/E2/E7/study_1.2.3/series_4/IMAGEINDEX");
    EXPECT_EQ(store.GetUidBasePath("1.2.3"), "/base/uid/E2/E7");
}

TEST(StoreConfiguration, TheFirstLineIsTheBaseDirectory) {
    const TemporaryDirectory directory;
    const std::string file = directory.file("LocalStoreDir");
    LocalStore store("/base");
    store.ReadBaseDirConfig(file.c_str());  // missing
    EXPECT_STREQ(store.baseDir, "/base");
    for (const auto& [content, base] : std::vector<std::pair<std::string, std::string>>{
             {"/data/store\r\n/other\n", "/data/store"},
             {" /with blanks $(HOME) \n", " /with blanks $(HOME) "},
             {"\n/data/store\n", ""},
             {"", ""},
             {std::string(1500, 'x') + "\n", std::string(1023, 'x')}}) {
        directory.write("LocalStoreDir", content);
        store.ReadBaseDirConfig(file.c_str());
        EXPECT_EQ(store.baseDir, base);
    }
}

TEST(StoreDirectory, ComplainsAboutTheFirstAccessThatIsDenied) {
    const TemporaryDirectory directory;
    LocalStore store("/base");
    LogCapture log;
    store.setLogfile(log.stream());
    const auto result_and_message = [&](mode_t mode, int result, const std::string& message) {
        return in_child([&] {
            ::chmod(directory.path().c_str(), mode);
            // Root may do anything.
            if (::getuid() == 0 && (::chown(directory.path().c_str(), 65534, 65534) != 0 ||
                                    ::setresuid(65534, 65534, 65534) != 0)) {
                return 1;
            }
            const bool equal = store.check_and_complain_dir(directory.path().c_str()) == result;
            return equal && log.take() == message ? 0 : 2;
        });
    };
    const std::string rest = " Storage base directory " + directory.path() + ".\n";
    EXPECT_EQ(result_and_message(0700, 0, ""), 0);
    EXPECT_EQ(result_and_message(0300, 4, "Cannot read" + rest), 0);
    EXPECT_EQ(result_and_message(0600, 4, "Cannot traverse" + rest), 0);
    EXPECT_EQ(result_and_message(0500, 4, "Cannot write" + rest), 0);
    ::chmod(directory.path().c_str(), 0700);
}

TEST(StoreQueries, TellWhatIsThere) {
    const TemporaryDirectory directory;
    LocalStore store(directory.path().c_str());
    EXPECT_EQ(store.LS_GetTotalSpace(), 0);
    ASSERT_EQ(store.WriteDataset(image("1.2.3", "4", "5").get(), 0, nullptr, 0), 0);
    EXPECT_EQ(store.LS_GetTotalSpace(),
              static_cast<std::int64_t>(std::filesystem::space(directory.path()).capacity));
    const std::string stored = store.GetUidPath("1.2.3", "4", "5", 1);
    // The last two would lead to the image.
    for (const auto& [series, sop] :
         {std::pair{"4", "5"}, std::pair{"4", "6"}, std::pair{"4/../series_4", "5"},
          std::pair{"4", "x/../../image_5"}}) {
        const bool there = sop == std::string("5") && series == std::string("4");
        EXPECT_EQ(store.HaveFile("1.2.3", series, sop), there ? 0 : 2) << sop;
        EXPECT_EQ(store.HaveFileTime("1.2.3", series, sop) != 0, there);
        EXPECT_EQ(store.HaveFileSize("1.2.3", series, sop),
                  there ? content_of(stored).size() : 0xFFFFFFFFU);
    }
    const std::string index = store.GetUidIndexPath("1.2.3", nullptr) + ".dat";
    const timespec times[2] = {{1000000000, 0}, {1000000000, 999999999}};
    ASSERT_EQ(::utimensat(AT_FDCWD, index.c_str(), times, 0), 0);
    EXPECT_EQ(store.HaveFileTime("1.2.3", nullptr, nullptr), 1000000000U);
}

}  // namespace
