#include "store/study_attributes.h"

#include <cstring>

#include "dicom/character_sets.h"
#include "support/log.h"
#include "support/text_field.h"

namespace tarvo {
namespace {

#define TARVO_FIELD(member)                                                                       \
    offsetof(studydata, member), sizeof(studydata::member), offsetof(studydata_template, member), \
        sizeof(studydata_template::member)

using Text = StudyText;
using Summary = StudySummary;

constexpr StudyAttribute attributes[] = {
    {0x0020, 0x000D, Text::as_received, TARVO_FIELD(study_uid), true, Summary::checksum,
     &studyhash::uidCrc, &studyhash_template::uidCrc, nullptr},
    {0x0010, 0x0010, Text::person_name, TARVO_FIELD(patient_name), true, Summary::characters,
     &studyhash::nameBits, &studyhash_template::nameBits, nullptr},
    {0x0010, 0x0020, Text::converted, TARVO_FIELD(patient_id), true},
    {0x0010, 0x0030, Text::as_received, TARVO_FIELD(birth_date), false, Summary::date,
     &studyhash::birthDate, &studyhash_template::birthDateFrom, &studyhash_template::birthDateTo},
    {0x0010, 0x0040, Text::as_received, TARVO_FIELD(patient_sex), true},
    {0x0008, 0x0020, Text::as_received, TARVO_FIELD(study_date), false, Summary::date,
     &studyhash::studyDate, &studyhash_template::studyDateFrom, &studyhash_template::studyDateTo},
    {0x0008, 0x0030, Text::as_received, TARVO_FIELD(study_time), false},
    {0x0008, 0x1030, Text::converted, TARVO_FIELD(description), true, Summary::characters,
     &studyhash::descBits, &studyhash_template::descBits, nullptr},
    {0x0020, 0x0010, Text::converted, TARVO_FIELD(study_id), true},
    {0x0008, 0x0050, Text::converted, TARVO_FIELD(accession_number), true},
    {0x0008, 0x0090, Text::person_name, TARVO_FIELD(referring_name), true, Summary::characters,
     &studyhash::refPhysBits, &studyhash_template::refPhysBits, nullptr},
    {0x0008, 0x0092, Text::converted, TARVO_FIELD(referring_address), true},
    {0x0012, 0x0010, Text::converted, TARVO_FIELD(trial_sponsor), true},
    {0x0012, 0x0021, Text::converted, TARVO_FIELD(trial_protocol), true},
    {0x0012, 0x0031, Text::converted, TARVO_FIELD(trial_site), true},
};

#undef TARVO_FIELD

}  // namespace

constinit const std::span<const StudyAttribute> study_attributes = attributes;

const char* study_text(const char* value, StudyText text, const char* character_set,
                       const char* direction, FILE* log) {
    logprintf(512, log, "%s-in : %s\n", direction, value);
    if (text == StudyText::as_received || character_set == nullptr) return value;
    const int person_name = text == StudyText::person_name ? 1 : 0;
    const char* const result = DCMTK_convertSCS(value, character_set, person_name, "UTF-8");
    logprintf(512, log, "%s-out: %s\n", direction, result);
    return result;
}

void record_modality(char (&slots)[8][2], const char* code) {
    for (auto& slot : slots) {
        if (std::strncmp(slot, code, sizeof slot) == 0) return;
        if (slot[0] == '\0') return set_field(slot, code);
    }
}

}  // namespace tarvo
