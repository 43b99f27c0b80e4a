// What the tests of the store share: datasets, files, child processes.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include "store/local_store.h"
#include "support/unique_fd.h"
#include "support/whole_file_lock.h"
#include "tests/support/test_helpers.h"

namespace tarvo::test {

using Strings = std::vector<std::string>;

// Replaces bytes in the middle of a file.
inline void patch_file(const std::string& path, std::size_t offset, const std::string& bytes) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset)) << bytes;
}

inline void append_to(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
}

// The keys (the first 64 bytes) of the records of a file.
inline Strings keys_in(const std::string& path, std::size_t record_size) {
    const std::string bytes = content_of(path);
    Strings keys;
    for (std::size_t at = 0; at + record_size <= bytes.size(); at += record_size) {
        keys.emplace_back(bytes.data() + at, ::strnlen(bytes.data() + at, 64));
    }
    return keys;
}

// What `work` exits with in a process that has to wait because we hold a lock on the file.
// `meanwhile` runs before we let go.
template <typename Work>
[[nodiscard]] int after_waiting(
    const std::string& path, LockKind kind, Work work,
    const std::function<void()>& meanwhile = [] {}) {
    pid_t child = -1;
    {
        const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        const WholeFileLock lock(file.get(), kind);
        EXPECT_TRUE(lock.held());
        child = start_child(work);
        ::usleep(150'000);
        EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), 0) << "it did not wait";
        meanwhile();
    }
    return exit_code(child);
}

using Attributes = std::vector<std::pair<DcmTagKey, std::string>>;
using Dataset = std::unique_ptr<DcmDataset>;

// A CT image of `size` pixels.
inline Dataset image(const std::string& study, const std::string& series, const std::string& sop,
                     const Attributes& more = {}, std::size_t size = 512) {
    auto dataset = std::make_unique<DcmDataset>();
    Attributes attributes{{DCM_SOPClassUID, UID_CTImageStorage},
                          {DCM_SOPInstanceUID, sop},
                          {DCM_StudyInstanceUID, study},
                          {DCM_SeriesInstanceUID, series},
                          {DCM_Modality, "CT"},
                          {DCM_PatientName, "DOE^JOHN"}};
    attributes.insert(attributes.end(), more.begin(), more.end());
    for (const auto& [tag, value] : attributes) {
        EXPECT_TRUE(dataset->putAndInsertOFStringArray(tag, value).good()) << tag.toString();
    }
    const std::vector<Uint16> pixels(size, 0x4217);
    EXPECT_TRUE(dataset->putAndInsertUint16Array(DCM_PixelData, pixels.data(), size).good());
    return dataset;
}

}  // namespace tarvo::test
