// Deletes that meet others at work in the same place.
#include <gtest/gtest.h>

#include "tests/store/store_test_support.h"

namespace {

using namespace tarvo::test;
using enum tarvo::LockKind;

class DeleteFile : public testing::Test {
  protected:
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
    const std::string data = directory.file("uid/STUDYINDEX.dat");
    const std::string study = directory.file("uid/E2/E7/study_1.2.3");
    const std::string image_index = study + "/series_4/IMAGEINDEX.dat";
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
    // What this process finds where it was does not make the rest of its memory right.
    ::usleep(20'000);
    for (const char* study_uid : {"9", "8"}) EXPECT_EQ(write(study_uid, "4", "5"), 0);
    EXPECT_EQ(keys_in(data, 512), (Strings{"1.2.3", "9", "8"}));
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), 0) << "its copy has as many entries";
    EXPECT_EQ(keys_in(data, 512), (Strings{"", "9", "8"}));
    EXPECT_EQ(write("1.2.3", "4", "5"), 0);
    EXPECT_EQ(keys_in(data, 512), (Strings{"", "9", "8", "1.2.3"}));
}

TEST_F(DeleteFile, TheScratchFileOfAKilledDeleteIsInNobodysWay) {
    const std::string scratch = directory.file("uid/E2/E7/DELETEME");
    for (const bool is_taken : {false, true}) {  // by a directory, so that nothing gets its name
        ASSERT_EQ(write("1.2.3", "4", "5"), 0);
        if (is_taken) {
            std::filesystem::create_directories(scratch + "/x");
        } else {
            append_to(scratch, "index");
        }
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), 0);
        EXPECT_FALSE(std::filesystem::is_regular_file(scratch) || std::filesystem::exists(study));
    }
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
