#include <gtest/gtest.h>

#include "store/image_file.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace tarvo::test;

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
    std::filesystem::remove(path);
    EXPECT_EQ(in_child_with_room(100,
                                 [&] {
                                     return tarvo::store_image(*image("1", "2", "3"), path,
                                                               tarvo::DiskSync(true), nullptr);
                                 }),
              0);
    const std::filesystem::directory_iterator files(directory.path());
    EXPECT_EQ(std::distance(files, {}), 1) << "the precious file alone";
}

}  // namespace
