// What only happens when two processes meet in one place at the right moment, and what an image
// file is made of.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include "store/file_stamp.h"
#include "store/image_file.h"
#include "store/level_index.h"
#include "store/local_store.h"
#include "store/records.h"
#include "support/text_field.h"
#include "support/unique_fd.h"
#include "support/whole_file_lock.h"

namespace {

using tarvo::LevelIndex;
using tarvo::LockKind;
using Strings = std::vector<std::string>;
using Dataset = std::unique_ptr<DcmDataset>;

std::string content_of(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

// Starts a child that exits with the result of `body`, without any clean-up of the parent's.
pid_t start_child(const std::function<int()>& body) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(body());
    return child;
}

// The exit code of a child, or -1 when it did not exit by itself.
int exit_code(pid_t child) {
    int status = -1;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int in_child(const std::function<int()>& body) { return exit_code(start_child(body)); }

Dataset image(const std::string& study, const std::string& series, const std::string& sop,
              std::size_t pixels = 512) {
    auto dataset = std::make_unique<DcmDataset>();
    for (const auto& [tag, value] : {std::pair{DCM_SOPClassUID, std::string(UID_CTImageStorage)},
                                     {DCM_SOPInstanceUID, sop},
                                     {DCM_StudyInstanceUID, study},
                                     {DCM_SeriesInstanceUID, series}}) {
        EXPECT_TRUE(dataset->putAndInsertOFStringArray(tag, value).good());
    }
    const std::vector<Uint16> values(pixels, 0x4217);
    EXPECT_TRUE(dataset->putAndInsertUint16Array(DCM_PixelData, values.data(), pixels).good());
    return dataset;
}

// The keys (the first 64 bytes) of the records of a file.
Strings keys_in(const std::string& path, std::size_t record_size) {
    const std::string bytes = content_of(path);
    Strings keys;
    for (std::size_t at = 0; at + record_size <= bytes.size(); at += record_size) {
        keys.emplace_back(bytes.data() + at, ::strnlen(bytes.data() + at, 64));
    }
    return keys;
}

// What `work` exits with in a process that has to wait because we hold a lock on the file.
// `meanwhile` runs before we let go.
int after_waiting(const std::string& path, LockKind kind, const std::function<int()>& work,
                  const std::function<void()>& meanwhile) {
    pid_t child = -1;
    {
        const tarvo::UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        const tarvo::WholeFileLock lock(file.get(), kind);
        EXPECT_TRUE(lock.held());
        child = start_child(work);
        ::usleep(150'000);
        EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), 0) << "it did not wait";
        meanwhile();
    }
    return exit_code(child);
}

class Store : public testing::Test {
  protected:
    static std::string make_directory() {
        std::string name = std::filesystem::temp_directory_path() / "tarvo_test_XXXXXX";
        EXPECT_NE(::mkdtemp(name.data()), nullptr);
        return name;
    }
    void TearDown() override { std::filesystem::remove_all(base); }
    [[nodiscard]] std::string file(const std::string& name) const { return base + "/" + name; }
    int write(const std::string& study, const std::string& series, const std::string& sop) {
        return store.WriteDataset(image(study, series, sop).get(), 1, nullptr, 0);
    }
    // Whether queries find an image at image, series and study level, one letter for each.
    [[nodiscard]] std::string levels_of(const char* series, const char* sop) const {
        LocalStore fresh(base.c_str());
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

    const std::string base = make_directory();
    const std::string data = file("uid/STUDYINDEX.dat");
    const std::string series_folder = file("uid/E2/E7/study_1.2.3/series_4");
    const std::string image_index = series_folder + "/IMAGEINDEX.dat";
    LocalStore store{base.c_str()};
};

// ---- one index ----

std::string record(const std::string& key, const std::string& comment = "old") {
    tarvo::ImageRecord result{};
    tarvo::set_field(result.sop_uid, key);
    tarvo::set_field(result.comments, comment);
    return {reinterpret_cast<const char*>(&result), sizeof result};
}

TEST_F(Store, TheTableOfKeysFollowsWhatOtherProcessesDo) {
    const std::string path = file("IMAGEINDEX.dat");
    LevelIndex index(768);
    const auto insert = [&path](LevelIndex& into, const std::string& key,
                                const std::string& comment = "old") {
        return into.insert(path, record(key, comment).data()) == tarvo::Inserted::done;
    };
    // As another process would do it, which has no table yet.
    const auto insert_afresh = [&](const std::string& key) {
        LevelIndex other(768);
        return insert(other, key);
    };
    const auto overwrite = [&](std::streamoff number, const std::string& bytes) {
        std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
        return (file.seekp(number * 768) << bytes).good();
    };
    const std::string blank(768, '\0');
    const struct {
        const char* what;
        std::function<bool()> disturb;
        Strings after_b;  // the keys when this process then stores b again
        Strings after_x;  // and x, which it never stored
    } cases[] = {
        {"appends d and x",
         [&] { return insert_afresh("d") && insert_afresh("x"); },
         {"a", "b", "c", "d", "x"},
         {"a", "b", "c", "d", "x"}},
        {"blanks b", [&] { return overwrite(1, blank); }, {"a", "", "c", "b"}, {"a", "", "c", "x"}},
        {"blanks b and stores it again",
         [&] { return overwrite(1, blank) && insert_afresh("b"); },
         {"a", "", "c", "b"},
         {"a", "", "c", "b", "x"}},
        {"removes the file", [&] { return ::unlink(path.c_str()) == 0; }, {"b"}, {"x"}},
        {"makes a new file",
         [&] { return ::unlink(path.c_str()) == 0 && insert_afresh("d") && insert_afresh("b"); },
         {"d", "b"},
         {"d", "b", "x"}},
        {"cuts the file",
         [&] { return ::truncate(path.c_str(), 768) == 0; },
         {"a", "b"},
         {"a", "x"}},
        {"exchanges a and b",
         [&] { return overwrite(0, record("b") + record("a")); },
         {"b", "a", "c"},
         {"b", "a", "c", "x"}},
    };
    for (const auto& [what, disturb, after_b, after_x] : cases) {
        for (const auto& [key, expected] : {std::pair{"b", after_b}, std::pair{"x", after_x}}) {
            SCOPED_TRACE(std::string(what) + ", then " + key);
            std::filesystem::remove(path);
            EXPECT_TRUE(insert(index, "a") && insert(index, "b") && insert(index, "c"));
            EXPECT_EQ(in_child(disturb), 1);
            EXPECT_TRUE(insert(index, key, "newer") && insert(index, key, "new"));
            EXPECT_EQ(keys_in(path, 768), expected);
            EXPECT_NE(content_of(path).find(record(key, "new")), std::string::npos);
        }
    }
}

// ---- a store and others beside it ----

TEST_F(Store, AStudyIsFoundWhereAnotherServerMovedIt) {
    for (const char* study : {"7", "1.2.3", "9"}) ASSERT_EQ(write(study, "4", "5"), 0);
    EXPECT_EQ(in_child([&] {
                  return store.DeleteFile("7", "4", "5") + store.compactStudyHash() +
                         write("8", "4", "5");
              }),
              1);
    EXPECT_EQ(keys_in(data, 512), (Strings{"1.2.3", "9", "8"}));
    // What this process finds where it was does not make the rest of its memory right.
    ::usleep(20'000);
    for (const char* study : {"9", "8"}) EXPECT_EQ(write(study, "4", "5"), 0);
    EXPECT_EQ(keys_in(data, 512), (Strings{"1.2.3", "9", "8"}));
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), 0) << "its copy has as many entries";
    EXPECT_EQ(keys_in(data, 512), (Strings{"", "9", "8"}));
    EXPECT_EQ(write("1.2.3", "4", "5"), 0);
    EXPECT_EQ(keys_in(data, 512), (Strings{"", "9", "8", "1.2.3"}));
}

// The storer has entered the study and the series and waits for the image index when the delete of
// the only other image takes all of them away. Only then the index is free: we hold its lock.
TEST_F(Store, AStoreOutlivesADeleteThatTakesItsSeriesAway) {
    for (const int directory_stays : {0, -1}) {
        ASSERT_EQ(write("1.2.3", "4", "5"), 0);
        if (directory_stays != 0) std::ofstream(series_folder + "/other") << 'x';
        EXPECT_EQ(after_waiting(
                      image_index, LockKind::exclusive, [&] { return write("1.2.3", "4", "6"); },
                      [&] { EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), directory_stays); }),
                  0);
        EXPECT_EQ(levels_of("4", "6"), "MET") << directory_stays;
        EXPECT_EQ(levels_of("4", "5"), "ET");
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", "6"), directory_stays);
    }
}

// While it waits, the index goes and another one with more images takes its place.
TEST_F(Store, ADeleteLooksIntoTheIndexThatStandsUnderTheName) {
    ASSERT_EQ(write("1.2.3", "4", "5"), 0);
    const auto replace_index = [&] {
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", nullptr), -1);
        LocalStore other(base.c_str());  // ours would give the lock away
        for (const char* sop : {"5", "6"}) {
            EXPECT_EQ(other.WriteDataset(image("1.2.3", "4", sop).get(), 1, nullptr, 0), 0);
        }
    };
    EXPECT_EQ(after_waiting(
                  image_index, LockKind::shared,
                  [&] { return store.DeleteFile("1.2.3", "4", "5"); }, replace_index),
              0);
    EXPECT_EQ(levels_of("4", "5"), "ET");
    EXPECT_EQ(levels_of("4", "6"), "MET");
}

TEST_F(Store, ASeriesDeletedDuringTheWalkIsPassedOver) {
    for (const char* uid : {"1", "2", "3"}) ASSERT_EQ(write("1.2.3", uid, "5"), 0);
    DcmDataset query;
    query.putAndInsertString(DCM_StudyInstanceUID, "1.2.3");
    void* handle = nullptr;
    const auto next = [&] {
        DcmDataset* response = nullptr;
        const int result = store.FindDataset(&handle, &query, &response, "IMAGE");
        const Dataset owner(response);
        return result;
    };
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(in_child([&] { return store.DeleteFile("1.2.3", "2", "5"); }), 0);
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(next(), 1);
    std::filesystem::remove((store.GetUidIndexPath("1.2.3", "3") + ".dat").c_str());
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(next(), -1) << "an index that is lost is not passed over";
}

TEST_F(Store, AStampWithinTheTickOfAChangeProvesNothing) {
    const std::string path = file("x");
    tarvo::FileStamp stamp;
    struct stat status {};
    bool proved = true;
    for (int i = 0; i < 20 && proved; ++i) {  // the clock may tick in between
        std::ofstream(path) << 'A';
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        stamp.take(status);
        proved = stamp.proves_unchanged(status);
    }
    EXPECT_FALSE(proved);
    ::usleep(20'000);
    stamp.take(status);
    EXPECT_TRUE(stamp.proves_unchanged(status));
}

// ---- the image file ----

TEST_F(Store, AnImageFileHasTheBytesThatTheToolkitWouldWrite) {
    const std::string path = file("image.dcm");
    const std::string other = file("toolkit.dcm");
    std::string reason;
    const tarvo::DiskSync sync(true);
    for (const E_TransferSyntax syntax :
         {EXS_LittleEndianExplicit, EXS_LittleEndianImplicit, EXS_DeflatedLittleEndianExplicit}) {
        for (const std::size_t pixels : {500U, 300'000U}) {
            auto dataset = image("1", "2", "3", pixels);
            DcmFileFormat copy(dataset.get());
            EXPECT_TRUE(copy.saveFile(other.c_str(), syntax, EET_UndefinedLength, EGL_recalcGL,
                                      EPD_withoutPadding, 0, 0, EWM_fileformat)
                            .good());
            ASSERT_TRUE(tarvo::write_image_file(*dataset, syntax, path, sync, reason));
            EXPECT_TRUE(content_of(path) == content_of(other)) << syntax;
            std::filesystem::remove(path);
        }
    }
}

// What a process of the same id left behind, or a link that somebody laid there.
TEST_F(Store, ALeftoverOfTheTemporaryNameDoesNoHarm) {
    const std::string path = file("image.dcm");
    const std::string temporary = path + "." + std::to_string(::getpid()) + ".tmp";
    const std::string precious = file("precious");
    std::ofstream(precious) << "precious";
    for (const bool is_link : {false, true}) {
        if (is_link) {
            std::filesystem::create_symlink(precious, temporary);
        } else {
            std::ofstream(temporary) << std::string(9999, 'x');
        }
        EXPECT_TRUE(
            tarvo::store_image(*image("1", "2", "3"), path, tarvo::DiskSync(true), nullptr));
        EXPECT_LT(content_of(path).size(), 2000U);
        EXPECT_EQ(content_of(precious), "precious");
        EXPECT_FALSE(std::filesystem::exists(temporary));
    }
}

}  // namespace
