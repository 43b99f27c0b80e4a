#include "monitor/aetitle_map.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/unique_fd.h"
#include "support/whole_file_lock.h"
#include "tests/support/test_helpers.h"

namespace {

using tarvo::UniqueFd;
using tarvo::test::in_child;
using tarvo::test::TemporaryDirectory;

// The entries in order: name|AE title|address|letters|comment, "-" for none, each with a ';'.
std::string listing(const AETitleMap& map) {
    std::string text;
    for (std::size_t i = 0; const AETitleMapEntry* entry = AETitleMap_FindByNum(map, i); ++i) {
        text += entry->name + '|' + entry->aetitle + '|' + entry->address + '|' +
                AETitleMap_flagstochars(entry->flags) + '|' + entry->comment.value_or("-") + ';';
    }
    return text;
}

TEST(AETitleMap, FlagLettersBothWays) {
    for (std::uint32_t bits = 0; bits < 0x400; ++bits) {
        EXPECT_EQ(AETitleMap_charstoflags(AETitleMap_flagstochars(bits)), bits & 0x33F);
    }
    EXPECT_STREQ(AETitleMap_flagstochars(0xFFFFFFFF), "FMSGUEDP");
    EXPECT_STREQ(AETitleMap_flagstochars(263), "FMSD");
    EXPECT_EQ(AETitleMap_charstoflags("pXdu m-\n"), 0x312U);
}

TEST(AETitleMap, NamesAreUniqueAndOrderIsKept) {
    AETitleMap map;
    EXPECT_EQ(AETitleMap_Add(map, "a", "AET", "h:1", 1, nullptr), 0);
    EXPECT_EQ(AETitleMap_Add(map, "b", "AET", "h:2", 2, ""), 0);
    EXPECT_EQ(AETitleMap_Add(map, "a", "OTHER", "h:3", 4, "c"), -2);
    EXPECT_EQ(AETitleMap_Add(map, "A", "aet", "h:4", 0, "c"), 0);
    EXPECT_EQ(AETitleMap_FindByAET(map, "AET"), AETitleMap_FindByNum(map, 0));
    EXPECT_EQ(AETitleMap_FindByAET(map, "AE"), nullptr);
    EXPECT_EQ(AETitleMap_Del(map, AETitleMap_FindByName(map, "b")), 0);
    EXPECT_EQ(AETitleMap_Del(map, nullptr), -1);
    EXPECT_EQ(listing(map), "a|AET|h:1|F|-;A|aet|h:4||c;");
    for (int count = 0; count < 500'000; ++count) {  // deeper than the stack, one frame an entry
        auto entry = std::make_unique<AETitleMapEntry>();
        entry->next = std::move(map.first);
        map.first = std::move(entry);
    }
}

TEST(AETitleMap, LinesOfTheFile) {
    const std::string longest(127, 'n');
    const std::string cut_line = "x x x F " + std::string(1015, 'c') + "a b c D\n";
    const std::pair<std::string, std::string> table[] = {
        {"", ""},
        {"PACS1 PACS1 10.0.0.5:104 fmsd", "PACS1|PACS1|10.0.0.5:104|FMSD|-;"},
        {"a\tA\th:1\tF\t\"Reading room\" \rb B h:2 \"\"\r", "a|A|h:1|F|Reading room;b|B|h:2||-;"},
        {"a A h:1\n   \nb B h:2 G \"\"\n", "b|B|h:2|G|-;"},
        {"a A h:1 F first\na B h:2 M second\n", "a|A|h:1|F|first;"},
        {"\"\\101\" \"\\12\" '\\' f\n", "\x01|\x12|\\|F|-;"},
        {longest + " A h F\n", longest + "|A|h|F|-;"},
        {longest + "n A h F\n", longest + "|n|A||F;"},
        {cut_line, "x|x|x|F|" + std::string(1015, 'c') + ";a|b|c|D|-;"},
        {std::string(16000, '\n') + "a A " + std::string(120, 'h') + " F " + std::string(890, 'c'),
         "a|A|" + std::string(120, 'h') + "|F|" + std::string(890, 'c') + ";"},
    };
    const TemporaryDirectory directory;
    for (const auto& [content, expected] : table) {
        AETitleMap map;
        EXPECT_EQ(AETitleMap_Load(map, directory.write("map", content).c_str()), 0);
        EXPECT_EQ(listing(map), expected) << content;
    }
    AETitleMap map;
    EXPECT_EQ(AETitleMap_Load(map, directory.path().c_str()), 1) << "a directory cannot be read";
}

// The holder of the lock never opens the file again: closing that descriptor would drop the lock.
TEST(AETitleMap, LoadingAndSavingWaitForTheLocksOfOtherProcesses) {
    const TemporaryDirectory directory;
    const std::string path = directory.write("map", "");
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    const auto load = [&] {
        AETitleMap map;
        return AETitleMap_Load(map, path.c_str()) == 0 && map.first ? 0 : 1;
    };
    const auto save = [&] { return AETitleMap_Save(AETitleMap(), path.c_str()); };
    pid_t child = -1;
    {
        const tarvo::WholeFileLock lock(file.get(), tarvo::LockKind::exclusive);
        child = tarvo::test::start_child(load);
        ::usleep(150'000);
        ASSERT_TRUE(tarvo::write_at(file.get(), "a A h:1 F\n", 10, 0));
    }
    EXPECT_EQ(tarvo::test::exit_code(child), 0) << "loaded a half-written map";
    {
        const tarvo::WholeFileLock lock(file.get(), tarvo::LockKind::shared);
        EXPECT_EQ(in_child(load), 0) << "readers share";
        child = tarvo::test::start_child(save);
        ::usleep(150'000);
        EXPECT_EQ(tarvo::file_size(file.get()), 10) << "saved below a reader";
    }
    EXPECT_EQ(tarvo::test::exit_code(child), 0);
    EXPECT_EQ(tarvo::file_size(file.get()), 0);
}

}  // namespace
