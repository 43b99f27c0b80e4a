// Answering one query one match at a time (PS3.4, C.4.1).
#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
    [[nodiscard]] virtual int next(DcmDataset*& response) = 0;
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

    // The fields of an index record.
    void put_record(const std::vector<tarvo::IndexField>& fields, const char* record) {
        for (const tarvo::IndexField& field : fields) {
            put(field.group, field.element, tarvo::field_text(record + field.offset, field.width));
        }
    }

  private:
    DcmDataset*& response_;
};

bool asks_for(DcmDataset& query, std::uint16_t group, std::uint16_t element) {
    return query.tagExists(DcmTagKey(group, element));
}

// Those that the query asks for: only what is asked for is answered.
template <typename Attribute>
std::vector<Attribute> asked_for(DcmDataset& query, std::span<const Attribute> attributes) {
    std::vector<Attribute> asked;
    for (const Attribute& attribute : attributes) {
        if (asks_for(query, attribute.group, attribute.element)) asked.push_back(attribute);
    }
    return asked;
}

// ---- study level ----

// The records of a file, looked at from the last to the first. Neighbours are read together, more
// and more of them as long as they are wanted: a query that must look at every record makes one
// system call for 64 KB of them, one that looks at a few reads these alone.
class RecordsBackwards {
  public:
    explicit RecordsBackwards(UniqueFd file) : file_(std::move(file)) {}

    // A record that the file holds whole, else null. Valid until the next call.
    [[nodiscard]] const studydata* at(std::uint32_t number) {
        if (number < first_ || number >= first_ + records_.size()) read_up_to(number);
        const std::size_t place = number - first_;
        return place < held_ ? &records_[place] : nullptr;
    }

  private:
    static constexpr std::uint32_t most = 65536 / sizeof(studydata);
    static constexpr std::uint32_t near = 8;  // a gap that is cheaper to read than to leave out

    void read_up_to(std::uint32_t last) {
        const bool goes_on = last < first_ && first_ - last <= near;
        const auto wanted = static_cast<std::uint32_t>(goes_on ? records_.size() * 4 : 1);
        records_.resize(std::min({wanted, most, last + 1}));
        first_ = last + 1 - static_cast<std::uint32_t>(records_.size());
        const ssize_t got =
            tarvo::read_at(file_.get(), records_.data(), records_.size() * sizeof(studydata),
                           static_cast<off_t>(first_) * static_cast<off_t>(sizeof(studydata)));
        held_ = got > 0 ? static_cast<std::size_t>(got) / sizeof(studydata) : 0;
    }

    UniqueFd file_;
    std::vector<studydata> records_;  // of these numbers, from first_ on
    std::uint32_t first_ = 0;
    std::size_t held_ = 0;  // of them; the file may be shorter
};

// The text of a field as it is compared: one that fills its field reads on into the next fields,
// up to the end of the record.
std::string_view compared_text(const studydata& record, std::size_t offset) {
    return tarvo::field_text(bytes_of(record) + offset, sizeof record - offset);
}

// What a query wants of one field: never everything.
struct WantedText {
    std::size_t offset;
    std::string_view pattern;
};

// The patterns stay in `wanted`.
std::vector<WantedText> wanted_texts(const studydata_template& wanted) {
    std::vector<WantedText> texts;
    for (const tarvo::StudyAttribute& attribute : tarvo::study_attributes) {
        const std::string_view pattern = tarvo::field_text(
            bytes_of(wanted) + attribute.template_offset, attribute.template_width);
        if (attribute.matched && !pattern.empty() && pattern != "*") {
            texts.push_back({attribute.offset, pattern});
        }
    }
    return texts;
}

bool record_matches(const studydata& record, const std::vector<WantedText>& wanted) {
    if (record.study_uid[0] == '\0') return false;  // deleted meanwhile
    return std::all_of(wanted.begin(), wanted.end(), [&record](const WantedText& text) {
        return tarvo::wildcardMismatch(compared_text(record, text.offset), text.pattern) == 0;
    });
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
    StudyIteration(const LocalStore& store, DcmDataset& query, std::string level, UniqueFd data)
        : store_(store),
          level_(std::move(level)),
          records_(std::move(data)),
          index_(store.studyHashCount),
          hash_template_(tarvo::open_hash_template()),
          asked_(asked_for(query, tarvo::study_attributes)),
          asks_for_modalities_(asks_for(query, 0x0008, 0x0061)) {
        store_.studyDataMakeTemplate(&query, &hash_template_, &data_template_);
        wanted_ = wanted_texts(data_template_);
    }

    int next(DcmDataset*& response) override {
        const bool traced = logprintf_enabled(128);
        index_ = std::min(index_, store_.studyHashCount);  // a delete may have reloaded it shorter
        while (index_ > 0) {
            const int number = static_cast<int>(--index_);
            if (traced) logprintf(128, store_.logfile, "checking entry %d\n", number);
            if (store_.studyHashCompare(&store_.studyHash[index_], &hash_template_) != 0) continue;
            if (traced) logprintf(128, store_.logfile, "entry %d hash matches\n", number);
            const studydata* const record = records_.at(index_);
            if (record == nullptr || !record_matches(*record, wanted_)) continue;
            answer(*record, response);
            return match;
        }
        return no_more;
    }

  private:
    void answer(const studydata& record, DcmDataset*& response) const {
        Answer keys(response, level_);
        logprintf(128, store_.logfile, "entry %d data matches, responding\n",
                  static_cast<int>(index_));
        bool beyond_ascii = false;
        for (const tarvo::StudyAttribute& attribute : asked_) {
            const std::string_view value =
                tarvo::field_text(bytes_of(record) + attribute.offset, attribute.width);
            keys.put(attribute.group, attribute.element, value);
            beyond_ascii = beyond_ascii || has_high_bit(value);
        }
        if (asks_for_modalities_) keys.put(0x0008, 0x0061, joined_modalities(record));
        if (beyond_ascii) keys.put(0x0008, 0x0005, "ISO_IR 192");  // records hold UTF-8
    }

    const LocalStore& store_;
    std::string level_;
    RecordsBackwards records_;
    std::uint32_t index_;  // of the entry looked at last
    studyhash_template hash_template_;
    studydata_template data_template_{};
    std::vector<WantedText> wanted_;  // in data_template_
    std::vector<tarvo::StudyAttribute> asked_;
    bool asks_for_modalities_;
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
    SeriesIteration(const LocalStore& store, DcmDataset& query, std::string level, UniqueFd index)
        : store_(store),
          uids_(query),
          level_(std::move(level)),
          asked_(asked_for(query, tarvo::series_fields)),
          series_(std::move(index)) {}

    int next(DcmDataset*& response) override {
        tarvo::SeriesRecord record{};
        if (!series_.next(record, uids_.series)) return no_more;
        Answer keys(response, level_);
        logprintf(128, store_.logfile, "series entry matches, responding\n");
        keys.put_record(asked_, bytes_of(record));
        return match;
    }

  private:
    const LocalStore& store_;
    QueryUids uids_;
    std::string level_;
    std::vector<tarvo::IndexField> asked_;
    LiveRecords<tarvo::SeriesRecord> series_;
};

// Walks the images of one series or, when the query names none, of every series of the study.
class ImageIteration : public Iteration {
  public:
    // `with_uids`: the three UIDs are answered whether or not they are asked for.
    ImageIteration(const LocalStore& store, DcmDataset& query, std::string level, bool with_uids)
        : store_(store),
          uids_(query),
          level_(std::move(level)),
          with_uids_(with_uids),
          asked_(asked_for(query, tarvo::image_fields)) {}

    // The series index, when the series are to be enumerated.
    void enumerate(UniqueFd series_index) { series_.emplace(std::move(series_index)); }

    int next(DcmDataset*& response) override {
        for (;;) {
            if (!images_) {
                if (const int result = open_next_series()) return result;
            }
            tarvo::ImageRecord record{};
            if (images_->next(record, uids_.image)) {
                answer(record, response);
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

    void answer(const tarvo::ImageRecord& record, DcmDataset*& response) const {
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
        keys.put_record(asked_, bytes_of(record));
    }

    const LocalStore& store_;
    QueryUids uids_;
    std::string level_;
    bool with_uids_;
    std::vector<tarvo::IndexField> asked_;
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

std::unique_ptr<Iteration> start_study(const LocalStore& store, DcmDataset& query,
                                       const char* level) {
    UniqueFd data = open_to_read(tarvo::study_data_path(store));
    if (!data) return nullptr;
    return std::make_unique<StudyIteration>(store, query, level, std::move(data));
}

std::unique_ptr<Iteration> start_series(const LocalStore& store, DcmDataset& query,
                                        const char* level) {
    const QueryUids uids(query);
    if (!uids.study) {
        logprintf(8, store.logfile, "SERIES level query without STUDY UID unsupported.\n");
        return nullptr;
    }
    UniqueFd index = open_index(store, uids.study->c_str(), nullptr);
    if (!index) return nullptr;
    return std::make_unique<SeriesIteration>(store, query, level, std::move(index));
}

std::unique_ptr<Iteration> start_image(const LocalStore& store, DcmDataset& query,
                                       const char* level, bool with_uids) {
    const QueryUids uids(query);
    if (!uids.study) {
        logprintf(8, store.logfile, "IMAGE level query without STUDY UID unsupported.\n");
        return nullptr;
    }
    auto iteration = std::make_unique<ImageIteration>(store, query, level, with_uids);
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
    const int result = static_cast<Iteration*>(*handle)->next(*response);
    if (result != match) EndFind(handle);
    return result;
}

void LocalStore::EndFind(void** handle) {
    delete static_cast<Iteration*>(*handle);
    *handle = nullptr;
}
