#include "store/image_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;

// An image larger than any buffer, with what the encoding options act upon: sequences, group
// lengths, a long text, padding.
Dataset rich_image() {
    auto dataset = image("1.2.3", "4", "5", {{DCM_ImageComments, std::string(5001, 'c')}}, 300'000);
    const Uint8 padding[2] = {};
    for (int i = 0; i < 3; ++i) {
        DcmItem* item = nullptr;
        EXPECT_TRUE(
            dataset->findOrCreateSequenceItem(DCM_ReferencedImageSequence, item, -2).good());
        EXPECT_TRUE(item->putAndInsertString(DCM_ReferencedSOPInstanceUID, "1.2.3").good());
    }
    EXPECT_TRUE(dataset->putAndInsertUint32(DcmTag(0x0008, 0x0000, EVR_UL), 7).good());
    EXPECT_TRUE(dataset->putAndInsertUint8Array(DCM_DataSetTrailingPadding, padding, 2).good());
    return dataset;
}

class ImageFile : public testing::Test {
  protected:
    const TemporaryDirectory directory;
    const std::string path = directory.file("image.dcm");
    std::string reason;
};

TEST_F(ImageFile, HasTheBytesThatTheToolkitWouldWrite) {
    const struct {
        Dataset dataset;
        E_TransferSyntax syntax;
    } cases[] = {
        {rich_image(), EXS_LittleEndianExplicit},
        {rich_image(), EXS_LittleEndianImplicit},
        {rich_image(), EXS_BigEndianExplicit},
        {rich_image(), EXS_DeflatedLittleEndianExplicit},
        {image("1", "2", "3"), EXS_LittleEndianExplicit},
        {compressed_image(100), EXS_JPEGProcess1},
        {compressed_image(400'000), EXS_JPEGProcess1},
    };
    for (const auto& [dataset, syntax] : cases) {
        DcmFileFormat copy(dataset.get());
        ASSERT_TRUE(copy.saveFile(directory.file("toolkit.dcm").c_str(), syntax,
                                  EET_UndefinedLength, EGL_recalcGL, EPD_withoutPadding, 0, 0,
                                  EWM_fileformat)
                        .good());
        ASSERT_TRUE(tarvo::write_image_file(*dataset, syntax, path, tarvo::DiskSync(true), reason));
        EXPECT_TRUE(read_file(path) == read_file(directory.file("toolkit.dcm")))
            << DcmXfer(syntax).getXferName();
        EXPECT_EQ(dataset->getParent(), nullptr);
        std::filesystem::remove(path);
    }
}

TEST_F(ImageFile, EveryByteMissingIsReported) {
    for (const E_TransferSyntax syntax :
         {EXS_LittleEndianExplicit, EXS_DeflatedLittleEndianExplicit}) {
        for (const std::size_t pixels : {500U, 300'000U}) {
            auto dataset = image("1", "2", "3", {}, pixels);
            ASSERT_TRUE(
                tarvo::write_image_file(*dataset, syntax, path, tarvo::DiskSync(true), reason));
            const rlim_t size = std::filesystem::file_size(path);
            for (const rlim_t room : {rlim_t{0}, rlim_t{100}, size / 2, size - 1, size}) {
                std::filesystem::remove(path);
                const bool written = in_child_with_room(room, [&, &to = *dataset] {
                                         return tarvo::write_image_file(
                                             to, syntax, path, tarvo::DiskSync(true), reason);
                                     }) == 1;
                EXPECT_EQ(written, room == size) << room << " of " << size;
            }
            std::filesystem::remove(path);
        }
    }
}

TEST_F(ImageFile, AFailureNamesItsReasonAndLeavesTheDatasetAlone) {
    DcmFileFormat owner(image("1", "2", "3").release(), OFFalse);
    DcmDataset& dataset = *owner.getDataset();
    const std::string target = directory.file("target.dcm");
    LogCapture log;
    EXPECT_FALSE(tarvo::store_image(dataset, directory.file("no/image.dcm"), tarvo::DiskSync(true),
                                    log.stream()));
    std::filesystem::create_directories(target + "/in the way");
    EXPECT_FALSE(tarvo::store_image(dataset, target, tarvo::DiskSync(true), log.stream()));
    EXPECT_EQ(log.take(), "Cannot write image " + directory.file("no/image.dcm") +
                              ": No such file or directory.\nCannot write image " + target +
                              ": Is a directory.\n");
    EXPECT_EQ(directory.tree(), (Strings{"target.dcm", "target.dcm/in the way"}));
    EXPECT_EQ(dataset.getParent(), &owner);
    EXPECT_TRUE(tarvo::store_image(dataset, path, tarvo::DiskSync(true), log.stream()));
}

// What a process of the same id left behind: a longer file, one that may not be written, links.
TEST_F(ImageFile, ALeftoverOfTheTemporaryNameDoesNoHarm) {
    auto dataset = image("1", "2", "3");
    ASSERT_TRUE(tarvo::store_image(*dataset, path, tarvo::DiskSync(true), nullptr));
    const std::string expected = read_file(path);
    const std::string temporary = path + "." + std::to_string(::getpid()) + ".tmp";
    const std::string precious = directory.file("precious");
    write_file(precious, "precious");
    const std::function<void()> leftovers[] = {
        [&] { write_file(temporary, std::string(100'000, 'x')); },
        [&] { write_file(temporary, "x"), ::chmod(temporary.c_str(), 0); },
        [&] { std::filesystem::create_symlink(precious, temporary); },
        [&] { std::filesystem::create_hard_link(precious, temporary); },
    };
    for (const auto& leave : leftovers) {
        std::filesystem::remove(path);
        leave();
        EXPECT_TRUE(tarvo::store_image(*dataset, path, tarvo::DiskSync(true), nullptr));
        EXPECT_EQ(read_file(path), expected);
        EXPECT_EQ(read_file(precious), "precious");
        EXPECT_FALSE(std::filesystem::exists(temporary));
    }
}

}  // namespace
