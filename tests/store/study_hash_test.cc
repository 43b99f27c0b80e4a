#include <gtest/gtest.h>
#include <sys/stat.h>

#include "store/file_stamp.h"
#include "store/local_store.h"
#include "support/crc32.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace tarvo::test;

constexpr std::time_t long_ago = 1'000'000'000;

// A store whose study files are made by hand: each study is one letter, a deleted one lower case.
class StudyHash : public testing::Test {
  protected:
    static std::string entries_of(const std::string& studies) {
        std::string bytes;
        for (const char study : studies) {
            const studyhash entry{std::islower(study) != 0 ? 1U : 2U, 0, 0, 0, 0, 0,
                                  static_cast<std::uint32_t>(study)};
            bytes.append(reinterpret_cast<const char*>(&entry), sizeof entry);
        }
        return bytes;
    }
    static std::string records_of(const std::string& studies) {
        std::string bytes;
        for (const char study : studies) bytes += study + std::string(511, '\0');
        return bytes;
    }
    void make_files(const std::string& studies) {
        directory.write("uid/STUDYINDEX.hash", entries_of(studies));
        directory.write("uid/STUDYINDEX.dat", records_of(studies));
    }
    [[nodiscard]] std::string in_memory() const {
        std::string studies;
        for (std::uint32_t i = 0; i < store.studyHashCount; ++i) {
            studies += static_cast<char>(store.studyHash[i].uidCrc);
        }
        return studies;
    }

    const TemporaryDirectory directory;
    const std::string hash = directory.file("uid/STUDYINDEX.hash");
    const std::string data = directory.file("uid/STUDYINDEX.dat");
    LocalStore store{directory.path().c_str()};
};

TEST_F(StudyHash, IsReloadedWhenTheFileChanged) {
    EXPECT_FALSE(store.mustUpdateStudyHash());
    EXPECT_EQ(store.updateStudyHash(), -1) << "there is no file";
    // Each step changes the file of the one before.
    const std::pair<const char*, timespec> steps[] = {
        {"AB", {long_ago, 0}},     {"ABC", {long_ago, 0}},    {"AB", {long_ago, 0}},
        {"AD", {long_ago + 1, 0}}, {"AE", {long_ago + 1, 5}}, {"", {long_ago + 2, 0}},
    };
    for (const auto& [studies, time] : steps) {
        make_files(studies);
        const timespec times[2] = {time, time};
        EXPECT_EQ(::utimensat(AT_FDCWD, hash.c_str(), times, 0), 0);
        ::usleep(20'000);  // beyond the step of the clock in which nothing is certain
        EXPECT_TRUE(store.mustUpdateStudyHash());
        EXPECT_EQ(store.updateStudyHash(), 1);
        EXPECT_EQ(in_memory(), studies);
        EXPECT_FALSE(store.mustUpdateStudyHash());
        EXPECT_EQ(store.updateStudyHash(), 0);
    }
    append_to(hash, "torn");
    EXPECT_FALSE(store.mustUpdateStudyHash());
    EXPECT_EQ(store.updateStudyHash(), -1);
}

// Storing images of studies, by this process and others.
class StudyUpdate : public StudyHash {
  protected:
    int write(const std::string& study, const Attributes& attributes = {}) {
        return store.WriteDataset(image(study, "2", "3", attributes).get(), 1, nullptr, 0);
    }
    [[nodiscard]] Strings studies() const {
        EXPECT_EQ(content_of(hash).size() / 28, content_of(data).size() / 512);
        return keys_in(data, 512);
    }
};

TEST_F(StudyUpdate, MergesIntoWhatAnotherProcessLeft) {
    ASSERT_EQ(write("1.2"), 0);
    ASSERT_EQ(in_child([&] { return write("1.2", {{DCM_Modality, "MR"}}); }), 0);
    ASSERT_EQ(write("1.2", {{DCM_Modality, "US"}}), 0);
    EXPECT_EQ(store.studyHash[0].modalityBits, 0x43U);
    EXPECT_EQ(content_of(data).substr(384, 6), "CTMRUS");
    EXPECT_EQ(content_of(hash).substr(20, 1), "\x43");
}

TEST_F(StudyUpdate, AStampWithinTheTickOfAChangeProvesNothing) {
    tarvo::FileStamp stamp;
    struct stat status {};
    bool proved = true;
    for (int i = 0; i < 20 && proved; ++i) {  // the clock may tick in between
        make_files("A");
        ASSERT_EQ(::stat(hash.c_str(), &status), 0);
        stamp.take(status);
        proved = stamp.proves_unchanged(status);
    }
    EXPECT_FALSE(proved);
    EXPECT_TRUE(stamp.matches(status));
    ::usleep(20'000);
    stamp.take(status);
    EXPECT_TRUE(stamp.proves_unchanged(status));
}

TEST_F(StudyUpdate, WaitsForTheHolderOfTheLock) {
    using enum tarvo::LockKind;
    ASSERT_EQ(write("1.1"), 0);
    EXPECT_EQ(after_waiting(hash, exclusive, [&] { return store.updateStudyHash(); }), 1);
    EXPECT_EQ(after_waiting(hash, shared, [&] { return store.compactStudyHash(); }), 0);
    EXPECT_EQ(after_waiting(hash, shared, [&] { return write("1.2"); }), 0);
}

TEST_F(StudyUpdate, TellsStudiesOfOneChecksumApart) {
    const Strings both{"1.2.304451600148", "1.2.619112783898"};
    ASSERT_EQ(tarvo::crc32_of(both[0]), tarvo::crc32_of(both[1]));
    for (const std::string& study : {both[0], both[1], both[0]}) EXPECT_EQ(write(study), 0);
    EXPECT_EQ(studies(), both);
}

TEST_F(StudyUpdate, AStudyWithoutRoomForItsRecordHasNoEntry) {
    EXPECT_EQ(in_child_with_room(100, [&] { return write("1.2"); }), tarvo::store_io_failure);
    EXPECT_EQ(content_of(hash) + content_of(data), "");
}

}  // namespace
