// What a study-level query asks for, in the two forms in which it is compared with a study: as
// words for the hash entries in memory, and as texts for the study data records.
#pragma once

#include <cstdint>
#include <string_view>

// Compared with a studyhash entry. A zero mask or checksum asks for nothing.
struct studyhash_template {
    std::uint32_t nameBits;       // character classes that the Patient's Name must have
    std::uint32_t descBits;       // the Study Description
    std::uint32_t refPhysBits;    // the Referring Physician's Name
    std::uint32_t birthDateFrom;  // YYYYMMDD, inclusive
    std::uint32_t birthDateTo;
    std::uint32_t studyDateFrom;
    std::uint32_t studyDateTo;
    std::uint32_t modalityMask;  // the study must have one of them
    std::uint32_t uidCrc;
};

// Compared with a studydata record; wider than its fields, so that patterns and ranges fit. An
// empty field asks for nothing; a full one has no terminating NUL.
struct studydata_template {
    char study_uid[128];
    char patient_name[128];
    char patient_id[128];
    char description[128];
    char referring_name[128];
    char referring_address[128];
    char trial_sponsor[64];
    char trial_protocol[64];
    char trial_site[64];
    char birth_date[32];
    char study_date[32];
    char study_time[32];
    char accession_number[16];
    char study_id[16];
    char modalities[8][2];
    char patient_sex[2];
};

namespace tarvo {

inline constexpr std::uint32_t latest_date = 99991231;

// A template that every live study passes.
[[nodiscard]] studyhash_template open_hash_template();

// Whether a stored value fits a pattern, ignoring case (PS3.4, C.2.2.2.4, in part): '*' is a
// wildcard at the ends of the pattern only, anything else stands for itself. 0: it fits.
[[nodiscard]] int wildcardMismatch(std::string_view value, std::string_view pattern);

}  // namespace tarvo
