// What the wire cannot show of queries: files that change below them, and what becomes of handles.
#include <gtest/gtest.h>

#include "tests/store/store_test_support.h"

namespace {

using namespace tarvo::test;

const std::string full_uid(64, '7');

class FindDataset : public testing::Test {
  protected:
    int write(const std::string& study, const std::string& series, const std::string& sop) {
        return store.WriteDataset(image(study, series, sop).get(), 0, nullptr, 0);
    }
    // The next value of `tag` that is found, else the result.
    std::string next(const char* level, const DcmTagKey& tag) {
        DcmDataset* response = nullptr;
        const int result = store.FindDataset(&handle, &query, &response, level);
        const Dataset owner(response);
        OFString value;
        if (response != nullptr) response->findAndGetOFStringArray(tag, value);
        return result == 0 ? value.c_str() : std::to_string(result);
    }
    Strings all(const char* level, const DcmTagKey& tag) {
        Strings values;
        do {
            values.push_back(next(level, tag));
        } while (handle != nullptr);
        return values;
    }
    void ask(const DcmTagKey& tag, const std::string& value) {
        query.putAndInsertOFStringArray(tag, value);
    }

    const TemporaryDirectory directory;
    LocalStore store{directory.path().c_str()};
    DcmDataset query;
    void* handle = nullptr;
};

TEST_F(FindDataset, AStudyHalfDeletedIsPassedOver) {
    for (const char* id : {"1", "2", "3"}) ASSERT_EQ(write(id, "4", "5"), 0);
    ask(DCM_StudyInstanceUID, "");
    patch_file(directory.file("uid/STUDYINDEX.hash"), 28, "\1");  // its record still stands
    patch_file(directory.file("uid/STUDYINDEX.dat"), 1024, std::string(1, '\0'));
    EXPECT_EQ(store.updateStudyHash(), 1);
    EXPECT_EQ(all("STUDY", DCM_StudyInstanceUID), (Strings{"1", "1"}));
}

TEST_F(FindDataset, AFragmentShowsNothingOfTheRecordBeforeIt) {
    ASSERT_EQ(write("1.2.3", "4", full_uid), 0);
    ask(DCM_StudyInstanceUID, "1.2.3");
    ask(DCM_SeriesInstanceUID, "4");
    append_to(store.GetUidIndexPath("1.2.3", "4") + ".dat", "6");
    EXPECT_EQ(all("IMAGE", DCM_SOPInstanceUID), (Strings{full_uid, "6", "1"}));
    EXPECT_EQ(all("IMAGE", DCM_SeriesInstanceUID), (Strings{"4", "", "1"}));
    ask(DCM_SOPInstanceUID, "6");
    EXPECT_EQ(all("IMAGE", DCM_SeriesInstanceUID), (Strings{"", "1"})) << "the other is read first";
    ask(DCM_SOPInstanceUID, full_uid + "1");
    EXPECT_EQ(all("IMAGE", DCM_SOPInstanceUID), (Strings{full_uid, "1"})) << "cut like the key";
}

TEST_F(FindDataset, ASeriesDeletedDuringTheWalkIsPassedOver) {
    for (const char* series : {"1", "2", "3"}) ASSERT_EQ(write("1.2.3", series, "5"), 0);
    ask(DCM_StudyInstanceUID, "1.2.3");
    EXPECT_EQ(next("IMAGE", DCM_SeriesInstanceUID), "1");
    EXPECT_EQ(in_child([&] { return store.DeleteFile("1.2.3", "2", "5"); }), 0);
    EXPECT_EQ(next("IMAGE", DCM_SeriesInstanceUID), "3");
    EXPECT_EQ(next("IMAGE", DCM_SeriesInstanceUID), "1");
    EXPECT_EQ(handle, nullptr);
    std::filesystem::remove((store.GetUidIndexPath("1.2.3", "3") + ".dat").c_str());
    EXPECT_EQ(all("IMAGE", DCM_SeriesInstanceUID), (Strings{"1", "-1"}))
        << "an index that is lost is not passed over";
}

}  // namespace
