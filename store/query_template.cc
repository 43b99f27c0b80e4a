#include "store/query_template.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <optional>

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

unsigned date_bound(const char* text) {
    return static_cast<unsigned>(std::strtol(text, nullptr, 10));
}

bool same_text(std::string_view left, std::string_view right) {
    return left.size() == right.size() &&
           ::strncasecmp(left.data(), right.data(), left.size()) == 0;
}

bool occurs_in(std::string_view text, std::string_view value) {
    for (std::size_t start = 0; start + text.size() <= value.size(); ++start) {
        if (same_text(value.substr(start, text.size()), text)) return true;
    }
    return false;
}

}  // namespace

namespace tarvo {

studyhash_template open_hash_template() {
    studyhash_template open{};
    open.birthDateTo = latest_date;
    open.studyDateTo = latest_date;
    return open;
}

int wildcardMismatch(std::string_view value, std::string_view pattern) {
    if (pattern.empty() || pattern == "*") return 0;
    const bool any_start = pattern.front() == '*';
    const bool any_end = pattern.back() == '*';
    std::string_view text = pattern;
    if (any_start) text.remove_prefix(1);
    if (any_end) text.remove_suffix(1);
    if (value.size() < text.size()) return 1;
    if (any_start && any_end) return occurs_in(text, value) ? 0 : 1;
    if (any_start) return same_text(value.substr(value.size() - text.size()), text) ? 0 : 1;
    if (any_end) return same_text(value.substr(0, text.size()), text) ? 0 : 1;
    return same_text(value, text) ? 0 : 1;
}

}  // namespace tarvo

void LocalStore::dateRangeHash(const char* range, unsigned* from, unsigned* to) const {
    *from = 0;
    *to = tarvo::latest_date;
    logprintf(128, logfile, "converting daterange %s.\n", range);
    if (range[0] == '\0' || std::strcmp(range, "*") == 0) return;
    const char* const dash = std::strchr(range, '-');
    if (dash == nullptr) {
        *from = *to = date_bound(range);
        return;
    }
    if (dash[1] != '\0') *to = date_bound(dash + 1);
    if (dash != range) *from = date_bound(range);
}

namespace {

// Puts what one attribute asks for into the words of the template.
void ask_in_hash(const LocalStore& store, const tarvo::StudyAttribute& attribute, const char* value,
                 studyhash_template& words) {
    switch (attribute.summary) {
        case tarvo::StudySummary::checksum:
            words.*attribute.wanted = tarvo::crc32_of(value);
            break;
        case tarvo::StudySummary::characters:
            words.*attribute.wanted = charClassBits(value);
            break;
        case tarvo::StudySummary::date:
            store.dateRangeHash(value, &(words.*attribute.wanted), &(words.*attribute.wanted_to));
            break;
        case tarvo::StudySummary::none:
            break;
    }
}

}  // namespace

void LocalStore::studyDataMakeTemplate(const DcmDataset* query, studyhash_template* hashTemplate,
                                       studydata_template* dataTemplate) const {
    const char* const character_set = DCMTK_getTagString(query, DCM_SpecificCharacterSet);
    for (const tarvo::StudyAttribute& attribute : tarvo::study_attributes) {
        const char* value = DCMTK_getTagString(query, {attribute.group, attribute.element});
        if (value == nullptr) continue;
        if (dataTemplate != nullptr) {
            value = tarvo::study_text(value, attribute.text, character_set, "Template", logfile);
            if (value == nullptr) continue;
            tarvo::set_field(reinterpret_cast<char*>(dataTemplate) + attribute.template_offset,
                             attribute.template_width, value);
        }
        if (hashTemplate != nullptr) ask_in_hash(*this, attribute, value, *hashTemplate);
    }
    if (DCMTK_getTagString(query, DCM_ModalitiesInStudy) != nullptr) {
        logprintf(16, logfile, "Huh? ModalitiesInStudy entry present?\n");
    }
    const char* const modality = DCMTK_getTagString(query, DCM_Modality);
    if (modality == nullptr) return;
    if (dataTemplate != nullptr) tarvo::record_modality(dataTemplate->modalities, modality);
    if (hashTemplate != nullptr) hashTemplate->modalityMask |= modalityBit(modality);
}

namespace {

// The checks of a hash entry in their order.
enum class Check { deleted, uid, name, description, referring, modality, birth_date, study_date };

bool lacks(std::uint32_t has, std::uint32_t needs) { return (has & needs) != needs; }

// A date that is not known passes every range.
bool outside(std::uint32_t date, std::uint32_t from, std::uint32_t to) {
    return date != 0 && (date < from || date > to);
}

// The first check that rejects the entry, nothing when it passes them all.
std::optional<Check> first_rejection(const studyhash& entry, const studyhash_template& wanted) {
    if ((entry.nameBits & tarvo::study_deleted_mark) != 0) return Check::deleted;
    if (wanted.uidCrc != 0 && wanted.uidCrc != entry.uidCrc) return Check::uid;
    if (lacks(entry.nameBits, wanted.nameBits)) return Check::name;
    if (lacks(entry.descBits, wanted.descBits)) return Check::description;
    if (lacks(entry.refPhysBits, wanted.refPhysBits)) return Check::referring;
    if (wanted.modalityMask != 0 && (entry.modalityBits & wanted.modalityMask) == 0) {
        return Check::modality;
    }
    if (outside(entry.birthDate, wanted.birthDateFrom, wanted.birthDateTo)) {
        return Check::birth_date;
    }
    if (outside(entry.studyDate, wanted.studyDateFrom, wanted.studyDateTo)) {
        return Check::study_date;
    }
    return std::nullopt;
}

// One line for each check that was made.
void log_checks(FILE* log, Check last, const studyhash& entry, const studyhash_template& wanted) {
    logprintf(128, log, "Check Del\n");
    if (last >= Check::uid) logprintf(512, log, "Check UID\n");
    if (last >= Check::name) logprintf(512, log, "Check PN\n");
    if (last >= Check::description) logprintf(512, log, "Check Desc\n");
    if (last >= Check::referring) logprintf(512, log, "Check Rphy\n");
    if (last >= Check::modality) logprintf(512, log, "Check Mod\n");
    if (last >= Check::birth_date) {
        logprintf(512, log, "Check BDay day: %d from: %d to: %d\n",
                  static_cast<int>(entry.birthDate), static_cast<int>(wanted.birthDateFrom),
                  static_cast<int>(wanted.birthDateTo));
    }
    if (last >= Check::study_date) logprintf(512, log, "Check StudyDate\n");
}

}  // namespace

// Runs once for every study of the archive: nothing is formatted that nobody wants to read.
int LocalStore::studyHashCompare(const studyhash* entry, const studyhash_template* wanted) const {
    const std::optional<Check> rejected = first_rejection(*entry, *wanted);
    if (logprintf_enabled(128)) {
        log_checks(logfile, rejected.value_or(Check::study_date), *entry, *wanted);
    }
    return rejected ? 1 : 0;
}
