// Any bytes as the index files of a small archive, read by queries of every level, and as the redo
// file of an unfinished compaction. The input starts with the lengths of the first four files, two
// bytes each; the image index has the rest.
#include <map>
#include <memory>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcelem.h"

#include "dicom/dataset.h"
#include "store/local_store.h"
#include "store/records.h"
#include "store/redo_file.h"
#include "store/store_internals.h"
#include "tests/fuzz/fuzz.h"

namespace {

using tarvo::fuzz::require;
namespace fs = std::filesystem;

constexpr char study[] = "1.2.3";
constexpr char series[] = "1.2.3.4";
constexpr char image[] = "1.2.3.4.5";
constexpr std::size_t widest_field = 512;  // of a study's record, whose fields may run together

struct Base {
    std::string path = tarvo::fuzz::make_scratch_directory();
    LocalStore paths{path.c_str()};
    std::string hash = paths.GetUidIndexPath(nullptr, nullptr).c_str() + std::string(".hash");
    std::string data = paths.GetUidIndexPath(nullptr, nullptr).c_str() + std::string(".dat");
    std::string series_index = paths.GetUidIndexPath(study, nullptr).c_str() + std::string(".dat");
    std::string image_index = paths.GetUidIndexPath(study, series).c_str() + std::string(".dat");

    std::string redo = tarvo::redo_path(paths).c_str();

    Base() { require(paths.CreateUidPath(study, series) == 0, "the directories can be made"); }
};

using Keys = std::map<DcmTagKey, const char*>;

const std::pair<const char*, Keys> queries[] = {
    {"PATIENT", {{DCM_PatientName, "*e*"}, {DCM_PatientSex, "M"}}},
    {"STUDY", {{DCM_PatientName, "D*"}, {DCM_StudyDate, "2000-2030"}}},
    {"STUDY", {{DCM_StudyInstanceUID, study}, {DCM_Modality, "CT"}}},
    {"STUDY", {{DCM_StudyInstanceUID, ""}, {DCM_AccessionNumber, "*7"}}},
    {"SERIES", {{DCM_StudyInstanceUID, study}}},
    {"SERIES", {{DCM_StudyInstanceUID, study}, {DCM_SeriesInstanceUID, series}}},
    {"IMAGE", {{DCM_StudyInstanceUID, study}}},
    {"IMAGE", {{DCM_StudyInstanceUID, study}, {DCM_SeriesInstanceUID, series}}},
    {"IMAGE", {{DCM_StudyInstanceUID, study}, {DCM_SOPInstanceUID, image}}}};

// Patient's Name and ID, Study Time and Description, Modalities in Study, Referring Physician's
// Name, Series Description and Number, Modality, Image Comments, Image Orientation, Instance
// Number, Series Instance UID
constexpr unsigned asked[] = {0x00100010, 0x00100020, 0x00080030, 0x00081030, 0x00080061,
                              0x00080090, 0x0008103E, 0x00200011, 0x00080060, 0x00204000,
                              0x00200037, 0x00200013, 0x0020000E};

void check_answer(DcmDataset& answer) {
    for (unsigned long i = 0; i < answer.card(); ++i) {
        require(answer.getElement(i)->getLengthField() <= widest_field, "an answer is bounded");
    }
    require(DCMTK_getTagString(&answer, DCM_QueryRetrieveLevel) != nullptr,
            "an answer has its level");
}

// Asks to the end, or gives up behind the first answers.
void ask(LocalStore& store, DcmDataset& query, const char* level, std::size_t wanted_answers,
         std::size_t most_answers) {
    void* handle = nullptr;
    for (std::size_t answers = 0; answers < wanted_answers; ++answers) {
        DcmDataset* response = nullptr;
        const int result = store.FindDataset(&handle, &query, &response, level);
        const std::unique_ptr<DcmDataset> owner(response);
        if (result != 0) {
            require(handle == nullptr, "an iteration that has ended leaves nothing");
            return;
        }
        require(answers < most_answers, "a query comes to an end");
        check_answer(*response);
    }
    LocalStore::EndFind(&handle);
}

void ask_everything(LocalStore& store, std::size_t input_size) {
    // Every series may name the one that has images.
    const std::size_t most_series = input_size / sizeof(tarvo::SeriesRecord) + 1;
    const std::size_t most_images = input_size / sizeof(tarvo::ImageRecord) + 1;
    const std::size_t most_answers = input_size / sizeof(studyhash) + most_series * most_images;
    for (const auto& [level, keys] : queries) {
        DcmDataset query;
        DCMTK_Key_Add(&query, 0x0008, 0x0052, level);
        for (const unsigned tag : asked) DCMTK_Key_Add(&query, tag >> 16, tag & 0xFFFF, "");
        for (const auto& [tag, value] : keys) {
            DCMTK_Key_Add(&query, tag.getGroup(), tag.getElement(), value);
        }
        ask(store, query, nullptr, most_answers + 1, most_answers);
        ask(store, query, "IMAGE", 1, most_answers);
    }
}

std::string_view take(std::string_view& rest, std::size_t length) {
    const std::string_view taken = rest.substr(0, length);
    rest.remove_prefix(taken.size());
    return taken;
}

std::size_t take_length(std::string_view& lengths) {
    const std::string_view bytes = take(lengths, 2);
    if (bytes.size() < 2) return 0;
    return static_cast<unsigned char>(bytes[0]) | static_cast<std::size_t>(bytes[1] & 0x7F) << 8;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Base base;
    std::string_view rest = tarvo::fuzz::text_of(data, size);
    std::string_view lengths = take(rest, 8);
    tarvo::fuzz::write_file(base.hash, take(rest, take_length(lengths)));
    tarvo::fuzz::write_file(base.data, take(rest, take_length(lengths)));
    tarvo::fuzz::write_file(base.series_index, take(rest, take_length(lengths)));
    tarvo::fuzz::write_file(base.redo, take(rest, take_length(lengths)));
    tarvo::fuzz::write_file(base.image_index, rest);

    const auto hash_size = fs::file_size(base.hash);
    LocalStore store(base.path.c_str());
    ask_everything(store, size);
    static_cast<void>(store.compactStudyHash());
    require(fs::file_size(base.hash) <= hash_size, "compaction adds no studies");
    ask_everything(store, size);
    return 0;
}
