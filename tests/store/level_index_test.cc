#include "store/level_index.h"

#include <gtest/gtest.h>

#include "store/records.h"
#include "support/text_field.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace tarvo::test;
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

TEST_F(ImageIndex, InsertsReplacesAndCutsKeysAt64Characters) {
    const std::string full(64, '7');
    const std::string shorter(63, '7');
    EXPECT_TRUE(insert(full) && insert(full + "1", "cut") && insert(shorter) && insert("1"));
    EXPECT_TRUE(insert(shorter, "new") && insert_afresh(full, "again"));
    EXPECT_EQ(content_of(path), record(full, "again") + record(shorter, "new") + record("1"));
    blank(1);
    EXPECT_TRUE(insert("", "an empty key meets the blank slot of the moment"));
    EXPECT_EQ(keys(), (Strings{full, "", "1"}));
    append_to(path, record("1", "second"));
    EXPECT_TRUE(insert_afresh("1", "new"));
    EXPECT_EQ(content_of(path).substr(std::size_t{2} * 768),
              record("1", "new") + record("1", "second"));
}

TEST_F(ImageIndex, TheTableOfKeysFollowsWhatOtherProcessesDo) {
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
            EXPECT_EQ(in_child([&work = disturb] { return work(); }), 1);
            EXPECT_TRUE(insert(key, "newer") && insert(key, "new"));
            EXPECT_EQ(keys(), expected);
            EXPECT_NE(content_of(path).find(record(key, "new")), std::string::npos);
        }
    }
}

TEST_F(ImageIndex, ARecordIsPutBackWhileItsImageIsThere) {
    const std::string image = directory.file("image");
    const auto restore = [&](const std::string& comment) {
        return index.restore(path, record("1", comment).data(), image.c_str());
    };
    EXPECT_EQ(restore("old"), Inserted::unneeded);
    EXPECT_EQ(index.writes(), 0U);
    std::filesystem::create_symlink("nowhere", image);  // an image may be a link
    EXPECT_EQ(restore("old"), Inserted::done);
    EXPECT_EQ(restore("new"), Inserted::done);
    EXPECT_EQ(content_of(path), record("1")) << "what another writer put there stays";
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
    ASSERT_EQ(in_child([&] { return insert_afresh("another process's"); }), 1);
    const std::uint64_t before = bytes_read_by_us();
    EXPECT_TRUE(insert("new") && insert("1000", "replaced"));
    EXPECT_LT(bytes_read_by_us() - before, 8192U) << "the file has 1.5 MB";
    EXPECT_EQ(keys().size(), 2002U);
}

}  // namespace
