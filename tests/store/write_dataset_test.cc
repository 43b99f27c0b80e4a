#include <gtest/gtest.h>

#include <set>

#include "store/local_store.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;

class WriteDataset : public testing::Test {
  protected:
    WriteDataset() { store.setLogfile(log.stream()); }

    int write(DcmDataset& dataset, int overwrite = 0) {
        return store.WriteDataset(&dataset, overwrite, nullptr, 0);
    }
    [[nodiscard]] std::string path_of(DcmDataset& dataset) const {
        return store.GetUidPath(&dataset, 1);
    }

    const TemporaryDirectory directory;
    const std::string study = directory.file("uid/E2/E7/study_1.2.3/");
    const std::string series_index = study + "SERIESINDEX.dat";
    const std::string image_index = study + "series_4/IMAGEINDEX.dat";
    LocalStore store{directory.path().c_str()};
    LogCapture log;
};

TEST_F(WriteDataset, StoresTheImageAsItCame) {
    auto sent = image("1.2.3", "4", "5", {{DCM_ImageComments, "odd"}});
    auto compressed = compressed_image(1000);
    for (const E_TransferSyntax syntax :
         {EXS_LittleEndianExplicit, EXS_LittleEndianImplicit, EXS_BigEndianExplicit,
          EXS_DeflatedLittleEndianExplicit, EXS_JPEGProcess1}) {
        SCOPED_TRACE(DcmXfer(syntax).getXferName());
        const bool is_compressed = syntax == EXS_JPEGProcess1;
        DcmDataset& original = is_compressed ? *compressed : *sent;
        auto dataset = received(original, syntax);
        EXPECT_EQ(write(*dataset, 1), 0);
        EXPECT_EQ(log.take(),
                  is_compressed
                      ? "LocalStore::WriteDataset: Cannot write LE-Exp TS, using original.\n"
                      : "");
        DcmFileFormat file;
        ASSERT_TRUE(file.loadFile(path_of(original).c_str()).good());
        EXPECT_EQ(file.getDataset()->getOriginalXfer(),
                  is_compressed ? syntax : EXS_LittleEndianExplicit);
        EXPECT_EQ(file.getDataset()->compare(original), 0);
        EXPECT_EQ(dataset->compare(original), 0);
    }
    std::filesystem::remove_all(study + "series_1.2.3.1");
    EXPECT_EQ(directory.tree(),
              (Strings{"uid", "uid/E2", "uid/E2/E7", "uid/E2/E7/study_1.2.3",
                       "uid/E2/E7/study_1.2.3/SERIESINDEX.dat", "uid/E2/E7/study_1.2.3/series_4",
                       "uid/E2/E7/study_1.2.3/series_4/IMAGEINDEX.dat",
                       "uid/E2/E7/study_1.2.3/series_4/image_5.dcm", "uid/STUDYINDEX.dat",
                       "uid/STUDYINDEX.hash"}));
}

// An attribute and where so many bytes of it stand in a record.
struct Field {
    DcmTagKey tag;
    std::string value;
    std::size_t offset;
    std::size_t stored;
};

std::string record_of(std::size_t size, const std::vector<Field>& fields) {
    std::string record(size, '\0');
    for (const Field& field : fields) {
        record.replace(field.offset, field.stored, field.value.substr(0, field.stored));
    }
    return record;
}

TEST_F(WriteDataset, FillsTheIndexRecords) {
    const std::vector<Field> series = {{DCM_SeriesInstanceUID, "4", 0, 1},
                                       {DCM_StudyInstanceUID, "1.2.3", 64, 5},
                                       {DCM_SeriesDescription, "SERIES DESC", 128, 11},
                                       {DCM_ProtocolName, "PROTOCOL", 192, 8},
                                       {DCM_SeriesDate, "20200102", 256, 8},
                                       {DCM_SeriesTime, "101530.123456", 264, 6},
                                       {DCM_SeriesNumber, "12", 270, 2},
                                       {DCM_BodyPartExamined, "CHEST", 282, 5},
                                       {DCM_PatientPosition, "FFDRX", 298, 4},
                                       {DCM_Modality, "RTIMAGE", 302, 2}};
    const std::vector<Field> images = {{DCM_SOPInstanceUID, "5", 0, 1},
                                       {DCM_SeriesInstanceUID, "4", 64, 1},
                                       {DCM_StudyInstanceUID, "1.2.3", 128, 5},
                                       {DCM_ImageType, "ORIGINAL\\PRIMARY", 192, 16},
                                       {DCM_ImageComments, std::string(300, 'c'), 256, 256},
                                       {DCM_PatientOrientation, "L\\P", 512, 3},
                                       {DCM_SliceLocation, "-12.5", 544, 5},
                                       {DCM_ImagePositionPatient, "1\\2.5\\-3", 560, 8},
                                       {DCM_ImageOrientationPatient, "1\\0\\0\\0\\1\\0", 612, 11},
                                       {DCM_AcquisitionNumber, "3", 716, 1},
                                       {DCM_InstanceNumber, "44", 728, 2},
                                       {DCM_ImagesInAcquisition, "100", 740, 3},
                                       {DCM_AcquisitionDate, "20200103", 752, 8},
                                       {DCM_AcquisitionTime, "101531.5", 760, 6}};
    auto dataset = image("1.2.3", "4", "5");
    for (const auto& fields : {series, images}) {
        for (const Field& field : fields) put(*dataset, {{field.tag, field.value}});
    }
    EXPECT_EQ(write(*dataset), 0);
    EXPECT_EQ(read_file(series_index), record_of(320, series));
    EXPECT_EQ(write(*image("1.2.3", "4", "6")), 0);
    EXPECT_EQ(read_file(series_index), record_of(320, {series[0], series[1], {{}, "CT", 302, 2}}))
        << "the latest image describes the series";
    EXPECT_EQ(read_file(image_index),
              record_of(768, images) + record_of(768, {{{}, "6", 0, 1}, images[1], images[2]}));
}

TEST_F(WriteDataset, RefusesADatasetWithoutItsUidsOrWithUidsThatHoldASlash) {
    const struct {
        DcmTagKey tag;
        const char* value;  // null: absent
        int result;
        std::string message;
    } cases[] = {
        {DCM_StudyInstanceUID, nullptr, 6, "No DCM_StudyInstanceUID?\n"},
        {DCM_SeriesInstanceUID, nullptr, 6, "No DCM_SeriesInstanceUID?\n"},
        {DCM_SOPInstanceUID, nullptr, 6, "No DCM_SOPInstanceUID?\n"},
        {DCM_StudyInstanceUID, "../1", 5, "Cannot create storage study directory.\n"},
        {DCM_SeriesInstanceUID, "/tmp", 5, "Cannot create storage series directory.\n"},
        {DCM_SOPInstanceUID, "../5", 3,
         "Cannot write image " + study + "series_4/image_../5.dcm: '/' in its UID.\n"},
    };
    for (const auto& [tag, value, result, message] : cases) {
        auto dataset = image("1.2.3", "4", "5");
        delete dataset->remove(tag);
        if (value != nullptr) put(*dataset, {{tag, value}});
        EXPECT_EQ(write(*dataset), result);
        EXPECT_EQ(log.take(), message);
        EXPECT_TRUE(directory.tree().empty());
    }
}

TEST_F(WriteDataset, KeepsOrReplacesAnImageThatIsThere) {
    auto first = image("1.2.3", "4", "5", {{DCM_ImageComments, "first"}});
    auto second = image("1.2.3", "4", "5", {{DCM_ImageComments, "second"}});
    ASSERT_EQ(write(*first), 0);
    const std::string kept = read_file(path_of(*first));
    EXPECT_EQ(write(*second, 0), 1);
    EXPECT_EQ(log.take(), "Target file " + path_of(*first) + " exists - not storing.\n");
    EXPECT_EQ(read_file(path_of(*first)), kept);
    EXPECT_EQ(read_file(image_index).substr(256, 7), std::string("second\0", 7))
        << "the record follows the latest image all the same";
    EXPECT_EQ(write(*second, 1), 0);
    EXPECT_NE(read_file(path_of(*first)), kept);
    EXPECT_EQ(read_file(image_index).size(), 768U);
}

TEST_F(WriteDataset, MakesLinksToAFile) {
    const std::string source = directory.file("source");
    write_file(source, "image");
    for (const int mode : {1, 2}) {
        auto dataset = image("1.2.3", "4", std::to_string(mode));
        EXPECT_EQ(store.WriteDataset(dataset.get(), 0, nullptr, mode), 3);
        EXPECT_EQ(keys_in(image_index, 768).back(), std::to_string(mode));
        EXPECT_EQ(store.WriteDataset(dataset.get(), 0, source.c_str(), mode), 0);
        EXPECT_EQ(read_file(path_of(*dataset)), "image");
        EXPECT_EQ(std::filesystem::is_symlink(path_of(*dataset)), mode == 1);
        EXPECT_EQ(store.WriteDataset(dataset.get(), 1, source.c_str(), mode), 3);
    }
}

// Something else has the name that a step needs.
TEST_F(WriteDataset, ReportsTheStepThatFails) {
    const std::string hash = directory.file("uid/STUDYINDEX.hash");
    const std::string data = directory.file("uid/STUDYINDEX.dat");
    const std::string target = study + "series_4/image_5.dcm";
    const struct {
        std::string in_the_way;
        bool is_directory;
        int result;
        std::string message;
    } cases[] = {
        {directory.file("uid"), false, 5, "Cannot create storage study C1 directory.\n"},
        {study + "series_4", false, 3, "Cannot write image " + target + ": Not a directory.\n"},
        {hash, true, 3, "Cannot update study index " + hash + ".\n"},
        {data, true, 3, "Cannot update study index " + hash + ".\n"},
        {target, true, 3, "Cannot write image " + target + ": Is a directory.\n"},
        // The image is worth more than its records.
        {series_index, true, 0, ""},
        {image_index, true, 0, ""},
    };
    for (const auto& [in_the_way, is_directory, result, message] : cases) {
        const std::filesystem::path path = in_the_way;
        std::filesystem::create_directories(is_directory ? path : path.parent_path());
        if (!is_directory) write_file(path, "");
        EXPECT_EQ(write(*image("1.2.3", "4", "5"), 1), result) << in_the_way;
        EXPECT_EQ(log.take(), message);
        EXPECT_EQ(store.HaveFile("1.2.3", "4", "5") == 0, result == 0 || path == target);
        for (const std::string& name : directory.tree()) EXPECT_FALSE(name.ends_with(".tmp"));
        std::filesystem::remove_all(directory.file("uid"));
    }
}

// First the study's record does not fit, then the records of the image, in the end the image.
TEST_F(WriteDataset, NothingTornStaysBehindOnAFullDisk) {
    auto dataset = image("1.2.3", "4", "5");
    for (const rlim_t room : {10U, 300U, 600U, 767U, 800U, 1400U}) {
        EXPECT_EQ(in_child_with_room(room, [&] { return write(*dataset); }), 3) << room;
        for (const std::string& name : directory.tree()) {
            const std::string path = directory.file(name);
            if (std::filesystem::is_directory(path)) continue;
            EXPECT_EQ(std::filesystem::file_size(path) % (path == series_index      ? 320
                                                          : path == image_index     ? 768
                                                          : name.ends_with(".hash") ? 28
                                                                                    : 512),
                      0U)
                << path;
        }
        EXPECT_NE(store.HaveDataset(dataset.get()), 0);
    }
    EXPECT_EQ(write(*dataset), 0) << "when there is room again";
    EXPECT_EQ(read_file(directory.file("uid/STUDYINDEX.hash")).size(), 28U);
    EXPECT_EQ(keys_in(series_index, 320), Strings{"4"});
    EXPECT_EQ(keys_in(image_index, 768), Strings{"5"});
}

TEST_F(WriteDataset, EightProcessesFillOneSeries) {
    EXPECT_EQ(in_eight_children([&](int number) {
                  for (int i = number; i < 240; i += 8) {
                      if (write(*image("1.2.3", "4", std::to_string(i))) != 0) return 1;
                  }
                  return 0;
              }),
              8);
    EXPECT_EQ(read_file(directory.file("uid/STUDYINDEX.hash")).size(), 28U);
    EXPECT_EQ(keys_in(series_index, 320), Strings{"4"});
    const Strings keys = keys_in(image_index, 768);
    EXPECT_EQ(keys.size(), 240U);
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), 240U);
    for (const std::string& key : keys) EXPECT_EQ(store.HaveFile("1.2.3", "4", key.c_str()), 0);
}

}  // namespace
