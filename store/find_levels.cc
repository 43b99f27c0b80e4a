// Queries at SERIES and IMAGE level, answered with the records of the level index files.
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/dataset.h"
#include "store/find_iteration.h"
#include "store/level_index.h"
#include "store/local_store.h"
#include "store/record_file.h"
#include "store/records.h"
#include "store/store_internals.h"
#include "support/file_helpers.h"
#include "support/log.h"
#include "support/text_field.h"
#include "support/unique_fd.h"

namespace tarvo {
namespace {

// The index file of a study or series. A UID that cannot name a file names none that exists.
UniqueFd open_index(const LocalStore& store, const char* study, const char* series) {
    if (!can_name_file(study) || !can_name_file(series)) return UniqueFd();
    return open_to_read(store.GetUidIndexPath(study, series) + ".dat");
}

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
            const std::string_view key = field_text(bytes_of(record), key_width);
            if (!key.empty() && (!uid || key == std::string_view(*uid).substr(0, key_width))) {
                return true;
            }
        }
    }

    // Whether the record that came last still stands in the file, which is read in large blocks.
    [[nodiscard]] bool still_holds(const Record& last) const {
        Record now{};
        const auto offset = static_cast<off_t>((reader_.position() - 1) * sizeof now);
        return read_at(file_.get(), &now, sizeof now, offset) > 0 &&
               std::memcmp(&now, &last, key_width) == 0;
    }

  private:
    static constexpr std::size_t key_width = 64;

    UniqueFd file_;
    RecordReader reader_;
};

// Answers with the fields of a record.
void put_fields(Answer& keys, const std::vector<IndexField>& fields, const char* record) {
    for (const IndexField& field : fields) {
        keys.put(field.group, field.element, field_text(record + field.offset, field.width));
    }
}

class SeriesIteration : public Iteration {
  public:
    SeriesIteration(const LocalStore& store, DcmDataset& query, std::string level, UniqueFd index)
        : store_(store),
          uids_(query),
          level_(std::move(level)),
          asked_(asked_for(query, series_fields)),
          series_(std::move(index)) {}

    int next(DcmDataset*& response) override {
        SeriesRecord record{};
        if (!series_.next(record, uids_.series)) return no_more;
        Answer keys(response, level_);
        logprintf(128, store_.logfile, "series entry matches, responding\n");
        put_fields(keys, asked_, bytes_of(record));
        return match;
    }

  private:
    const LocalStore& store_;
    QueryUids uids_;
    std::string level_;
    std::vector<IndexField> asked_;
    LiveRecords<SeriesRecord> series_;
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
          asked_(asked_for(query, image_fields)) {}

    // The series index, when the series are to be enumerated.
    void enumerate(UniqueFd series_index) { series_.emplace(std::move(series_index)); }

    int next(DcmDataset*& response) override {
        for (;;) {
            if (!images_) {
                if (const int result = open_next_series()) return result;
            }
            ImageRecord record{};
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
        SeriesRecord record{};
        while (series_->next(record, std::nullopt)) {
            if (open_images(std::string(field_text(record.series_uid)))) return match;
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

    void answer(const ImageRecord& record, DcmDataset*& response) const {
        Answer keys(response, level_);
        const std::string sop(field_text(record.sop_uid));
        const std::string series(field_text(record.series_uid));
        const std::string study(field_text(record.study_uid));
        if (with_uids_) {
            keys.put(0x0008, 0x0018, sop);
            keys.put(0x0020, 0x000E, series);
            keys.put(0x0020, 0x000D, study);
        }
        logprintf(128, store_.logfile, "image entry matches, responding %s/%s/%s\n", study.c_str(),
                  series.c_str(), sop.c_str());
        put_fields(keys, asked_, bytes_of(record));
    }

    const LocalStore& store_;
    QueryUids uids_;
    std::string level_;
    bool with_uids_;
    std::vector<IndexField> asked_;
    std::optional<LiveRecords<SeriesRecord>> series_;
    std::optional<LiveRecords<ImageRecord>> images_;
};

}  // namespace

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

}  // namespace tarvo
