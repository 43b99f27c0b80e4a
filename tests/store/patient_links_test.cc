#include <gtest/gtest.h>

#include "store/local_store.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;

class PatientLinks : public testing::Test {
  protected:
    PatientLinks() { store.setLogfile(log.stream()); }

    const TemporaryDirectory directory;
    LocalStore store{directory.path().c_str()};
    LogCapture log;
};

TEST_F(PatientLinks, AreNamedByCleanedAttributes) {
    const std::string too_long(2048, 'L');
    const struct {
        Attributes attributes;
        const char* link;
    } cases[] = {
        {{},
         "patient/NoName_19000101_NoID/19000101_000000_NoDesc/19000101_000000_NoBPE_NoDesc/"
         "z_0000.dcm"},
        {{{DCM_PatientName, "DOE^JOHN jr"},
          {DCM_PatientBirthDate, "19700101"},
          {DCM_PatientID, "a.b-c/../d"},
          {DCM_StudyDate, "20200102"},
          {DCM_StudyTime, "083015.123"},
          {DCM_StudyDescription, "Thorax / Abdomen"},
          {DCM_SeriesDate, "20200103"},
          {DCM_SeriesTime, "10:15:30.25"},
          {DCM_BodyPartExamined, "CHEST"},
          {DCM_SeriesDescription, "M\xfcl\x01\n"},
          {DCM_InstanceNumber, "7"}},
         "patient/DOE^JOHN_jr_19700101_a.b_c_.._d/20200102_083015_Thorax___Abdomen/"
         "20200103_10_15_30_CHEST_M_l__/z_0007.dcm"},
        {{{DCM_PatientName, ".."},
          {DCM_PatientID, too_long},
          {DCM_StudyTime, "."},
          {DCM_SeriesTime, too_long},
          {DCM_InstanceNumber, "-3"}},
         "patient/.._19000101_TooLong/19000101__NoDesc/19000101_TooLong_NoBPE_NoDesc/z_-003.dcm"},
        {{{DCM_InstanceNumber, " 12345x"}, {DCM_StudyDescription, "."}},
         "patient/NoName_19000101_NoID/19000101_000000_./19000101_000000_NoBPE_NoDesc/"
         "z_12345.dcm"},
    };
    const std::string target = "../../../../uid/E2/E7/study_1.2.3/series_4/image_5.dcm";
    for (const auto& [attributes, name] : cases) {
        const std::string link = directory.file(name);
        auto dataset = dataset_of(attributes);
        put(*dataset, {{DCM_StudyInstanceUID, "1.2.3"},
                       {DCM_SeriesInstanceUID, "4"},
                       {DCM_SOPInstanceUID, "5"}});
        EXPECT_EQ(store.WriteSymlinks(dataset.get()), 0);
        ASSERT_TRUE(std::filesystem::is_symlink(link)) << link;
        EXPECT_EQ(std::filesystem::read_symlink(link), target);
        std::string message = "will link #" + target + "# to #";
        EXPECT_EQ(log.take(), message.append(link).append("#\n"));
        EXPECT_EQ(directory.tree().size(), 5U);
        std::filesystem::remove_all(directory.file("patient"));
    }
    // One file name never holds that much.
    auto dataset = dataset_of({{DCM_PatientName, std::string(2047, 'L')}});
    EXPECT_EQ(store.WriteSymlinks(dataset.get()), 5);
    EXPECT_EQ(log.take(), "Cannot create patient link directory.\n");
}

TEST_F(PatientLinks, LeadToTheStoredImageAndTheFirstOneKeepsTheName) {
    auto first = image("1.2.3", "4", "5");
    auto second = image("1.2.3", "4", "6");
    ASSERT_EQ(store.WriteDataset(first.get(), 0, nullptr, 0), 0);
    EXPECT_EQ(store.WriteSymlinks(first.get()), 0);
    EXPECT_EQ(store.WriteSymlinks(second.get()), 0);
    EXPECT_TRUE(std::filesystem::equivalent(
        directory.file("patient/DOE^JOHN_19000101_NoID/19000101_000000_NoDesc/"
                       "19000101_000000_NoBPE_NoDesc/z_0000.dcm"),
        store.GetUidPath(first.get(), 1)));
}

TEST_F(PatientLinks, ReportTheDirectoryThatCannotBeMade) {
    auto dataset = dataset_of({{DCM_StudyInstanceUID, "1.2.3"}});
    ASSERT_EQ(store.WriteSymlinks(dataset.get()), 0);
    log.take();
    for (const auto& [in_the_way, message] :
         {std::pair{"patient/NoName_19000101_NoID/19000101_000000_NoDesc",
                    "Cannot create series link directory.\n"},
          std::pair{"patient/NoName_19000101_NoID", "Cannot create study link directory.\n"},
          std::pair{"patient", "Cannot create patient link directory.\n"},
          std::pair{"", "Cannot create patient link base directory.\n"}}) {
        std::filesystem::remove_all(directory.file(in_the_way));
        if (*in_the_way != '\0') write_file(directory.file(in_the_way), "");
        EXPECT_EQ(store.WriteSymlinks(dataset.get()), 5);
        EXPECT_EQ(log.take(), message);
    }
}

TEST_F(PatientLinks, NeverLeadOutOfTheStore) {
    auto dataset = image("1.2.3", "4", "x/../../../../../../etc/passwd");
    EXPECT_EQ(store.WriteSymlinks(dataset.get()), 5);
    EXPECT_TRUE(directory.tree().empty());
}

}  // namespace
