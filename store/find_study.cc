// Queries at STUDY level: the words of the study hash in memory choose the candidates, the texts of
// their records in STUDYINDEX.dat decide.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dcmtk/config/osconfig.h"

#include "store/find_iteration.h"
#include "store/local_store.h"
#include "store/query_template.h"
#include "store/records.h"
#include "store/store_internals.h"
#include "store/study_attributes.h"
#include "support/file_helpers.h"
#include "support/log.h"
#include "support/text_field.h"
#include "support/unique_fd.h"

namespace tarvo {
namespace {

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
            read_at(file_.get(), records_.data(), records_.size() * sizeof(studydata),
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
    return field_text(bytes_of(record) + offset, sizeof record - offset);
}

// What a query wants of one field: never everything.
struct WantedText {
    std::size_t offset;
    std::string_view pattern;
};

// The patterns stay in `wanted`.
std::vector<WantedText> wanted_texts(const studydata_template& wanted) {
    std::vector<WantedText> texts;
    for (const StudyAttribute& attribute : study_attributes) {
        const std::string_view pattern =
            field_text(bytes_of(wanted) + attribute.template_offset, attribute.template_width);
        if (attribute.matched && !pattern.empty() && pattern != "*") {
            texts.push_back({attribute.offset, pattern});
        }
    }
    return texts;
}

bool record_matches(const studydata& record, const std::vector<WantedText>& wanted) {
    if (record.study_uid[0] == '\0') return false;  // deleted meanwhile
    return std::all_of(wanted.begin(), wanted.end(), [&record](const WantedText& text) {
        return wildcardMismatch(compared_text(record, text.offset), text.pattern) == 0;
    });
}

std::string joined_modalities(const studydata& record) {
    std::string joined;
    for (const auto& slot : record.modalities) {
        if (slot[0] == '\0') break;
        if (!joined.empty()) joined += '\\';
        joined += field_text(slot);
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
          hash_template_(open_hash_template()),
          asked_(asked_for(query, study_attributes)),
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
        for (const StudyAttribute& attribute : asked_) {
            const std::string_view value =
                field_text(bytes_of(record) + attribute.offset, attribute.width);
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
    std::vector<StudyAttribute> asked_;
    bool asks_for_modalities_;
};

}  // namespace

std::unique_ptr<Iteration> start_study(const LocalStore& store, DcmDataset& query,
                                       const char* level) {
    UniqueFd data = open_to_read(study_data_path(store));
    if (!data) return nullptr;
    return std::make_unique<StudyIteration>(store, query, level, std::move(data));
}

}  // namespace tarvo
