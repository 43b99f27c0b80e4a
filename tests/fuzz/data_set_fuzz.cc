// Any bytes as a received data set, stored, found, linked and deleted again. The first byte tells
// the transfer syntax.
#include <array>
#include <map>
#include <memory>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcfilefo.h"
#include "dcmtk/dcmdata/dcistrmb.h"
#include "dcmtk/oflog/oflog.h"

#include "dicom/dataset.h"
#include "store/local_store.h"
#include "tests/fuzz/fuzz.h"

namespace {

using tarvo::fuzz::require;
namespace fs = std::filesystem;

constexpr char resident_study[] = "1.2.3";  // of an image that is there all the time

// What lies below a directory: files with their content, directories, and where links lead.
std::map<std::string, std::string> snapshot(const std::string& directory) {
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        std::string& content = found[entry.path()];
        if (entry.is_symlink())
            content = fs::read_symlink(entry.path());
        else if (entry.is_regular_file())
            content = tarvo::fuzz::read_file(entry.path());
    }
    return found;
}

void put_uids(DcmDataset& dataset, const char* study, const char* series, const char* image) {
    DCMTK_Key_Add(&dataset, 0x0020, 0x000D, study);
    DCMTK_Key_Add(&dataset, 0x0020, 0x000E, series);
    DCMTK_Key_Add(&dataset, 0x0008, 0x0018, image);
}

// The base directory, and around it what no data set may touch.
class Archive {
  public:
    Archive() { tarvo::fuzz::write_file(root_ + "/neighbour", "untouched"); }

    void rebuild() {
        fs::remove_all(base_);
        fs::create_directory(base_);
        DcmDataset resident;
        resident.putAndInsertString(DCM_SOPClassUID, "1.2.840.10008.5.1.4.1.1.7");
        put_uids(resident, resident_study, "1.2.3.4", "1.2.3.4.5");
        LocalStore store(base());
        require(store.WriteDataset(&resident, 0, nullptr, 0) == 0, "an image can be stored");
        before_ = snapshot(root_);
    }

    // Whether all is as it was when it was built.
    [[nodiscard]] bool is_as_before() const { return snapshot(root_) == before_; }

    void check_surroundings() const {
        for (const auto& [path, content] : snapshot(root_)) {
            const std::string name = path.substr(root_.size()) + "/";
            require(name == "/base/" || name.starts_with("/base/uid/") ||
                        name.starts_with("/base/patient/") ||
                        (name == "/neighbour/" && content == "untouched"),
                    "nothing changes but the two trees below the base");
        }
    }

    [[nodiscard]] const char* base() const { return base_.c_str(); }

  private:
    std::string root_ = tarvo::fuzz::make_scratch_directory();
    std::string base_ = root_ + "/base";
    std::map<std::string, std::string> before_;
};

E_TransferSyntax transfer_syntax(char letter) {
    static const std::map<char, E_TransferSyntax> syntaxes{{'i', EXS_LittleEndianImplicit},
                                                           {'b', EXS_BigEndianExplicit},
                                                           {'d', EXS_DeflatedLittleEndianExplicit},
                                                           {'j', EXS_JPEGProcess1}};
    const auto found = syntaxes.find(letter);
    return found != syntaxes.end() ? found->second : EXS_LittleEndianExplicit;
}

// Null when the toolkit does not take it.
std::unique_ptr<DcmDataset> received(std::string_view bytes, E_TransferSyntax syntax) {
    auto dataset = std::make_unique<DcmDataset>();
    DcmInputBufferStream stream;
    stream.setBuffer(bytes.data(), static_cast<offile_off_t>(bytes.size()));
    stream.setEos();
    dataset->transferInit();
    const OFCondition condition = dataset->read(stream, syntax, EGL_noChange);
    dataset->transferEnd();
    return condition.good() ? std::move(dataset) : nullptr;
}

using Uids = std::array<std::string, 3>;  // of study, series and image

Uids uids_of(DcmDataset& dataset) {
    Uids uids;
    std::size_t number = 0;
    for (const auto& tag : {DCM_StudyInstanceUID, DCM_SeriesInstanceUID, DCM_SOPInstanceUID}) {
        const char* const value = DCMTK_getTagString(&dataset, tag);
        uids[number++] = value != nullptr ? value : "";
    }
    return uids;
}

// How often an image is found among those of its series.
int times_found(LocalStore& store, const Uids& uids) {
    DcmDataset query;
    put_uids(query, uids[0].c_str(), uids[1].c_str(), uids[2].c_str());
    void* handle = nullptr;
    int found = 0;
    for (;;) {
        DcmDataset* response = nullptr;
        const int result = store.FindDataset(&handle, &query, &response, "IMAGE");
        const std::unique_ptr<DcmDataset> owner(response);
        if (result != 0) return found;
        require(store.HaveDataset(response) == 0, "what is found leads to its file");
        ++found;
    }
}

void check_stored(LocalStore& store, const Uids& uids) {
    const OFString path = store.GetUidPath(uids[0].c_str(), uids[1].c_str(), uids[2].c_str(), 1);
    DcmFileFormat file;
    require(file.loadFile(path).good(), "a stored image can be loaded");
    require(uids_of(*file.getDataset()) == uids, "a stored image keeps its UIDs");
    require(times_found(store, uids) == 1, "a stored image is found");
}

void delete_again(LocalStore& store, const Uids& uids) {
    const char* const study = uids[0].c_str();
    const char* const series = uids[1].c_str();
    const char* const image = uids[2].c_str();
    const std::string fan_out = store.GetUidBasePath(study).c_str();
    require(store.DeleteFile(study, series, image) == 0, "a stored image can be deleted");
    require(store.HaveFile(study, series, image) != 0, "a deleted image is gone");
    require(times_found(store, uids) == 0, "a deleted image is not found");
    require(store.compactStudyHash() == 1 || uids[0] == resident_study,
            "its study goes with the next compaction");
    std::error_code not_empty;  // the one of the resident is not
    fs::remove(fan_out, not_empty);
    fs::remove(fs::path(fan_out).parent_path(), not_empty);
    fs::remove_all(store.baseDir + std::string("/patient"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Archive archive;
    static bool is_clean = false;
    if (size == 0) return 0;
    OFLog::configure(OFLogger::OFF_LOG_LEVEL);
    const auto dataset = received(tarvo::fuzz::text_of(data + 1, size - 1),
                                  transfer_syntax(static_cast<char>(data[0])));
    if (!dataset) return 0;
    if (!is_clean) archive.rebuild();
    is_clean = false;
    LocalStore store(archive.base());
    const Uids uids = uids_of(*dataset);
    const int result = store.WriteDataset(dataset.get(), 0, nullptr, 0);
    if (result == 0) {
        check_stored(store, uids);
        static_cast<void>(store.WriteSymlinks(dataset.get()));
    }
    archive.check_surroundings();
    if (result != 0 && result != tarvo::store_uid_missing) return 0;
    if (result == 0) delete_again(store, uids);
    is_clean = uids[0] != resident_study;
    if (is_clean) require(archive.is_as_before(), "nothing of a deleted image is left");
    return 0;
}
