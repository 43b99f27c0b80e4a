// Private to store/: the attributes of a study, and where each of them goes. One table serves the
// storing of images, the reading of queries, their comparison and the answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include "store/query_template.h"
#include "store/records.h"

namespace tarvo {

enum class StudyText { as_received, converted, person_name };
enum class StudySummary { none, checksum, characters, date };

struct StudyAttribute {
    std::uint16_t group;
    std::uint16_t element;
    StudyText text;
    std::uint16_t offset;  // of the field in studydata
    std::uint16_t width;
    std::uint16_t template_offset;  // of the field in studydata_template
    std::uint16_t template_width;
    bool matched;  // the record's text is compared with the query's
    StudySummary summary = StudySummary::none;
    std::uint32_t studyhash::*word = nullptr;                // null with StudySummary::none
    std::uint32_t studyhash_template::*wanted = nullptr;     // the word, or a date's lower bound
    std::uint32_t studyhash_template::*wanted_to = nullptr;  // a date's upper bound
};

// In the order in which they are stored and answered.
extern const std::span<const StudyAttribute> study_attributes;

// The value in UTF-8 where `character_set` is given and the attribute is text; null when it cannot
// be converted. Logs both as "<direction>-in" and "<direction>-out". Valid until the next call.
[[nodiscard]] const char* study_text(const char* value, StudyText text, const char* character_set,
                                     const char* direction, FILE* log);

// Enters a modality code into the eight slots of a study: its first two letters take the first
// free slot, unless a slot holds them.
void record_modality(char (&slots)[8][2], const char* code);

}  // namespace tarvo
