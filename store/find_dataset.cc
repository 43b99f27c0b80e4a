// Answering one query one match at a time (PS3.4, C.4.1).
#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/dataset.h"
#include "store/level_index.h"
#include "store/local_store.h"
#include "store/query_template.h"
#include "store/record_file.h"
#include "store/store_internals.h"
#include "store/study_attributes.h"
#include "support/file_helpers.h"
#include "support/log.h"
#include "support/text_field.h"
#include "support/unique_fd.h"

using tarvo::UniqueFd;

namespace {

constexpr int match = 0;
constexpr int no_more = 1;
constexpr int failure = -1;

// One query that is being answered; the find handle points at it.
class Iteration {
  public:
    Iteration() = default;
    Iteration(const Iteration&) = delete;
    Iteration& operator=(const Iteration&) = delete;
    Iteration(Iteration&&) = delete;
    Iteration& operator=(Iteration&&) = delete;
    virtual ~Iteration() = default;

    // Puts the next match into `response`, which is made when it is null.
    [[nodiscard]] virtual int next(DcmDataset& query, DcmDataset*& response) = 0;
};

UniqueFd open_to_read(const OFString& path) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

// The index file of a study or series. A UID that cannot name a file names none that exists.
UniqueFd open_index(const LocalStore& store, const char* study, const char* series) {
    if (!tarvo::can_name_file(study) || !tarvo::can_name_file(series)) return UniqueFd();
    return open_to_read(store.GetUidIndexPath(study, series) + ".dat");
}

template <typename Record>
const char* bytes_of(const Record& record) {
    return reinterpret_cast<const char*>(&record);
}

// A response dataset in the making. Values are short and known: what the toolkit refuses to take
// is left out of the answer.
class Answer {
  public:
    Answer(DcmDataset*& response, const std::string& level) : response_(response) {
        if (response_ == nullptr) response_ = DCMTK_Dataset_Create();
        put(0x0008, 0x0052, level);
    }

    void put(std::uint16_t group, std::uint16_t element, std::string_view value) {
        static_cast<void>(DCMTK_Key_Add(response_, group, element, std::string(value).c_str()));
    }

    // Only what is asked for is answered.
    void put_if_asked(DcmDataset& query, std::uint16_t group, std::uint16_t element,
                      std::string_view value) {
        if (query.tagExists(DcmTagKey(group, element))) put(group, element, value);
    }

    // The fields of an index record.
    void put_record(DcmDataset& query, std::span<const tarvo::IndexField> fields,
                    const char* record) {
        for (const tarvo::IndexField& field : fields) {
            put_if_asked(query, field.group, field.element,
                         tarvo::field_text(record + field.offset, field.width));
        }
    }

  private:
    DcmDataset*& response_;
};

// ---- study level ----

// The text of a field as it is compared: one that fills its field reads on into the next fields,
// up to the end of the record.
std::string_view compared_text(const studydata& record, std::size_t offset) {
    return tarvo::field_text(bytes_of(record) + offset, sizeof record - offset);
}

bool record_matches(const studydata& record, const studydata_template& wanted) {
    if (record.study_uid[0] == '\0') return false;  // deleted meanwhile
    for (const tarvo::StudyAttribute& attribute : tarvo::study_attributes) {
        if (!attribute.matched) continue;
        const std::string_view pattern = tarvo::field_text(
            bytes_of(wanted) + attribute.template_offset, attribute.template_width);
        if (tarvo::wildcardMismatch(compared_text(record, attribute.offset), pattern) != 0) {
            return false;
        }
    }
    return true;
}

std::string joined_modalities(const studydata& record) {
    std::string joined;
    for (const auto& slot : record.modalities) {
        if (slot[0] == '\0') break;
        if (!joined.empty()) joined += '\\';
        joined += tarvo::field_text(slot);
    }
    return joined;
}

bool has_high_bit(std::string_view text) {
    for (const char character : text) {
        if ((static_cast<unsigned char>(character) & 0x80) != 0) return true;
    }
    return false;
}

// From the newest study to the oldest, in the copy of the hash that this process has.
class StudyIteration : public Iteration {
  public:
    StudyIteration(const LocalStore& store, const DcmDataset& query, std::string level)
        : store_(store),
          level_(std::move(level)),
          index_(store.studyHashCount),
          hash_template_(tarvo::open_hash_template()) {
        store_.studyDataMakeTemplate(&query, &hash_template_, &data_template_);
    }

    [[nodiscard]] bool open() {
        data_ = open_to_read(tarvo::study_data_path(store_));
        return static_cast<bool>(data_);
    }

    int next(DcmDataset& query, DcmDataset*& response) override {
        const bool traced = logprintf_enabled(128);
        index_ = std::min(index_, store_.studyHashCount);  // a delete may have reloaded it shorter
        while (index_ > 0) {
            const int number = static_cast<int>(--index_);
            if (traced) logprintf(128, store_.logfile, "checking entry %d\n", number);
            if (store_.studyHashCompare(&store_.studyHash[index_], &hash_template_) != 0) continue;
            logprintf(128, store_.logfile, "entry %d hash matches\n", number);
            studydata record{};
            if (!read(record) || !record_matches(record, data_template_)) continue;
            answer(query, record, response);
            return match;
        }
        return no_more;
    }

  private:
    [[nodiscard]] bool read(studydata& record) const {
        const off_t offset = static_cast<off_t>(index_) * static_cast<off_t>(sizeof record);
        return tarvo::read_at(data_.get(), &record, sizeof record, offset) == sizeof record;
    }

    void answer(DcmDataset& query, const studydata& record, DcmDataset*& response) const {
        Answer keys(response, level_);
        logprintf(128, store_.logfile, "entry %d data matches, responding\n",
                  static_cast<int>(index_));
        bool beyond_ascii = false;
        const auto put = [&](std::uint16_t group, std::uint16_t element, std::string_view value) {
            if (!query.tagExists(DcmTagKey(group, element))) return;
            keys.put(group, element, value);
            beyond_ascii = beyond_ascii || has_high_bit(value);
        };
        for (const tarvo::StudyAttribute& attribute : tarvo::study_attributes) {
            put(attribute.group, attribute.element,
                tarvo::field_text(bytes_of(record) + attribute.offset, attribute.width));
        }
        put(0x0008, 0x0061, joined_modalities(record));
        if (beyond_ascii) keys.put(0x0008, 0x0005, "ISO_IR 192");  // records hold UTF-8
    }

    const LocalStore& store_;
    std::string level_;
    UniqueFd data_;
    std::uint32_t index_;  // of the entry looked at last
    studyhash_template hash_template_;
    studydata_template data_template_{};
};

// ---- series and image level ----

// The UIDs that a query names.
struct QueryUids {
    std::optional<std::string> study;
    std::optional<std::string> series;
    std::optional<std::string> image;

    explicit QueryUids(const DcmDataset& query) {
        take(study, query, DCM_StudyInstanceUID);
        take(series, query, DCM_SeriesInstanceUID);
        take(image, query, DCM_SOPInstanceUID);
    }

  private:
    static void take(std::optional<std::string>& uid, const DcmDataset& query,
                     const DcmTagKey& tag) {
        if (const char* const value = DCMTK_getTagString(&query, tag)) uid = value;
    }
};

// Live records of one index file. The first field of both kinds of record is its key.
template <typename Record>
class LiveRecords {
  public:
    explicit LiveRecords(UniqueFd file)
        : file_(std::move(file)), reader_(file_.get(), sizeof(Record)) {}

    // The next record that is not blank and, when a UID is named, has that key. Keys are cut at
    // their width, and so is the UID.
    [[nodiscard]] bool next(Record& record, const std::optional<std::string>& uid) {
        for (;;) {
            record = Record{};  // a fragment at the end has nothing of an earlier record in it
            if (reader_.next(&record) <= 0) return false;
            const std::string_view key = tarvo::field_text(bytes_of(record), key_width);
            if (!key.empty() && (!uid || key == std::string_view(*uid).substr(0, key_width))) {
                return true;
            }
        }
    }

    // Whether the record that came last still stands in the file, which is read in large blocks.
    [[nodiscard]] bool still_holds(const Record& last) const {
        Record now{};
        const auto offset = static_cast<off_t>((reader_.position() - 1) * sizeof now);
        return tarvo::read_at(file_.get(), &now, sizeof now, offset) > 0 &&
               std::memcmp(&now, &last, key_width) == 0;
    }

  private:
    static constexpr std::size_t key_width = 64;

    UniqueFd file_;
    tarvo::RecordReader reader_;
};

class SeriesIteration : public Iteration {
  public:
    SeriesIteration(const LocalStore& store, QueryUids uids, std::string level, UniqueFd index)
        : store_(store),
          uids_(std::move(uids)),
          level_(std::move(level)),
          series_(std::move(index)) {}

    int next(DcmDataset& query, DcmDataset*& response) override {
        tarvo::SeriesRecord record{};
        if (!series_.next(record, uids_.series)) return no_more;
        Answer keys(response, level_);
        logprintf(128, store_.logfile, "series entry matches, responding\n");
        keys.put_record(query, tarvo::series_fields, bytes_of(record));
        return match;
    }

  private:
    const LocalStore& store_;
    QueryUids uids_;
    std::string level_;
    LiveRecords<tarvo::SeriesRecord> series_;
};

// Walks the images of one series or, when the query names none, of every series of the study.
class ImageIteration : public Iteration {
  public:
    // `with_uids`: the three UIDs are answered whether or not they are asked for.
    ImageIteration(const LocalStore& store, QueryUids uids, std::string level, bool with_uids)
        : store_(store), uids_(std::move(uids)), level_(std::move(level)), with_uids_(with_uids) {}

    // The series index, when the series are to be enumerated.
    void enumerate(UniqueFd series_index) { series_.emplace(std::move(series_index)); }

    int next(DcmDataset& query, DcmDataset*& response) override {
        for (;;) {
            if (!images_) {
                if (const int result = open_next_series()) return result;
            }
            tarvo::ImageRecord record{};
            if (images_->next(record, uids_.image)) {
                answer(query, record, response);
                return match;
            }
            images_.reset();
            if (!series_) return no_more;
        }
    }

  private:
    [[nodiscard]] int open_next_series() {
        if (!series_) return open_images(*uids_.series) ? match : failure;
        tarvo::SeriesRecord record{};
        while (series_->next(record, std::nullopt)) {
            if (open_images(std::string(tarvo::field_text(record.series_uid)))) return match;
            // Deleted meanwhile: the others are still to be answered.
            if (series_->still_holds(record)) return failure;
        }
        return no_more;
    }

    [[nodiscard]] bool open_images(const std::string& series) {
        UniqueFd index = open_index(store_, uids_.study->c_str(), series.c_str());
        if (index) images_.emplace(std::move(index));
        return images_.has_value();
    }

    void answer(DcmDataset& query, const tarvo::ImageRecord& record, DcmDataset*& response) const {
        Answer keys(response, level_);
        const std::string sop(tarvo::field_text(record.sop_uid));
        const std::string series(tarvo::field_text(record.series_uid));
        const std::string study(tarvo::field_text(record.study_uid));
        if (with_uids_) {
            keys.put(0x0008, 0x0018, sop);
            keys.put(0x0020, 0x000E, series);
            keys.put(0x0020, 0x000D, study);
        }
        logprintf(128, store_.logfile, "image entry matches, responding %s/%s/%s\n", study.c_str(),
                  series.c_str(), sop.c_str());
        keys.put_record(query, tarvo::image_fields, bytes_of(record));
    }

    const LocalStore& store_;
    QueryUids uids_;
    std::string level_;
    bool with_uids_;
    std::optional<LiveRecords<tarvo::SeriesRecord>> series_;
    std::optional<LiveRecords<tarvo::ImageRecord>> images_;
};

// ---- starting ----

enum class Level { study, series, image, unknown };

Level level_of(const char* text, FILE* log) {
    const std::string_view name = text != nullptr ? text : "";
    if (name == "PATIENT") logprintf(64, log, "Treating PATIENT type query as STUDY\n");
    if (name == "PATIENT" || name == "STUDY") return Level::study;
    if (name == "SERIES") return Level::series;
    if (name == "IMAGE") return Level::image;
    logprintf(8, log, "AIEE - QRL %s is not STUDY, SERIES or IMAGE\n", text);
    return Level::unknown;
}

std::unique_ptr<Iteration> start_study(const LocalStore& store, const DcmDataset& query,
                                       const char* level) {
    auto iteration = std::make_unique<StudyIteration>(store, query, level);
    if (!iteration->open()) return nullptr;
    return iteration;
}

std::unique_ptr<Iteration> start_series(const LocalStore& store, const DcmDataset& query,
                                        const char* level) {
    QueryUids uids(query);
    if (!uids.study) {
        logprintf(8, store.logfile, "SERIES level query without STUDY UID unsupported.\n");
        return nullptr;
    }
    UniqueFd index = open_index(store, uids.study->c_str(), nullptr);
    if (!index) return nullptr;
    return std::make_unique<SeriesIteration>(store, std::move(uids), level, std::move(index));
}

std::unique_ptr<Iteration> start_image(const LocalStore& store, const DcmDataset& query,
                                       const char* level, bool with_uids) {
    QueryUids uids(query);
    if (!uids.study) {
        logprintf(8, store.logfile, "IMAGE level query without STUDY UID unsupported.\n");
        return nullptr;
    }
    auto iteration = std::make_unique<ImageIteration>(store, uids, level, with_uids);
    if (uids.series) return iteration;
    logprintf(128, store.logfile, "IMAGE level query without SERIES UID - enumerating.\n");
    UniqueFd index = open_index(store, uids.study->c_str(), nullptr);
    if (!index) return nullptr;
    iteration->enumerate(std::move(index));
    return iteration;
}

}  // namespace

int LocalStore::FindDataset(void** handle, DcmDataset* query, DcmDataset** response,
                            const char* level) {
    if (handle == nullptr) {
        logprintf(16, logfile, "LocalStore::FindDataset: No handle pointer.\n");
        return no_more;
    }
    if (response == nullptr) return no_more;
    const char* const asked =
        level != nullptr ? level : DCMTK_getTagString(query, DCM_QueryRetrieveLevel);
    const Level kind = level_of(asked, logfile);
    if (kind == Level::unknown) return no_more;
    if (*handle == nullptr) {
        std::unique_ptr<Iteration> started;
        if (kind == Level::study) started = start_study(*this, *query, asked);
        if (kind == Level::series) started = start_series(*this, *query, asked);
        if (kind == Level::image) started = start_image(*this, *query, asked, level != nullptr);
        if (!started) return failure;
        *handle = started.release();
    }
    const int result = static_cast<Iteration*>(*handle)->next(*query, *response);
    if (result != match) EndFind(handle);
    return result;
}

void LocalStore::EndFind(void** handle) {
    delete static_cast<Iteration*>(*handle);
    *handle = nullptr;
}
