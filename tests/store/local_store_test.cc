#include "store/local_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/store/store_test_support.h"

namespace {

using namespace tarvo::test;

TEST(StoreConfiguration, TheFirstLineIsTheBaseDirectory) {
    const TemporaryDirectory directory;
    const std::string file = directory.file("LocalStoreDir");
    LocalStore store("/base");
    store.ReadBaseDirConfig(file.c_str());  // missing
    EXPECT_STREQ(store.baseDir, "/base");
    for (const auto& [content, base] : std::vector<std::pair<std::string, std::string>>{
             {"/data/store\r\n/other\n", "/data/store"},
             {" /with blanks $(HOME) \n", " /with blanks $(HOME) "},
             {"\n/data/store\n", ""},
             {"", ""},
             {std::string(1500, 'x') + "\n", std::string(1023, 'x')}}) {
        directory.write("LocalStoreDir", content);
        store.ReadBaseDirConfig(file.c_str());
        EXPECT_EQ(store.baseDir, base);
    }
}

TEST(StoreDirectory, ComplainsAboutTheFirstAccessThatIsDenied) {
    const TemporaryDirectory directory;
    LocalStore store("/base");
    store.setLogfile(stderr);
    const auto result_and_message = [&](mode_t mode, int result, const std::string& message) {
        return in_child([&] {
            ::chmod(directory.path().c_str(), mode);
            // Root may do anything.
            if (::getuid() == 0 && (::chown(directory.path().c_str(), 65534, 65534) != 0 ||
                                    ::setresuid(65534, 65534, 65534) != 0)) {
                return 1;
            }
            testing::internal::CaptureStderr();
            if (store.check_and_complain_dir(directory.path().c_str()) != result) return 2;
            const std::string said = testing::internal::GetCapturedStderr();
            return said.substr(std::min(said.find(':', 20) + 1, said.size())) == message ? 0 : 3;
        });
    };
    const std::string rest = " Storage base directory " + directory.path() + ".\n";
    EXPECT_EQ(result_and_message(0700, 0, ""), 0);
    EXPECT_EQ(result_and_message(0300, 4, "Cannot read" + rest), 0);
    EXPECT_EQ(result_and_message(0600, 4, "Cannot traverse" + rest), 0);
    EXPECT_EQ(result_and_message(0500, 4, "Cannot write" + rest), 0);
    ::chmod(directory.path().c_str(), 0700);
}

}  // namespace
