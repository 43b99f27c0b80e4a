// From the attributes of an image to the entry and record of its study.
#include <cstdlib>
#include <cstring>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/dataset.h"
#include "store/local_store.h"
#include "store/study_attributes.h"
#include "store/study_bits.h"
#include "support/crc32.h"
#include "support/log.h"
#include "support/text_field.h"

namespace {

std::uint32_t date_number(const char* value) {
    if (std::strlen(value) != 8) return 0;
    return static_cast<std::uint32_t>(std::strtol(value, nullptr, 10));
}

std::uint32_t summary_of(const char* value, tarvo::StudySummary summary) {
    switch (summary) {
        case tarvo::StudySummary::checksum:
            return tarvo::crc32_of(value);
        case tarvo::StudySummary::date:
            return date_number(value);
        case tarvo::StudySummary::characters:
            return charClassBits(value);
        default:
            return 0;
    }
}

}  // namespace

void LocalStore::studyDataMake(const DcmDataset* dataset, studyhash* entry,
                               studydata* record) const {
    const tarvo::AttributeTexts texts(dataset);
    const char* const character_set = texts[DCM_SpecificCharacterSet];
    for (const tarvo::StudyAttribute& attribute : tarvo::study_attributes) {
        const char* value = texts[{attribute.group, attribute.element}];
        if (value == nullptr) continue;
        if (record != nullptr) {
            value = tarvo::study_text(value, attribute.text, character_set, "Translate", logfile);
            if (value == nullptr) continue;
            tarvo::set_field(reinterpret_cast<char*>(record) + attribute.offset, attribute.width,
                             value);
        }
        // Assigned, not added: a new name also clears the deleted mark.
        if (entry != nullptr && attribute.word != nullptr) {
            entry->*attribute.word = summary_of(value, attribute.summary);
        }
    }
    if (texts[DCM_ModalitiesInStudy] != nullptr) {
        logprintf(16, logfile, "Huh? ModalitiesInStudy entry present?\n");
    }
    const char* const modality = texts[DCM_Modality];
    if (modality == nullptr) return;
    if (record != nullptr) tarvo::record_modality(record->modalities, modality);
    if (entry != nullptr) entry->modalityBits |= modalityBit(modality);
}
