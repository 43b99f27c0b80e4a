// Private to store/: what the levels of a query share. The iteration that answers it, how it starts
// at each level, and the answer in the making.
#pragma once

#include <fcntl.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdatset.h"

#include "dicom/dataset.h"
#include "store/local_store.h"
#include "support/unique_fd.h"

namespace tarvo {

// One query that is being answered; the find handle points at it.
class Iteration {
  public:
    // What LocalStore::FindDataset returns.
    static constexpr int match = 0;
    static constexpr int no_more = 1;
    static constexpr int failure = -1;

    Iteration() = default;
    Iteration(const Iteration&) = delete;
    Iteration& operator=(const Iteration&) = delete;
    Iteration(Iteration&&) = delete;
    Iteration& operator=(Iteration&&) = delete;
    virtual ~Iteration() = default;

    // Puts the next match into `response`, which is made when it is null.
    [[nodiscard]] virtual int next(DcmDataset*& response) = 0;
};

// Start answering `query`, which is read here and not needed again, with answers that give their
// level as `level`. The store outlives the iteration. Null when an index cannot be opened or when a
// query below study level does not name its study (logged at level 8).
[[nodiscard]] std::unique_ptr<Iteration> start_study(const LocalStore& store, DcmDataset& query,
                                                     const char* level);
[[nodiscard]] std::unique_ptr<Iteration> start_series(const LocalStore& store, DcmDataset& query,
                                                      const char* level);
// `with_uids`: the three UIDs are answered whether or not they are asked for.
[[nodiscard]] std::unique_ptr<Iteration> start_image(const LocalStore& store, DcmDataset& query,
                                                     const char* level, bool with_uids);

inline UniqueFd open_to_read(const OFString& path) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
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

  private:
    DcmDataset*& response_;
};

inline bool asks_for(DcmDataset& query, std::uint16_t group, std::uint16_t element) {
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

}  // namespace tarvo
