// Storing where something is in the way: full disks, other files, leftovers, deletes.
#include <gtest/gtest.h>

#include "store/image_file.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace tarvo::test;

class WriteDataset : public testing::Test {
  protected:
    WriteDataset() { store.setLogfile(log.stream()); }

    int write() { return store.WriteDataset(image("1.2.3", "4", "5").get(), 1, nullptr, 0); }

    const TemporaryDirectory directory;
    const std::string study = directory.file("uid/E2/E7/study_1.2.3/");
    const std::string series_index = study + "SERIESINDEX.dat";
    const std::string image_index = study + "series_4/IMAGEINDEX.dat";
    const std::string target = study + "series_4/image_5.dcm";
    LocalStore store{directory.path().c_str()};
    LogCapture log;
};

// Something else has the name that a step needs.
TEST_F(WriteDataset, ReportsTheStepThatFails) {
    const std::string hash = directory.file("uid/STUDYINDEX.hash");
    const struct {
        std::string in_the_way;
        bool is_directory;
        int result;
        std::string message;
    } cases[] = {
        {directory.file("uid/E2"), false, 5, "Cannot create storage study C2 directory.\n"},
        {study + "series_4", false, 3, "Cannot write image " + target + ": Not a directory.\n"},
        {hash, true, 3, "Cannot update study index " + hash + ".\n"},
        {directory.file("uid/STUDYINDEX.dat"), true, 3,
         "Cannot update study index " + hash + ".\n"},
        {target, true, 3, "Cannot write image " + target + ": Is a directory.\n"},
        // The image is worth more than its records.
        {series_index, true, 0, ""},
        {image_index, true, 0, ""},
    };
    for (const auto& [in_the_way, is_directory, result, message] : cases) {
        const std::filesystem::path path = in_the_way;
        std::filesystem::create_directories(is_directory ? path : path.parent_path());
        if (!is_directory) append_to(path, "x");
        EXPECT_EQ(write(), result) << in_the_way;
        EXPECT_EQ(log.take(), message);
        EXPECT_EQ(std::filesystem::is_regular_file(target), result == 0);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory.path())) {
            EXPECT_NE(entry.path().extension(), ".tmp");
        }
        std::filesystem::remove_all(directory.file("uid"));
    }
}

TEST_F(WriteDataset, MakesLinksToAFile) {
    const std::string source = directory.write("source", "image");
    for (const int mode : {1, 2}) {
        auto dataset = image("1.2.3", "4", "5");
        std::filesystem::remove(target);
        EXPECT_EQ(store.WriteDataset(dataset.get(), 0, nullptr, mode), 3);
        EXPECT_EQ(store.WriteDataset(dataset.get(), 0, source.c_str(), mode), 0);
        EXPECT_EQ(content_of(target), "image");
        EXPECT_EQ(std::filesystem::is_symlink(target), mode == 1);
        EXPECT_EQ(store.WriteDataset(dataset.get(), 1, source.c_str(), mode), 3);
    }
}

// First the study's record does not fit, then the records of the image, in the end the image.
TEST_F(WriteDataset, NothingTornStaysBehindOnAFullDisk) {
    for (const rlim_t room : {10U, 300U, 600U, 767U, 800U, 1400U}) {
        EXPECT_EQ(in_child_with_room(room, [&] { return write(); }), 3) << room;
        const std::pair<std::string, std::size_t> files[] = {
            {directory.file("uid/STUDYINDEX.hash"), 28},
            {directory.file("uid/STUDYINDEX.dat"), 512},
            {series_index, 320},
            {image_index, 768}};
        for (const auto& [path, size] : files)
            EXPECT_EQ(content_of(path).size() % size, 0U) << path;
        EXPECT_FALSE(std::filesystem::exists(target));
    }
    EXPECT_EQ(write(), 0) << "when there is room again";
    EXPECT_EQ(keys_in(directory.file("uid/STUDYINDEX.dat"), 512), Strings{"1.2.3"});
    EXPECT_EQ(keys_in(series_index, 320), Strings{"4"});
    EXPECT_EQ(keys_in(image_index, 768), Strings{"5"});
}

TEST(ImageFile, HasTheBytesThatTheToolkitWouldWriteOrReportsTheFailure) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("image.dcm");
    std::string reason;
    const tarvo::DiskSync sync(true);
    for (const E_TransferSyntax syntax :
         {EXS_LittleEndianExplicit, EXS_LittleEndianImplicit, EXS_DeflatedLittleEndianExplicit}) {
        for (const std::size_t pixels : {500U, 300'000U}) {
            auto dataset = image("1", "2", "3", {}, pixels);
            const std::string other = directory.file("toolkit.dcm");
            DcmFileFormat copy(dataset.get());
            EXPECT_TRUE(copy.saveFile(other.c_str(), syntax, EET_UndefinedLength, EGL_recalcGL,
                                      EPD_withoutPadding, 0, 0, EWM_fileformat)
                            .good());
            ASSERT_TRUE(tarvo::write_image_file(*dataset, syntax, path, sync, reason));
            EXPECT_TRUE(content_of(path) == content_of(other)) << syntax;
            EXPECT_FALSE(tarvo::write_image_file(*dataset, syntax, path, sync, reason))
                << "it is there";
            const rlim_t size = std::filesystem::file_size(path);
            for (const rlim_t room : {rlim_t{0}, rlim_t{100}, size / 2, size - 1, size}) {
                std::filesystem::remove(path);
                const int written = in_child_with_room(room, [&, &to = *dataset] {
                    return tarvo::write_image_file(to, syntax, path, sync, reason);
                });
                EXPECT_EQ(written, room == size ? 1 : 0) << room << " of " << size;
            }
            std::filesystem::remove(path);
        }
    }
}

// What a process of the same id left behind.
TEST(ImageFile, ALeftoverOfTheTemporaryNameDoesNoHarm) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("image.dcm");
    const std::string temporary = path + "." + std::to_string(::getpid()) + ".tmp";
    const std::string precious = directory.write("precious", "precious");
    for (const bool is_link : {false, true}) {
        if (is_link) {
            std::filesystem::create_symlink(precious, temporary);
        } else {
            directory.write(std::filesystem::path(temporary).filename(), std::string(9999, 'x'));
        }
        EXPECT_TRUE(
            tarvo::store_image(*image("1", "2", "3"), path, tarvo::DiskSync(true), nullptr));
        EXPECT_LT(content_of(path).size(), 2000U);
        EXPECT_EQ(content_of(precious), "precious");
        EXPECT_FALSE(std::filesystem::exists(temporary));
    }
}

}  // namespace
