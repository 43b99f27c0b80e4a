#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <map>
#include <random>
#include <tuple>

#include "store/level_index.h"
#include "store/records.h"
#include "support/unique_fd.h"
#include "support/whole_file_lock.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;

// Everything below the base directory: the bytes of files, the targets of links.
using Tree = std::map<std::string, std::string>;

using Keys = std::vector<std::string>;

class DeleteFile : public testing::Test {
  protected:
    DeleteFile() { store.setLogfile(log.stream()); }

    int write(const std::string& study_uid, const std::string& series, const std::string& sop) {
        return store.WriteDataset(image(study_uid, series, sop).get(), 1, nullptr, 0);
    }
    // Study 1.2.3 with the series 4 (images 5 and 6) and 7 (image 8), and another study.
    void fill() {
        EXPECT_EQ(write("1.2.3", "4", "5"), 0);
        EXPECT_EQ(write("1.2.3", "4", "6"), 0);
        EXPECT_EQ(write("1.2.3", "7", "8"), 0);
        EXPECT_EQ(write("9", "4", "5"), 0);
        log.take();
    }
    [[nodiscard]] Tree tree() const {
        namespace fs = std::filesystem;
        Tree found;
        for (const auto& entry : fs::recursive_directory_iterator(directory.path())) {
            const std::string path = entry.path().string();
            found[path.substr(directory.path().size() + 1)] =
                entry.is_symlink()     ? fs::read_symlink(path).string()
                : entry.is_directory() ? "directory"
                                       : read_file(path);
        }
        return found;
    }
    // Whether queries find an image at image, series and study level, one letter for each.
    [[nodiscard]] std::string levels_of(const char* series, const char* sop) const {
        LocalStore fresh(directory.path().c_str());
        const Dataset query = dataset_of({{DCM_StudyInstanceUID, "1.2.3"},
                                          {DCM_SeriesInstanceUID, series},
                                          {DCM_SOPInstanceUID, sop}});
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

    const TemporaryDirectory directory;
    const std::string fan = directory.file("uid/E2/E7");
    const std::string study = fan + "/study_1.2.3";
    const std::string series_index = study + "/SERIESINDEX.dat";
    const std::string image_index = study + "/series_4/IMAGEINDEX.dat";
    const std::string image_5 = study + "/series_4/image_5.dcm";
    LogCapture log;
    LocalStore store{directory.path().c_str()};
};

const std::string in_study = "uid/E2/E7/study_1.2.3/";

void blank(Tree& tree, const std::string& file, std::size_t size, std::size_t number) {
    tree.at(file).replace(number * size, size, std::string(size, '\0'));
}

// Takes files and directories away.
void take(Tree& tree, const std::string& start) {
    EXPECT_GT(std::erase_if(tree, [&](const auto& item) { return item.first.starts_with(start); }),
              0U);
}

TEST_F(DeleteFile, TakesWhatBecomesEmptyAndNothingElse) {
    fill();
    EXPECT_EQ(store.WriteSymlinks(image("1.2.3", "4", "5").get()), 0);
    log.take();
    Tree expected = tree();
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), 0);
    EXPECT_EQ(log.take(), "Del IMG\nDel IMG - unlink(" + image_5 + ")\n");
    take(expected, in_study + "series_4/image_5.dcm");
    blank(expected, in_study + "series_4/IMAGEINDEX.dat", 768, 0);
    EXPECT_EQ(tree(), expected);

    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "6"), 0);
    EXPECT_EQ(log.take(), "Del IMG\nDel IMG - unlink(" + study +
                              "/series_4/image_6.dcm)\nDel SER in " + series_index +
                              "\nDel SERIES - movedown(" + image_index + ")\nSERIES movehelp is " +
                              fan + "\nDel SER rmdir(" + study + "/series_4)\n");
    take(expected, in_study + "series_4");
    blank(expected, in_study + "SERIESINDEX.dat", 320, 0);
    EXPECT_EQ(tree(), expected);

    EXPECT_EQ(store.DeleteFile("1.2.3", "7", "8"), 0);
    const std::string lines = log.take();
    EXPECT_EQ(lines.substr(lines.find("Del STUDY")), "Del STUDY - movedown(" + series_index +
                                                         ")\nSERIES movehelp is " + fan +
                                                         "\nDel SER rmdir(" + study + ")\n");
    take(expected, in_study.substr(0, in_study.size() - 1));
    expected.at("uid/STUDYINDEX.hash")[0] =
        static_cast<char>(expected.at("uid/STUDYINDEX.hash")[0] | 1);
    blank(expected, "uid/STUDYINDEX.dat", 512, 0);
    EXPECT_EQ(tree(), expected) << "the links for people stay as well";
}

TEST_F(DeleteFile, AStudyStoredAgainGetsANewEntryAndCompactionKeepsTheOthers) {
    fill();
    for (const auto& [series, sop] : {std::pair{"4", "5"}, {"4", "6"}, {"7", "8"}}) {
        EXPECT_EQ(store.DeleteFile("1.2.3", series, sop), 0);
    }
    EXPECT_EQ(levels_of("4", "5"), "");
    const std::string other_hash = read_file(directory.file("uid/STUDYINDEX.hash")).substr(28);
    const std::string other_data = read_file(directory.file("uid/STUDYINDEX.dat")).substr(512);
    EXPECT_EQ(write("1.2.3", "4", "5"), 0);
    EXPECT_EQ(levels_of("4", "5"), "MET");
    EXPECT_EQ(read_file(directory.file("uid/STUDYINDEX.hash")).size(), 3 * 28U);
    LocalStore listener(directory.path().c_str());
    EXPECT_EQ(listener.compactStudyHash(), 1);
    EXPECT_EQ(read_file(directory.file("uid/STUDYINDEX.hash")).substr(0, 28), other_hash);
    EXPECT_EQ(keys_in(directory.file("uid/STUDYINDEX.dat"), 512), (Keys{"9", "1.2.3"}));
    EXPECT_EQ(read_file(directory.file("uid/STUDYINDEX.dat")).substr(0, 512), other_data);
    EXPECT_EQ(levels_of("4", "5"), "MET");
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), 0) << "its copy is from before the compaction";
    EXPECT_EQ(keys_in(directory.file("uid/STUDYINDEX.dat"), 512), (Keys{"9", ""}));
}

TEST_F(DeleteFile, WhatIsNotNamedIsNotTouched) {
    fill();
    const Tree before = tree();
    const std::string series_line = "Del SER in " + series_index + "\n";
    const struct {
        const char* study;
        const char* series;
        const char* image;
        std::string message;
    } cases[] = {
        {nullptr, nullptr, nullptr, ""},
        {nullptr, "4", "5", ""},
        {"1.2.3", nullptr, "5", ""},
        {"1.2.3", "4", "", "Del IMG\nDel IMG - not found!\n"},
        {"1.2.3", "4", "8", "Del IMG\nDel IMG - not found!\n"},
        {"1.2.3", "8", "8", "Del IMG\n"},
        {"8", "4", "5", "Del IMG\n"},
        {"1.2.3", "8", nullptr, series_line + "Del SERIES - not found!\n"},
        {"x/../study_1.2.3", "4", "5", ""},
        {"1.2.3", "x/../series_4", "5", ""},
        {"1.2.3", "4", "x/../image_5", ""},
        {"x/../study_1.2.3", nullptr, nullptr, ""},
    };
    for (const auto& [study_uid, series, image_uid, message] : cases) {
        EXPECT_EQ(store.DeleteFile(study_uid, series, image_uid), 1);
        EXPECT_EQ(log.take(), message);
        EXPECT_EQ(tree(), before);
    }
}

TEST_F(DeleteFile, ASeriesWithImagesLosesItsIndexAndKeepsItsFiles) {
    fill();
    Tree expected = tree();
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", nullptr), -1);
    EXPECT_NE(log.take().find("Del SERIES rmdir " + study + "/series_4 failed\n"),
              std::string::npos);
    take(expected, in_study + "series_4/IMAGEINDEX.dat");
    blank(expected, in_study + "SERIESINDEX.dat", 320, 0);
    EXPECT_EQ(tree(), expected);

    EXPECT_EQ(store.DeleteFile("1.2.3", nullptr, nullptr), -1);
    EXPECT_NE(log.take().find("Del SERIES rmdir " + study + " failed\n"), std::string::npos);
    take(expected, in_study + "SERIESINDEX.dat");
    expected.at("uid/STUDYINDEX.hash")[0] =
        static_cast<char>(expected.at("uid/STUDYINDEX.hash")[0] | 1);
    blank(expected, "uid/STUDYINDEX.dat", 512, 0);
    EXPECT_EQ(tree(), expected);

    EXPECT_EQ(store.DeleteFile("1.2.3", nullptr, nullptr), -1);
    EXPECT_EQ(log.take(), "Del STUDY - not found!\nDel STUDY - movedown(" + series_index +
                              ")\nSERIES movehelp is " + fan + "\nDel SERIES idx " + series_index +
                              " not unlinked after failed rename.\nDel SER rmdir(" + study +
                              ")\nDel SERIES rmdir " + study + " failed\n");
    EXPECT_EQ(tree(), expected);
    EXPECT_EQ(write("1.2.3", "4", "5"), 0);
    EXPECT_EQ(levels_of("4", "5"), "MET");
}

TEST_F(DeleteFile, GoesOnWhenAStepFails) {
    namespace fs = std::filesystem;
    const std::string scratch = fan + "/DELETEME";
    const struct {
        const char* name;
        std::function<void()> trouble;
        std::string message;
        int result;
        bool marked;
    } cases[] = {
        {"the file is gone already", [&] { fs::remove(image_5); },
         "Cannot delete image " + image_5 + ": No such file or directory.\n", 0, true},
        {"a killed delete left its scratch file", [&] { write_file(scratch, "index"); },
         "Del SER rmdir", 0, true},
        {"the scratch name is taken", [&] { fs::create_directories(scratch + "/x"); },
         "Del SER rmdir", 0, true},
        {"another file in the series", [&] { write_file(study + "/series_4/other", ""); },
         "Del SERIES rmdir " + study + " failed\n", -1, true},
        {"no series index", [&] { fs::remove(series_index); }, "Del SER in " + series_index + "\n",
         1, false},
        {"no data file", [&] { fs::rename(directory.file("uid/STUDYINDEX.dat"), scratch); },
         "Del SER rmdir(" + study + "/series_4)\n", 1, false},
        {"a hash file that is cut",
         [&] { fs::resize_file(directory.file("uid/STUDYINDEX.hash"), 29); },
         "AIEEE: Can't update study hash in delete().\n", 0, true},
        {"no hash file", [&] { fs::remove(directory.file("uid/STUDYINDEX.hash")); },
         "Del SER rmdir(" + study + "/series_4)\n", 1, false},
    };
    for (const auto& [name, trouble, message, result, marked] : cases) {
        SCOPED_TRACE(name);
        fs::remove_all(directory.file("uid"));
        ASSERT_EQ(write("1.2.3", "4", "5"), 0);
        trouble();
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), result);
        EXPECT_NE(log.take().find(message), std::string::npos);
        EXPECT_FALSE(fs::exists(image_5));
        EXPECT_FALSE(fs::is_regular_file(scratch));
        EXPECT_EQ(fs::exists(image_index) && keys_in(image_index, 768)[0] != "", false);
        const std::string entry = read_file(directory.file("uid/STUDYINDEX.hash"));
        EXPECT_EQ(!entry.empty() && (entry[0] & 1) != 0, marked);
    }
}

// As a delete that is killed leaves them: the file unlinked, the record still there.
TEST_F(DeleteFile, ASecondDeleteFinishesWhatAKilledOneBegan) {
    fill();
    std::filesystem::remove(image_5);
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), -1);
    EXPECT_EQ(keys_in(image_index, 768), (Keys{"", "6"}));
    std::filesystem::remove(study + "/series_4/image_6.dcm");
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "6"), 0);
    EXPECT_FALSE(std::filesystem::exists(study + "/series_4"));

    const std::string image_8 = study + "/series_7/image_8.dcm";
    const tarvo::UniqueFd held(::open(series_index.c_str(), O_RDWR | O_CLOEXEC));
    const tarvo::WholeFileLock lock(held.get(), tarvo::LockKind::exclusive);
    const pid_t child = start_child([&] { return store.DeleteFile("1.2.3", "7", "8"); });
    for (int i = 0; i < 10'000 && std::filesystem::exists(image_8); ++i) ::usleep(1000);
    ::kill(child, SIGKILL);  // it waits for the series index
    EXPECT_EQ(wait_for_child(child), -1);
    EXPECT_EQ(levels_of("7", "8"), "MET");
    EXPECT_EQ(store.DeleteFile("1.2.3", "7", "8"), 0);
    EXPECT_EQ(levels_of("7", "8"), "");
    EXPECT_FALSE(std::filesystem::exists(study));
}

// The storer has entered the study and the series and waits for the image index when the delete of
// the only other image takes all of them away.
TEST_F(DeleteFile, AStoreOutlivesADeleteThatTakesItsSeriesAway) {
    for (const bool directory_stays : {false, true}) {
        ASSERT_EQ(write("1.2.3", "4", "5"), 0);
        if (directory_stays) write_file(study + "/series_4/other", "");
        const tarvo::UniqueFd file(::open(image_index.c_str(), O_RDWR | O_CLOEXEC));
        const tarvo::WholeFileLock lock(file.get(), tarvo::LockKind::exclusive);
        const pid_t child = start_child([&] { return write("1.2.3", "4", "6"); });
        ::usleep(200'000);
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), directory_stays ? -1 : 0);
        EXPECT_EQ(wait_for_child(child), 0);
        EXPECT_EQ(levels_of("4", "6"), "MET") << directory_stays;
        EXPECT_EQ(levels_of("4", "5"), "ET");
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", "6"), directory_stays ? -1 : 0);
    }
}

// While it waits, the index goes and another one with more images takes its place.
TEST_F(DeleteFile, ADeleteLooksIntoTheIndexThatStandsUnderTheName) {
    ASSERT_EQ(write("1.2.3", "4", "5"), 0);
    pid_t child = -1;
    {
        const tarvo::UniqueFd file(::open(image_index.c_str(), O_RDWR | O_CLOEXEC));
        const tarvo::WholeFileLock lock(file.get(), tarvo::LockKind::exclusive);
        child = start_child([&] { return store.DeleteFile("1.2.3", "4", "5"); });
        ::usleep(200'000);
        EXPECT_EQ(store.DeleteFile("1.2.3", "4", nullptr), -1);
        LocalStore other(directory.path().c_str());  // ours would give the lock away
        for (const char* sop : {"5", "6"}) {
            EXPECT_EQ(other.WriteDataset(image("1.2.3", "4", sop).get(), 1, nullptr, 0), 0);
        }
    }
    EXPECT_EQ(wait_for_child(child), 0);
    EXPECT_EQ(levels_of("4", "5"), "ET");
    EXPECT_EQ(levels_of("4", "6"), "MET");
}

TEST_F(DeleteFile, ARecordIsPutBackWhileItsImageIsThere) {
    fill();
    tarvo::LevelIndex index(sizeof(tarvo::ImageRecord));
    const std::string record = read_file(image_index).substr(0, 768);
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "5"), 0);
    const std::string without = read_file(image_index);
    using tarvo::Inserted;
    EXPECT_EQ(index.restore(image_index, record.data(), image_5.c_str()), Inserted::unneeded);
    EXPECT_EQ(read_file(image_index), without);
    EXPECT_EQ(index.writes(), 0U);
    std::filesystem::create_symlink("nowhere", image_5);  // an image may be a link
    EXPECT_EQ(index.restore(image_index, record.data(), image_5.c_str()), Inserted::done);
    std::string other = record;
    other[700] = 'x';
    EXPECT_EQ(index.restore(image_index, other.data(), image_5.c_str()), Inserted::done);
    EXPECT_EQ(read_file(image_index), without + record) << "what another writer put there stays";
    EXPECT_EQ(index.writes(), 1U);
}

struct Order {
    int storer;
    int series;
};

struct Pipe {
    Pipe() { EXPECT_EQ(::pipe(ends), 0); }
    void close(int end) { ::close(ends[end]); }
    template <typename Message>
    [[nodiscard]] bool get(Message& message) const {
        return ::read(ends[0], &message, sizeof message) == sizeof message;
    }
    template <typename Message>
    [[nodiscard]] bool put(const Message& message) const {
        return ::write(ends[1], &message, sizeof message) == sizeof message;
    }
    int ends[2] = {-1, -1};
};

// Each storer stores images of its own into three series of one study and hands them to a deleter
// at once or later, so that series and study come and go. It alone has them deleted: whenever it
// looks, it knows what must be found.
class StoreAgainstDelete : public DeleteFile {
  protected:
    static constexpr int storers = 4;
    static constexpr int deleters = 2;

    [[nodiscard]] static std::string series_of(const Order& order) {
        return std::to_string(order.series);
    }
    [[nodiscard]] static std::string sop_of(const Order& order) {
        return std::to_string(order.storer) + "." + std::to_string(order.series);
    }
    // Whether queries find the image at every level, or not at image level.
    [[nodiscard]] bool is_right(const Order& order, bool stored) const {
        const std::string found = levels_of(series_of(order).c_str(), sop_of(order).c_str());
        const bool right = stored ? found == "MET" : found.find('M') == std::string::npos;
        if (!right) {
            std::fprintf(stderr, "image %s, %s: found at \"%s\"\n", sop_of(order).c_str(),
                         stored ? "stored" : "deleted", found.c_str());
        }
        return right;
    }
    [[nodiscard]] bool stores(const Order& order) {
        const int result = write("1.2.3", series_of(order), sop_of(order));
        const std::string lines = log.take();
        if (result != 0) std::fprintf(stderr, "storing: %d\n%s", result, lines.c_str());
        return result == 0;
    }
    // The keys of the records that are not blank.
    [[nodiscard]] static Keys live(const std::string& path, std::size_t size) {
        Keys keys = keys_in(path, size);
        std::erase(keys, "");
        return keys;
    }
    [[nodiscard]] bool has_deleted(const Order& order) {
        int result = 1;
        return is_right(order, true) && orders.put(order) && replies[order.storer].get(result) &&
               result != 1 && is_right(order, false);
    }
    int run_storer(int number) {
        ::alarm(50);
        std::minstd_rand random(static_cast<unsigned>(number) + 1);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        while (std::chrono::steady_clock::now() < end) {
            const Order order{number, static_cast<int>(random() % 3)};
            if (!stores(order) || !is_right(order, true)) return 1;
            if (random() % 4 == 0) ::usleep(static_cast<unsigned>(random() % 2000));
            if (!has_deleted(order)) return 2;
        }
        const Order last{number, number % 3};
        return stores(last) && is_right(last, true) && (number % 2 == 0 || has_deleted(last)) ? 0
                                                                                              : 3;
    }
    int run_deleter() {
        ::alarm(50);
        orders.close(1);
        for (Order order{}; orders.get(order);) {
            const int result =
                store.DeleteFile("1.2.3", series_of(order).c_str(), sop_of(order).c_str());
            if (!replies[order.storer].put(result)) return 1;
        }
        return 0;
    }

    int run_at_random(int number, int round) {
        std::minstd_rand random(static_cast<unsigned>(round * 10 + number + 1));
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(30);
        while (std::chrono::steady_clock::now() < end) {
            const Order order{number < storers ? number : static_cast<int>(random() % storers),
                              static_cast<int>(random() % 2)};
            if (number < storers) {
                if (!stores(order)) return 1;
            } else {
                const std::string series = series_of(order);
                std::ignore = store.DeleteFile("1.2.3", series.c_str(), sop_of(order).c_str());
            }
        }
        return 0;
    }
    // Records and files belong together, on all levels.
    void expect_no_halves() const {
        Keys series;
        for (const std::string number : {"0", "1"}) {
            const Keys images = live(study + "/series_" + number + "/IMAGEINDEX.dat", 768);
            for (int i = 0; i < storers; ++i) {
                const std::string sop = std::to_string(i) + "." + number;
                EXPECT_EQ(std::count(images.begin(), images.end(), sop) == 1,
                          store.HaveFile("1.2.3", number.c_str(), sop.c_str()) == 0);
            }
            if (!images.empty()) series.push_back(number);
        }
        Keys listed = live(series_index, 320);
        std::sort(listed.begin(), listed.end());
        EXPECT_EQ(listed, series);
        EXPECT_EQ(live(directory.file("uid/STUDYINDEX.dat"), 512).size(), series.empty() ? 0U : 1U);
    }

    Pipe orders;
    Pipe replies[storers];
};

TEST_F(StoreAgainstDelete, AStoredImageIsFoundAtEveryLevelUntilItIsDeleted) {
    pid_t children[storers + deleters] = {};
    for (int i = 0; i < storers + deleters; ++i) {
        children[i] = start_child([&] { return i < storers ? run_storer(i) : run_deleter(); });
    }
    orders.close(1);  // the deleters end with the last storer
    for (const pid_t child : children) EXPECT_EQ(wait_for_child(child), 0);
    for (int i = 0; i < storers; ++i) EXPECT_TRUE(is_right({i, i % 3}, i % 2 == 0)) << i;
    EXPECT_GT(keys_in(directory.file("uid/STUDYINDEX.dat"), 512).size(), 10U)
        << "the study hardly ever went away";
}

// Where images are deleted while they are stored nobody knows which are left, but those are whole.
TEST_F(StoreAgainstDelete, NothingIsLeftByHalves) {
    for (int round = 0; round < 30 && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        pid_t children[storers + deleters] = {};
        for (int i = 0; i < storers + deleters; ++i) {
            children[i] = start_child([&] { return run_at_random(i, round); });
        }
        for (const pid_t child : children) EXPECT_EQ(wait_for_child(child), 0);
        expect_no_halves();
    }
}

}  // namespace
