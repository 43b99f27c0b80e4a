#include "store/image_file.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcerror.h"
#include "dcmtk/dcmdata/dcfilefo.h"
#include "dcmtk/dcmdata/dcostrma.h"
#include "dcmtk/dcmdata/dcwcache.h"

#include "support/file_helpers.h"
#include "support/held_signals.h"
#include "support/log.h"
#include "support/unique_fd.h"

namespace tarvo {

namespace {

// Collects what the toolkit writes, mostly a few bytes a call, and passes it on in large pieces.
// The first failure is kept, whether or not the toolkit asks for it.
class DescriptorConsumer : public DcmConsumer {
  public:
    DescriptorConsumer(int descriptor, const DiskSync& sync)
        : descriptor_(descriptor), sync_(sync) {
        pending_.reserve(piece_size);
    }

    OFBool good() const override { return error_ == 0; }
    OFCondition status() const override { return error_ == 0 ? EC_Normal : EC_InvalidStream; }
    OFBool isFlushed() const override { return OFTrue; }        // as the toolkit's file consumer
    offile_off_t avail() const override { return 0x7FFFFFFF; }  // likewise: never suspends
    void flush() override {}

    offile_off_t write(const void* bytes, offile_off_t length) override {
        const auto size = static_cast<std::size_t>(length);
        if (pending_.size() + size > piece_size) push_pending();
        if (size >= piece_size) {
            push(bytes, size);
        } else if (error_ == 0) {
            pending_.append(static_cast<const char*>(bytes), size);
        }
        return error_ == 0 ? length : 0;
    }

    // The number of the system's error, 0 when all went well.
    [[nodiscard]] int error() const { return error_; }

    // Writes what is still collected.
    void push_pending() {
        push(pending_.data(), pending_.size());
        pending_.clear();
    }

  private:
    static constexpr std::size_t piece_size = 262144;

    void push(const void* bytes, std::size_t size) {
        if (error_ != 0) return;
        const ssize_t written = writeAll(descriptor_, bytes, size);
        if (written < 0) error_ = errno;
        if (written >= 0 && static_cast<std::size_t>(written) < size) error_ = ENOSPC;
        // The disk begins while the toolkit still writes: less is left to wait for at the end.
        if (size >= piece_size / 2) sync_.start(descriptor_);
    }

    int descriptor_;
    const DiskSync& sync_;
    int error_ = 0;
    std::string pending_;
};

class DescriptorStream : public DcmOutputStream {
  public:
    explicit DescriptorStream(DescriptorConsumer& consumer) : DcmOutputStream(&consumer) {}
};

// Puts file meta information in front of a dataset and hands the dataset back unharmed.
class BorrowingFileFormat {
  public:
    explicit BorrowingFileFormat(DcmDataset& dataset)
        : dataset_(dataset), parent_(dataset.getParent()), format_(&dataset, OFFalse) {}
    BorrowingFileFormat(const BorrowingFileFormat&) = delete;
    BorrowingFileFormat& operator=(const BorrowingFileFormat&) = delete;
    BorrowingFileFormat(BorrowingFileFormat&&) = delete;
    BorrowingFileFormat& operator=(BorrowingFileFormat&&) = delete;
    ~BorrowingFileFormat() {
        static_cast<void>(format_.getAndRemoveDataset());  // ours from the start
        dataset_.setParent(parent_);
    }

    OFCondition write(DcmOutputStream& stream, E_TransferSyntax syntax) {
        DcmWriteCache cache;
        format_.transferInit();
        const OFCondition result =
            format_.write(stream, syntax, EET_UndefinedLength, &cache, EGL_recalcGL,
                          EPD_withoutPadding, 0, 0, 0, EWM_fileformat);
        format_.transferEnd();
        return result;
    }

  private:
    DcmDataset& dataset_;
    DcmObject* parent_;
    DcmFileFormat format_;
};

// Tells what the system said of the last call.
bool system_failure(std::string& reason, int error) {
    reason = std::strerror(error);
    return false;
}

bool write_all(DcmDataset& dataset, E_TransferSyntax syntax, int descriptor, const DiskSync& sync,
               std::string& reason) {
    DescriptorConsumer consumer(descriptor, sync);
    DescriptorStream stream(consumer);
    OFCondition result = BorrowingFileFormat(dataset).write(stream, syntax);
    stream.flush();  // drains the compression of a deflated transfer syntax
    if (result.good()) result = stream.status();
    consumer.push_pending();
    // A failure of the system explains one that the toolkit met because of it.
    if (!consumer.good()) return system_failure(reason, consumer.error());
    reason = result.text();
    return result.good();
}

// Waiting for the disk may take long: signals are let through meanwhile.
bool wait_for_contents(int descriptor) {
    const ReleasedSignals mortal;
    return ::fsync(descriptor) == 0;
}

// The one place where a complete file is brought to an end.
bool finish(UniqueFd file, const DiskSync& sync, std::string& reason) {
    if (sync.waits() && !wait_for_contents(file.get())) return system_failure(reason, errno);
    return ::close(file.release()) == 0 || system_failure(reason, errno);
}

E_TransferSyntax syntax_on_disk(DcmDataset& dataset, FILE* log) {
    const E_TransferSyntax received = dataset.getOriginalXfer();
    if (dataset.canWriteXfer(EXS_LittleEndianExplicit, received)) return EXS_LittleEndianExplicit;
    logprintf(128, log, "LocalStore::WriteDataset: Cannot write LE-Exp TS, using original.\n");
    return received;
}

std::string temporary_name(const std::string& target) {
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".%d.tmp", static_cast<int>(::getpid()));
    return target + suffix;
}

// An earlier process with our id may have died and left a file of that name.
UniqueFd create(const std::string& path) {
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
    UniqueFd file(::open(path.c_str(), flags, 0664));
    if (file || errno != EEXIST || ::unlink(path.c_str()) != 0) return file;
    return UniqueFd(::open(path.c_str(), flags, 0664));
}

// Removes the file unless it has been moved to its place.
class TemporaryFile {
  public:
    explicit TemporaryFile(std::string path) : path_(std::move(path)) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    TemporaryFile(TemporaryFile&&) = delete;
    TemporaryFile& operator=(TemporaryFile&&) = delete;
    ~TemporaryFile() {
        if (!moved_) ::unlink(path_.c_str());
    }

    [[nodiscard]] const std::string& path() const { return path_; }

    [[nodiscard]] bool move_to(const std::string& target, std::string& reason) {
        moved_ = ::rename(path_.c_str(), target.c_str()) == 0;
        return moved_ || system_failure(reason, errno);
    }

  private:
    std::string path_;
    bool moved_ = false;
};

}  // namespace

bool write_image_file(DcmDataset& dataset, E_TransferSyntax syntax, const std::string& path,
                      const DiskSync& sync, std::string& reason) {
    UniqueFd file = create(path);
    if (!file) return system_failure(reason, errno);
    return write_all(dataset, syntax, file.get(), sync, reason) &&
           finish(std::move(file), sync, reason);
}

bool store_image(DcmDataset& dataset, const std::string& target, const DiskSync& sync, FILE* log) {
    const E_TransferSyntax syntax = syntax_on_disk(dataset, log);
    TemporaryFile temporary(temporary_name(target));
    std::string reason;
    if (write_image_file(dataset, syntax, temporary.path(), sync, reason) &&
        temporary.move_to(target, reason)) {
        return true;
    }
    logprintf(8, log, "Cannot write image %s: %s.\n", target.c_str(), reason.c_str());
    return false;
}

}  // namespace tarvo
