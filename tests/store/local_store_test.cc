#include "store/local_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;

struct Uids {
    const char* study;
    const char* series;
    const char* image;
};

TEST(StorePaths, FollowTheUidsAndTheChecksumOfTheStudy) {
    const LocalStore store("/base");
    const struct {
        Uids uids;
        int with_base;
        const char* path;
    } cases[] = {
        {{nullptr, nullptr, nullptr}, 1, "/base/uid"},
        {{nullptr, nullptr, nullptr}, 0, "/uid"},
        {{"", nullptr, nullptr}, 1, "/base/uid/00/00/study_"},
        {{"1.2.3", "4", nullptr}, 0, "/uid/E2/E7/study_1.2.3/series_4"},
        {{nullptr, nullptr, "5"}, 0, "/uid/image_5.dcm"},
        {{"a/b", "../c", "d"}, 0, "/uid/1C/40/study_a/b/series_../c/image_d.dcm"},
    };
    for (const auto& [uids, with_base, path] : cases) {
        EXPECT_EQ(store.GetUidPath(uids.study, uids.series, uids.image, with_base), path);
    }
    EXPECT_EQ(store.GetUidPath(image("1.2.3", "4", "5").get(), 1),
              "/base/uid/E2/E7/study_1.2.3/series_4/image_5.dcm");
    EXPECT_EQ(store.GetUidIndexPath(nullptr, nullptr), "/base/uid/STUDYINDEX");
    EXPECT_EQ(store.GetUidIndexPath("1.2.3", nullptr), "/base/uid/E2/E7/study_1.2.3/SERIESINDEX");
    EXPECT_EQ(store.GetUidIndexPath("1.2.3", "4"),
              "/base/uid/E2/E7/study_1.2.3/series_4/IMAGEINDEX");
    EXPECT_EQ(store.GetUidBasePath("1.2.3"), "/base/uid/E2/E7");
    EXPECT_EQ(store.GetUidBasePath(nullptr), "/base");
}

TEST(StoreConfiguration, TheFirstLineIsTheBaseDirectory) {
    const TemporaryDirectory directory;
    const std::string file = directory.file("LocalStoreDir");
    LocalStore store("/base");
    store.ReadBaseDirConfig(nullptr);
    store.ReadBaseDirConfig(file.c_str());  // missing
    EXPECT_STREQ(store.baseDir, "/base");
    EXPECT_EQ(store.baseDirOwned, 0);
    for (const auto& [content, base] : std::vector<std::pair<std::string, std::string>>{
             {"/data/store\r\n/other\n", "/data/store"},
             {" /with blanks $(HOME) \n", " /with blanks $(HOME) "},
             {"\n/data/store\n", ""},
             {"", ""},
             {std::string(1500, 'x') + "\n", std::string(1023, 'x')}}) {
        write_file(file, content);
        store.ReadBaseDirConfig(file.c_str());
        EXPECT_EQ(store.baseDir, base);
        EXPECT_NE(store.baseDirOwned, 0);
    }
}

TEST(StoreConfiguration, IsFoundBelowTheHomeDirectory) {
    const TemporaryDirectory home;
    std::filesystem::create_directories(home.file(".tarvo/etc"));
    write_file(home.file(".tarvo/etc/LocalStoreDir"), "/images\n");
    const auto base_with_home = [&](const std::string& directory, const char* expected) {
        return in_child([&] {
            ::setenv("HOME", directory.c_str(), 1);
            const LocalStore store;
            return std::string(expected) == store.baseDir ? 0 : 1;
        });
    };
    EXPECT_EQ(base_with_home(home.path(), "/images"), 0);
    EXPECT_EQ(base_with_home(home.file("nowhere"), "/ct/dicom"), 0);
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

TEST(StoreDirectory, IsMadeStepByStep) {
    const TemporaryDirectory directory;
    const std::string base = directory.file("base");
    LocalStore store(base.c_str());
    LogCapture log;
    store.setLogfile(log.stream());
    EXPECT_EQ(store.CreateUidPath("1.2.3", "4"), 0);
    EXPECT_EQ(store.CreateUidPath("1.2.3", "4"), 0);
    EXPECT_EQ(directory.tree().back(), "base/uid/E2/E7/study_1.2.3/series_4");
    // A plain file passes its own step and stops the next one.
    for (const auto& [file, directory_kind] :
         {std::pair{"base/uid/E2/E7/study_1.2.3", "series"}, std::pair{"base/uid/E2/E7", "study"},
          std::pair{"base/uid/E2", "study C2"}, std::pair{"base/uid", "study C1"},
          std::pair{"base", "uid base"}}) {
        std::filesystem::remove_all(directory.file(file));
        write_file(directory.file(file), "in the way");
        EXPECT_EQ(store.CreateUidPath("1.2.3", "4"), 5);
        EXPECT_EQ(log.take(),
                  "Cannot create storage " + std::string(directory_kind) + " directory.\n");
    }
    std::filesystem::remove_all(directory.path());
    EXPECT_EQ(store.CreateUidPath(nullptr, nullptr), 5);
    EXPECT_EQ(log.take(), "Cannot create storage base directory.\n");
}

TEST(StoreQueries, TellWhatIsThere) {
    const TemporaryDirectory directory;
    LocalStore store(directory.path().c_str());
    EXPECT_EQ(store.LS_GetTotalSpace(), 0);
    EXPECT_EQ(store.LS_GetFreeSpace(), 0);
    ASSERT_EQ(store.CreateUidPath("1.2.3", "4"), 0);
    const auto space = std::filesystem::space(directory.path());
    EXPECT_EQ(store.LS_GetTotalSpace(), static_cast<std::int64_t>(space.capacity));
    EXPECT_GT(store.LS_GetFreeSpace(), 0);
    EXPECT_LE(store.LS_GetFreeSpace(), static_cast<std::int64_t>(space.free));

    const timespec times[2] = {{1000000000, 0}, {1000000000, 999999999}};
    for (const OFString& file :
         {store.GetUidPath("1.2.3", "4", "5", 1), store.GetUidIndexPath("1.2.3", "4") + ".dat",
          store.GetUidIndexPath("1.2.3", nullptr) + ".dat",
          store.GetUidIndexPath(nullptr, nullptr) + ".dat"}) {
        write_file(file, "12345");
        ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    }
    const struct {
        Uids uids;
        bool there;
    } cases[] = {{{"1.2.3", "4", "5"}, true},
                 {{"1.2.3", "4", "6"}, false},
                 // These would lead to the image.
                 {{"1.2.3", "4/../series_4", "5"}, false},
                 {{"1.2.3", "4", "x/../../image_5"}, false}};
    for (const auto& [uids, there] : cases) {
        const auto [study, series, sop] = uids;
        EXPECT_EQ(store.HaveFile(study, series, sop), there ? 0 : 2) << sop;
        EXPECT_EQ(store.HaveDataset(image(study, series, sop).get()), there ? 0 : 2);
        EXPECT_EQ(store.HaveFileTime(study, series, sop), there ? 1000000000U : 0U);
        EXPECT_EQ(store.HaveFileSize(study, series, sop), there ? 5U : 0xFFFFFFFFU);
    }
    EXPECT_EQ(store.HaveFileTime("1.2.3", "4", nullptr), 1000000000U);
    EXPECT_EQ(store.HaveFileTime("1.2.3", nullptr, nullptr), 1000000000U);
    EXPECT_EQ(store.HaveFileTime(nullptr, nullptr, nullptr), 1000000000U);
    EXPECT_EQ(store.HaveFileTime("1.2.3", "7", nullptr), 0U);
}

}  // namespace
