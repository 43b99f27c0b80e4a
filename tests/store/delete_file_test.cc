// Deletes that meet trouble, or others at work in the same place.
#include <gtest/gtest.h>

#include <csignal>

#include "tests/store/store_test_support.h"

namespace {

using namespace tarvo::test;
using enum tarvo::LockKind;

class DeleteFile : public testing::Test {
  protected:
    DeleteFile() { store.setLogfile(log.stream()); }

    int write(const std::string& study_uid, const std::string& series, const std::string& sop) {
        return store.WriteDataset(image(study_uid, series, sop).get(), 1, nullptr, 0);
    }
    // Whether queries find an image at image, series and study level, one letter for each.
    [[nodiscard]] std::string levels_of(const char* series, const char* sop) const {
        LocalStore fresh(directory.path().c_str());
        const Dataset query = image("1.2.3", series, sop);
        std::string found;
        for (const char* level : {"IMAGE", "SERIES", "STUDY"}) {
            DcmDataset answer;
            DcmDataset* response = &answer;
            void* handle = nullptr;
            if (fresh.FindDataset(&handle, query.get(), &response, level) == 0) found += level[1];
            LocalStore::EndFind(&handle);
        }
        return found;
    }

    const TemporaryDirectory directory;
    const std::string hash = directory.file("uid/STUDYINDEX.hash");
    const std::string data = directory.file("uid/STUDYINDEX.dat");
    const std::string study = directory.file("uid/E2/E7/study_1.2.3");
    const std::string series_index = study + "/SERIESINDEX.dat";
    const std::string image_index = study + "/series_4/IMAGEINDEX.dat";
    const std::string image_5 = study + "/series_4/image_5.dcm";
    LogCapture log;
    LocalStore store{directory.path().c_str()};
};

TEST_F(DeleteFile, AStudyIsFoundWhereAnotherServerMovedIt) {
    for (const char* study_uid : {"7", "1.2.3", "9"}) ASSERT_EQ(write(study_uid, "4", "5"), 0);
    EXPECT_EQ(in_child([&] {
                  return store.DeleteFile("7", "4", "5") + store.compactStudyHash() +
                         write("8", "4", "5");
              }),
              1);
    EXPECT_EQ(keys_in(data, 512), (Strings{"1.2.3", "9", "8"}));
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), 0) << "its copy has as many entries";
    EXPECT_EQ(keys_in(data, 512), (Strings{"", "9", "8"}));
    EXPECT_EQ(write("1.2.3", "4", "5"), 0);
    EXPECT_EQ(keys_in(data, 512), (Strings{"", "9", "8", "1.2.3"}));
}

TEST_F(DeleteFile, GoesOnWhenAStepFails) {
    namespace fs = std::filesystem;
    const std::string scratch = directory.file("uid/E2/E7/DELETEME");
    const struct {
        const char* name;
        std::function<void()> trouble;
        std::string message;
        int result;
        bool marked;
    } cases[] = {
        {"the file is gone already", [&] { fs::remove(image_5); },
         "Cannot delete image " + image_5 + ": No such file or directory.\n", 0, true},
        {"a killed delete left its scratch file", [&] { append_to(scratch, "index"); },
         "Del SER rmdir", 0, true},
        {"the scratch name is taken", [&] { fs::create_directories(scratch + "/x"); },
         "Del SER rmdir", 0, true},
        {"another file in the series", [&] { append_to(study + "/series_4/other", "x"); },
         "Del SERIES rmdir " + study + " failed\n", -1, true},
        {"no series index", [&] { fs::remove(series_index); }, "Del SER in " + series_index + "\n",
         1, false},
        {"no data file", [&] { fs::rename(data, scratch); },
         "Del SER rmdir(" + study + "/series_4)\n", 1, false},
        {"a hash file that is cut", [&] { fs::resize_file(hash, 29); },
         "AIEEE: Can't update study hash in delete().\n", 0, true},
        {"no hash file", [&] { fs::remove(hash); }, "Del SER rmdir(" + study + "/series_4)\n", 1,
         false},
    };
    for (const auto& [name, trouble, message, result, marked] : cases) {
        SCOPED_TRACE(name);
        fs::remove_all(directory.file("uid"));
        ASSERT_EQ(write("1.2.3", "4", "5"), 0);
        trouble();
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), result);
        EXPECT_NE(log.take().find(message), std::string::npos);
        EXPECT_FALSE(fs::exists(image_5));
        EXPECT_FALSE(fs::is_regular_file(scratch));
        EXPECT_FALSE(fs::exists(image_index) && keys_in(image_index, 768)[0] != "");
        const std::string entry = content_of(hash);
        EXPECT_EQ(!entry.empty() && (entry[0] & 1) != 0, marked);
    }
}

TEST_F(DeleteFile, ASecondDeleteFinishesWhatAKilledOneBegan) {
    ASSERT_EQ(write("1.2.3", "4", "5"), 0);
    EXPECT_EQ(after_waiting(
                  series_index, shared,
                  [&] {
                      ::alarm(1);  // kills it while it waits for the series index
                      return store.DeleteFile("1.2.3", "4", "5");
                  },
                  [&] {
                      EXPECT_FALSE(std::filesystem::exists(image_5));
                      ::sleep(1);
                  }),
              -1);
    EXPECT_EQ(levels_of("4", "5"), "MET");
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), 0);
    EXPECT_EQ(levels_of("4", "5"), "");
    EXPECT_FALSE(std::filesystem::exists(study));
}

// The storer has entered the study and the series and waits for the image index when the delete of
// the only other image takes all of them away. Only then the index is free: we hold its lock.
TEST_F(DeleteFile, AStoreOutlivesADeleteThatTakesItsSeriesAway) {
    for (const int directory_stays : {0, -1}) {
        ASSERT_EQ(write("1.2.3", "4", "5"), 0);
        if (directory_stays != 0) append_to(study + "/series_4/other", "x");
        EXPECT_EQ(after_waiting(
                      image_index, exclusive, [&] { return write("1.2.3", "4", "6"); },
                      [&] { EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), directory_stays); }),
                  0);
        EXPECT_EQ(levels_of("4", "6"), "MET") << directory_stays;
        EXPECT_EQ(levels_of("4", "5"), "ET");
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", "6"), directory_stays);
    }
}

// While it waits, the index goes and another one with more images takes its place.
TEST_F(DeleteFile, ADeleteLooksIntoTheIndexThatStandsUnderTheName) {
    ASSERT_EQ(write("1.2.3", "4", "5"), 0);
    const auto replace_index = [&] {
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", nullptr), -1);
        LocalStore other(directory.path().c_str());  // ours would give the lock away
        for (const char* sop : {"5", "6"}) {
            EXPECT_EQ(other.WriteDataset(image("1.2.3", "4", sop).get(), 1, nullptr, 0), 0);
        }
    };
    EXPECT_EQ(after_waiting(
                  image_index, shared, [&] { return store.DeleteFile("1.2.3", "4", "5"); },
                  replace_index),
              0);
    EXPECT_EQ(levels_of("4", "5"), "ET");
    EXPECT_EQ(levels_of("4", "6"), "MET");
    EXPECT_EQ(store.DeleteFile("1.2.3", nullptr, nullptr), -1) << "files stay";
    EXPECT_EQ(levels_of("4", "6"), "M");
}

}  // namespace
