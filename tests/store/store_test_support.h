// What the tests of the store share: directories, datasets, child processes, captured log lines.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcpixseq.h"
#include "dcmtk/dcmdata/dcpxitem.h"
#include "dcmtk/dcmdata/dctk.h"

#include "store/local_store.h"
#include "support/log.h"

namespace store_test {

using Strings = std::vector<std::string>;

// A directory of its own, gone with the object.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        char name[] = "/tmp/tarvo-store-XXXXXX";
        path_ = ::mkdtemp(name) != nullptr ? name : "/nonexistent";
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    TemporaryDirectory(TemporaryDirectory&&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory&&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

    // Everything below it, sorted.
    [[nodiscard]] Strings tree() const {
        Strings names;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path_)) {
            names.push_back(std::filesystem::relative(entry.path(), path_).string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    std::string path_;
};

inline std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string& path, const std::string& bytes,
                       std::ios::openmode mode = std::ios::trunc) {
    std::ofstream(path, std::ios::binary | mode) << bytes;
}

// Replaces bytes in the middle of a file.
inline void patch_file(const std::string& path, std::size_t offset, const std::string& bytes) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset)) << bytes;
}

// The keys (the first 64 bytes) of the records of a file.
inline Strings keys_in(const std::string& path, std::size_t record_size) {
    const std::string bytes = read_file(path);
    Strings keys;
    for (std::size_t at = 0; at + record_size <= bytes.size(); at += record_size) {
        keys.emplace_back(bytes.data() + at, ::strnlen(bytes.data() + at, 64));
    }
    return keys;
}

// Starts a child process that ends with the result of `work`.
inline pid_t start_child(const std::function<int()>& work) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(work());
    return child;
}

// The child's exit status, -1 when a signal ended it.
inline int wait_for_child(pid_t child) {
    int status = -1;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

inline bool is_running(pid_t child) { return ::waitpid(child, nullptr, WNOHANG) == 0; }

inline int in_child(const std::function<int()>& work) { return wait_for_child(start_child(work)); }

// Runs `work` where no file can grow beyond `room` bytes, as on a full disk.
inline int in_child_with_room(rlim_t room, const std::function<int()>& work) {
    return in_child([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{room, room};
        return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 ? work() : 99;
    });
}

// Runs `work` with the numbers 0 to 7 in eight processes, released at the same moment.
// Returns how many of them ended with 0.
inline int in_eight_children(const std::function<int(int)>& work) {
    int gate[2];
    if (::pipe(gate) != 0) return -1;
    pid_t children[8];
    for (int i = 0; i < 8; ++i) {
        children[i] = start_child([&] {
            char byte = 0;
            ::close(gate[1]);
            return ::read(gate[0], &byte, 1) == 0 ? work(i) : 99;  // when all have closed it
        });
    }
    ::close(gate[0]);
    ::close(gate[1]);
    return static_cast<int>(std::count_if(std::begin(children), std::end(children),
                                          [](pid_t child) { return wait_for_child(child) == 0; }));
}

// Collects the log: every level, without time and process id.
class LogCapture {
  public:
    explicit LogCapture(unsigned level = 128) : stream_(::open_memstream(&text_, &size_)) {
        logprintf_setmaxlevel(level);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    LogCapture(LogCapture&&) = delete;
    LogCapture& operator=(LogCapture&&) = delete;
    ~LogCapture() {
        logprintf_setmaxlevel(32);
        std::fclose(stream_);
        std::free(text_);
    }
    [[nodiscard]] FILE* stream() { return stream_; }

    // The messages since the last call.
    std::string take() {
        std::fflush(stream_);
        std::istringstream lines(std::string(text_ + taken_, size_ - taken_));
        taken_ = size_;
        std::string messages;
        for (std::string line; std::getline(lines, line);) {
            messages += line.substr(line.find("]:") + 2) + "\n";
        }
        return messages;
    }

  private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::size_t taken_ = 0;
    FILE* stream_;
};

struct Attribute {
    DcmTagKey tag;
    std::string value;
};
using Attributes = std::vector<Attribute>;
using Dataset = std::unique_ptr<DcmDataset>;

inline void put(DcmDataset& dataset, const Attributes& attributes) {
    for (const auto& [tag, value] : attributes) {
        EXPECT_TRUE(dataset.putAndInsertOFStringArray(tag, value).good()) << tag.toString();
    }
}

inline Dataset dataset_of(const Attributes& attributes) {
    auto dataset = std::make_unique<DcmDataset>();
    put(*dataset, attributes);
    return dataset;
}

// A CT image of `size` pixels.
inline Dataset image(const std::string& study, const std::string& series, const std::string& sop,
                     const Attributes& more = {}, std::size_t size = 512) {
    auto dataset = dataset_of({{DCM_SOPClassUID, UID_CTImageStorage},
                               {DCM_SOPInstanceUID, sop},
                               {DCM_StudyInstanceUID, study},
                               {DCM_SeriesInstanceUID, series},
                               {DCM_Modality, "CT"},
                               {DCM_PatientName, "DOE^JOHN"}});
    put(*dataset, more);
    std::vector<Uint16> pixels(size);
    for (std::size_t i = 0; i < size; ++i) pixels[i] = static_cast<Uint16>(i * i);
    EXPECT_TRUE(dataset->putAndInsertUint16Array(DCM_PixelData, pixels.data(), size).good());
    return dataset;
}

// The dataset as it comes out of a transfer in that syntax.
inline Dataset received(DcmDataset& sent, E_TransferSyntax syntax) {
    const TemporaryDirectory directory;
    DcmFileFormat out(&sent);
    DcmFileFormat in;
    EXPECT_TRUE(out.saveFile(directory.file("sent").c_str(), syntax).good());
    EXPECT_TRUE(in.loadFile(directory.file("sent").c_str()).good());
    in.loadAllDataIntoMemory();
    return Dataset(in.getAndRemoveDataset());
}

// An image with a JPEG fragment of the given size, as received.
inline Dataset compressed_image(std::size_t size) {
    const std::vector<Uint8> fragment(size, 0x42);
    auto* const item = new DcmPixelItem(DcmTag(DCM_Item, EVR_OB));
    EXPECT_TRUE(item->putUint8Array(fragment.data(), size).good());
    auto* const sequence = new DcmPixelSequence(DcmTag(DCM_PixelData, EVR_OB));
    sequence->insert(new DcmPixelItem(DcmTag(DCM_Item, EVR_OB)));  // empty offset table
    sequence->insert(item);
    auto* const pixels = new DcmPixelData(DCM_PixelData);
    pixels->putOriginalRepresentation(EXS_JPEGProcess1, nullptr, sequence);
    auto dataset = image("1.2.3", "1.2.3.1", "1.2.3.1.9");
    EXPECT_TRUE(dataset->insert(pixels, OFTrue).good());
    return received(*dataset, EXS_JPEGProcess1);
}

}  // namespace store_test
