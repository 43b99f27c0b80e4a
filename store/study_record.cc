// From the attributes of an image to the entry and record of its study.
#include <cstdlib>
#include <cstring>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/character_sets.h"
#include "dicom/dataset.h"
#include "store/local_store.h"
#include "store/study_bits.h"
#include "support/crc32.h"
#include "support/log.h"
#include "support/text_field.h"

namespace {

enum class Text { as_received, converted, person_name };
enum class Summary { none, checksum, date, characters };

// What one attribute contributes: its text to a field of the record, a number to the entry.
struct StudyAttribute {
    std::uint16_t group;
    std::uint16_t element;
    Text text;
    std::uint16_t offset;
    std::uint16_t width;
    Summary summary = Summary::none;
    std::uint32_t studyhash::*word = nullptr;
};

#define TARVO_FIELD(member) offsetof(studydata, member), sizeof(studydata::member)

constexpr StudyAttribute study_attributes[] = {
    {0x0020, 0x000D, Text::as_received, TARVO_FIELD(study_uid), Summary::checksum,
     &studyhash::uidCrc},
    {0x0010, 0x0010, Text::person_name, TARVO_FIELD(patient_name), Summary::characters,
     &studyhash::nameBits},
    {0x0010, 0x0020, Text::converted, TARVO_FIELD(patient_id)},
    {0x0010, 0x0030, Text::as_received, TARVO_FIELD(birth_date), Summary::date,
     &studyhash::birthDate},
    {0x0010, 0x0040, Text::as_received, TARVO_FIELD(patient_sex)},
    {0x0008, 0x0020, Text::as_received, TARVO_FIELD(study_date), Summary::date,
     &studyhash::studyDate},
    {0x0008, 0x0030, Text::as_received, TARVO_FIELD(study_time)},
    {0x0008, 0x1030, Text::converted, TARVO_FIELD(description), Summary::characters,
     &studyhash::descBits},
    {0x0020, 0x0010, Text::converted, TARVO_FIELD(study_id)},
    {0x0008, 0x0050, Text::converted, TARVO_FIELD(accession_number)},
    {0x0008, 0x0090, Text::person_name, TARVO_FIELD(referring_name), Summary::characters,
     &studyhash::refPhysBits},
    {0x0008, 0x0092, Text::converted, TARVO_FIELD(referring_address)},
    {0x0012, 0x0010, Text::converted, TARVO_FIELD(trial_sponsor)},
    {0x0012, 0x0021, Text::converted, TARVO_FIELD(trial_protocol)},
    {0x0012, 0x0031, Text::converted, TARVO_FIELD(trial_site)},
};

#undef TARVO_FIELD

std::uint32_t date_number(const char* value) {
    if (std::strlen(value) != 8) return 0;
    return static_cast<std::uint32_t>(std::strtol(value, nullptr, 10));
}

std::uint32_t summary_of(const char* value, Summary summary) {
    switch (summary) {
        case Summary::checksum:
            return tarvo::crc32_of(value);
        case Summary::date:
            return date_number(value);
        case Summary::characters:
            return charClassBits(value);
        default:
            return 0;
    }
}

// The value as it is stored, in UTF-8 where the dataset names its character set; null when it
// cannot be converted.
const char* stored_text(const char* value, Text text, const char* character_set, FILE* log) {
    logprintf(512, log, "Translate-in : %s\n", value);
    if (text == Text::as_received || character_set == nullptr) return value;
    const int person_name = text == Text::person_name ? 1 : 0;
    const char* const result = DCMTK_convertSCS(value, character_set, person_name, "UTF-8");
    logprintf(512, log, "Translate-out: %s\n", result);
    return result;
}

// Takes the first free slot for the first two letters of the code, unless a slot holds them.
void record_modality(studydata& record, const char* code) {
    for (auto& slot : record.modalities) {
        if (std::strncmp(slot, code, sizeof slot) == 0) return;
        if (slot[0] == '\0') return tarvo::set_field(slot, code);
    }
}

}  // namespace

void LocalStore::studyDataMake(const DcmDataset* dataset, studyhash* entry,
                               studydata* record) const {
    const char* const character_set = DCMTK_getTagString(dataset, DCM_SpecificCharacterSet);
    for (const StudyAttribute& attribute : study_attributes) {
        const char* value = DCMTK_getTagString(dataset, {attribute.group, attribute.element});
        if (value == nullptr) continue;
        if (record != nullptr) {
            value = stored_text(value, attribute.text, character_set, logfile);
            if (value == nullptr) continue;
            tarvo::set_field(reinterpret_cast<char*>(record) + attribute.offset, attribute.width,
                             value);
        }
        // Assigned, not added: a new name also clears the deleted mark.
        if (entry != nullptr && attribute.word != nullptr) {
            entry->*attribute.word = summary_of(value, attribute.summary);
        }
    }
    if (DCMTK_getTagString(dataset, DCM_ModalitiesInStudy) != nullptr) {
        logprintf(16, logfile, "Huh? ModalitiesInStudy entry present?\n");
    }
    const char* const modality = DCMTK_getTagString(dataset, DCM_Modality);
    if (modality == nullptr) return;
    if (record != nullptr) record_modality(*record, modality);
    if (entry != nullptr) entry->modalityBits |= modalityBit(modality);
}
