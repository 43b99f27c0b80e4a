#include "store/level_index.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>

#include "store/record_file.h"
#include "support/text_field.h"
#include "support/whole_file_lock.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;
using tarvo::ImageRecord;
using tarvo::Inserted;
using tarvo::LevelIndex;

std::string record(const std::string& key, const std::string& comment = "old") {
    ImageRecord result{};
    tarvo::set_field(result.sop_uid, key);
    tarvo::set_field(result.comments, comment);
    return {reinterpret_cast<const char*>(&result), sizeof result};
}

// An image index in a directory of its own.
class ImageIndex : public testing::Test {
  protected:
    bool insert(const std::string& key, const std::string& comment = "old") {
        return index.insert(path, record(key, comment).data()) == Inserted::done;
    }
    // As another process would do it, which has no table yet.
    bool insert_afresh(const std::string& key, const std::string& comment = "old") {
        return LevelIndex(768).insert(path, record(key, comment).data()) == Inserted::done;
    }
    void overwrite(std::size_t number, const std::string& bytes) const {
        patch_file(path, number * 768, bytes);
    }
    // As a delete does it, without a lock.
    void blank(std::size_t number) const { overwrite(number, std::string(768, '\0')); }
    [[nodiscard]] Strings keys() const { return keys_in(path, 768); }

    const TemporaryDirectory directory;
    const std::string path = directory.file("IMAGEINDEX.dat");
    LevelIndex index{768};
};

TEST_F(ImageIndex, InsertsReplacesAndLeavesAnUnchangedRecordAlone) {
    const mode_t mask = ::umask(0);
    for (const char* key : {"1.1", "1.2", "1.3"}) EXPECT_TRUE(insert(key));
    ::umask(mask);
    EXPECT_TRUE(insert("1.2", "new"));
    EXPECT_EQ(read_file(path), record("1.1") + record("1.2", "new") + record("1.3"));
    const timespec long_ago[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), long_ago, 0), 0);
    EXPECT_TRUE(insert("1.2", "new"));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1000) << "an unchanged record was written";
    EXPECT_EQ(status.st_mode & 0777, 0664U);
}

TEST_F(ImageIndex, KeysAreCutAndComparedAt64Characters) {
    const std::string full(64, '7');
    const std::string shorter(63, '7');
    EXPECT_TRUE(insert(full) && insert(full + "1", "cut") && insert(shorter));
    EXPECT_EQ(read_file(path), record(full, "cut") + record(shorter));
    EXPECT_TRUE(insert_afresh(full, "again"));
    EXPECT_EQ(read_file(path), record(full, "again") + record(shorter));
}

TEST_F(ImageIndex, AnEmptyKeyMeetsTheFirstBlankSlotOfTheMoment) {
    EXPECT_TRUE(insert("1") && insert("2") && insert("", "first"));
    blank(1);
    EXPECT_TRUE(insert("", "second"));
    EXPECT_EQ(read_file(path), record("1") + record("", "second") + record("", "first"));
}

TEST_F(ImageIndex, TheTableOfKeysFollowsWhatOtherProcessesDo) {
    const struct {
        const char* what;
        std::function<bool()> disturb;
        Strings after_b;  // the keys when this process then stores b again
        Strings after_x;  // and x, which it never stored
    } cases[] = {
        {"nothing", [] { return true; }, {"a", "b", "c"}, {"a", "b", "c", "x"}},
        {"appends d and x",
         [&] { return insert_afresh("d") && insert_afresh("x"); },
         {"a", "b", "c", "d", "x"},
         {"a", "b", "c", "d", "x"}},
        {"blanks b", [&] { return blank(1), true; }, {"a", "", "c", "b"}, {"a", "", "c", "x"}},
        {"blanks b and stores it again",
         [&] { return blank(1), insert_afresh("b"); },
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
         [&] { return overwrite(0, record("b") + record("a")), true; },
         {"b", "a", "c"},
         {"b", "a", "c", "x"}},
    };
    for (const auto& [what, disturb, after_b, after_x] : cases) {
        for (const auto& [key, expected] : {std::pair{"b", after_b}, std::pair{"x", after_x}}) {
            SCOPED_TRACE(std::string(what) + ", then " + key);
            std::filesystem::remove(path);
            EXPECT_TRUE(insert("a") && insert("b") && insert("c"));
            EXPECT_EQ(in_child([&work = disturb] { return work() ? 0 : 1; }), 0);
            EXPECT_TRUE(insert(key, "newer") && insert(key, "new"));
            EXPECT_EQ(keys(), expected);
            EXPECT_NE(read_file(path).find(record(key, "new")), std::string::npos);
        }
    }
}

// As a power cut leaves it in the middle of a record.
TEST_F(ImageIndex, AnAppendTakesThePlaceOfAFragment) {
    EXPECT_TRUE(insert("1") && insert("2"));
    write_file(path, "fragment", std::ios::app);
    EXPECT_TRUE(insert("1", "new") && insert("3"));
    EXPECT_EQ(read_file(path), record("1", "new") + record("2") + record("3"));
}

TEST_F(ImageIndex, AnAppendThatDoesNotFitLeavesNothingBehind) {
    ASSERT_TRUE(insert("1"));
    EXPECT_EQ(in_child_with_room(1000, [&] { return insert("2") ? 1 : 0; }), 0);
    EXPECT_EQ(read_file(path), record("1"));
    EXPECT_EQ(index.insert("/dev/full", record("1").data()), Inserted::failed);
    EXPECT_EQ(index.insert(directory.file("no/x"), record("1").data()), Inserted::not_opened);
    EXPECT_TRUE(insert("2"));
    EXPECT_EQ(keys(), (Strings{"1", "2"}));
}

TEST_F(ImageIndex, InsertWaitsForTheHolderOfTheLock) {
    ASSERT_TRUE(insert("1"));
    pid_t writer = -1;
    {
        const tarvo::UniqueFd file(::open(path.c_str(), O_RDWR));
        const tarvo::WholeFileLock lock(file.get(), tarvo::LockKind::shared);
        ASSERT_TRUE(lock.held());
        writer = start_child([&] { return insert("2") ? 0 : 1; });
        ::usleep(200'000);
        EXPECT_TRUE(is_running(writer)) << "the writer did not wait";
        EXPECT_EQ(keys(), Strings{"1"});
    }
    EXPECT_EQ(wait_for_child(writer), 0);
    EXPECT_EQ(keys(), (Strings{"1", "2"}));
}

TEST_F(ImageIndex, EightWritersLoseAndDoubleNothing) {
    // Every third image is sent by all of them.
    const auto key = [](int writer, int i) {
        return std::to_string(i % 3 == 0 ? 9 : writer) + "." + std::to_string(i);
    };
    EXPECT_EQ(in_eight_children([&](int writer) {
                  for (int i = 0; i < 300; ++i) {
                      if (!insert(key(writer, i))) return 1;
                  }
                  return 0;
              }),
              8);
    std::map<std::string, int> seen;
    for (const std::string& stored : keys()) ++seen[stored];
    EXPECT_EQ(seen.size(), 100U + 8U * 200U);
    EXPECT_EQ(read_file(path).size(), seen.size() * 768) << "a record is doubled";
}

std::uint64_t bytes_read_by_us() {
    std::ifstream counters("/proc/self/io");
    std::string name;
    std::uint64_t value = 0;
    counters >> name >> value;
    EXPECT_EQ(name, "rchar:");
    return value;
}

TEST_F(ImageIndex, AnInsertDoesNotReadTheRecordsBeforeIt) {
    for (int i = 0; i < 2000; ++i) ASSERT_TRUE(insert(std::to_string(i)));
    ASSERT_EQ(in_child([&] { return insert_afresh("another process's") ? 0 : 1; }), 0);
    const std::uint64_t before = bytes_read_by_us();
    EXPECT_TRUE(insert("new") && insert("1000", "replaced"));
    EXPECT_LT(bytes_read_by_us() - before, 8192U) << "the file has 1.5 MB";
    EXPECT_EQ(keys().size(), 2002U);
}

TEST(RecordReader, ReadsInBlocksAndHandsOutAFragmentOverTheRecordBefore) {
    const TemporaryDirectory directory;
    std::string content;
    for (int i = 0; i < 1000; ++i) content += record(std::to_string(i));
    write_file(directory.file("records"), content + "end");
    const tarvo::UniqueFd file(::open(directory.file("records").c_str(), O_RDONLY));
    tarvo::RecordReader reader(file.get(), 768, 10);
    std::string got(768, '\0');
    for (std::size_t i = 10; i < 1000; ++i) {
        ASSERT_EQ(reader.position(), i);
        ASSERT_EQ(reader.next(got.data()), 768);
        ASSERT_EQ(got, content.substr(i * 768, 768));
    }
    EXPECT_EQ(reader.next(got.data()), 3);
    EXPECT_EQ(got, "end" + content.substr(999 * 768 + 3));
    EXPECT_EQ(reader.next(got.data()), 0);
    EXPECT_EQ(tarvo::RecordReader(-1, 768).next(got.data()), -1);
}

}  // namespace
