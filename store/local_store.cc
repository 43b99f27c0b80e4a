#include "store/local_store.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "store/store_internals.h"
#include "support/crc32.h"
#include "support/log.h"
#include "support/paths.h"

namespace {

// The store of the process is built before main, in whatever order the linker chose.
constinit bool crc_table_filled = false;

void fill_crc_table() {
    if (crc_table_filled) return;
    crc32_init(0xEDB88320);
    crc_table_filled = true;
}

// The base directory of a site that configured none.
constexpr char default_base[] = "/ct/dicom";

}  // namespace

LocalStore::LocalStore() : LocalStore(nullptr) {}

LocalStore::LocalStore(const char* directory)
    : baseDir(directory),
      baseDirOwned(0),
      verbosity(2),
      studyHash(nullptr),
      studyHashCount(0),
      studyHashMtime(0),
      logfile(nullptr),
      internals_(std::make_unique<Internals>()) {
    fill_crc_table();
    if (baseDir == nullptr) {
        char file[1024];
        ReadBaseDirConfig(getfilepath(tarvo::configuration_search_path, "LocalStoreDir", R_OK, file,
                                      sizeof file));
    }
    if (baseDir == nullptr) baseDir = default_base;
    // A store that cannot be used is built all the same.
    static_cast<void>(check_and_complain_dir(baseDir));
    static_cast<void>(updateStudyHash());
}

LocalStore::~LocalStore() {
    if (baseDirOwned != 0) std::free(const_cast<char*>(baseDir));
    std::free(studyHash);
}

bool LocalStore::waitsForDisk() const { return internals_->disk.waits(); }

void LocalStore::ReadBaseDirConfig(const char* filename) {
    FILE* const file = filename != nullptr ? std::fopen(filename, "re") : nullptr;
    if (file == nullptr) return;
    char line[1024];
    if (std::fgets(line, sizeof line, file) == nullptr) line[0] = '\0';
    std::fclose(file);
    line[std::strcspn(line, "\r\n")] = '\0';
    if (baseDirOwned != 0) std::free(const_cast<char*>(baseDir));
    baseDir = ::strdup(line);
    baseDirOwned = 1;
}

int LocalStore::check_and_complain_dir(const char* directory) {
    if (::access(directory, R_OK) != 0) {
        logprintf(8, logfile, "Cannot read Storage base directory %s.\n", directory);
        return tarvo::store_base_unusable;
    }
    if (::access(directory, X_OK) != 0) {
        logprintf(8, logfile, "Cannot traverse Storage base directory %s.\n", directory);
        return tarvo::store_base_unusable;
    }
    if (::access(directory, W_OK) != 0) {
        logprintf(8, logfile, "Cannot write Storage base directory %s.\n", directory);
        return tarvo::store_base_unusable;
    }
    return tarvo::store_success;
}
