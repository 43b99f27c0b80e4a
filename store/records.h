// The records of the store's index files: arrays of one fixed size, no header, no padding. Text
// is cut at its field's width and zero-filled: a full field has NO terminating NUL (read it with
// field_text). A record whose first byte is zero is a blank slot.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

// Study hash entry, STUDYINDEX.hash: what a query needs to reject most studies without opening
// a file. Entry i and record i of STUDYINDEX.dat describe the same study.
//   offset width field         content
//        0     4 nameBits      bit 0: the study was deleted, the entry waits for compaction;
//                              bits 1 to 30: character classes of Patient's Name
//        4     4 descBits      character classes of Study Description
//        8     4 refPhysBits   character classes of Referring Physician's Name
//       12     4 birthDate     Patient's Birth Date as the number YYYYMMDD; 0 = unknown
//       16     4 studyDate     Study Date likewise
//       20     4 modalityBits  one bit for each modality code of any image of the study
//       24     4 uidCrc        CRC-32 of Study Instance UID; 0 for an empty one
// Character classes: bit k (1 to 26) letter k in either case, bit 29 one of !(),-./:;[]{},
// bit 30 a digit.
struct studyhash {
    std::uint32_t nameBits;
    std::uint32_t descBits;
    std::uint32_t refPhysBits;
    std::uint32_t birthDate;
    std::uint32_t studyDate;
    std::uint32_t modalityBits;
    std::uint32_t uidCrc;
};
static_assert(sizeof(studyhash) == 28 && offsetof(studyhash, uidCrc) == 24);
static_assert(offsetof(studyhash, birthDate) == 12 && offsetof(studyhash, modalityBits) == 20);
static_assert(std::has_unique_object_representations_v<studyhash>);
static_assert(std::endian::native == std::endian::little, "the files hold little-endian numbers");

// Study data record, STUDYINDEX.dat. Texts marked * are UTF-8, the others as received.
//   offset width field                    content
//        0    64 study_uid                Study Instance UID (0020,000D), the key
//       64    64 patient_name             Patient's Name (0010,0010) *
//      128    64 patient_id               Patient ID (0010,0020) *
//      192    64 description              Study Description (0008,1030) *
//      256    64 referring_name           Referring Physician's Name (0008,0090) *
//      320    64 referring_address        Referring Physician's Address (0008,0092) *
//      384  8x2  modalities               Modality (0008,0060) of the images, two letters each
//      400     8 birth_date               Patient's Birth Date (0010,0030)
//      408     8 study_date               Study Date (0008,0020)
//      416     6 study_time               Study Time (0008,0030), without its fraction
//      422     2 patient_sex              Patient's Sex (0010,0040)
//      424    24 trial_site               Clinical Trial Site Name (0012,0031) *
//      448    16 trial_sponsor            Clinical Trial Sponsor Name (0012,0010) *
//      464    16 trial_protocol           Clinical Trial Protocol Name (0012,0021) *
//      480    16 accession_number         Accession Number (0008,0050) *
//      496    16 study_id                 Study ID (0020,0010) *
struct studydata {
    char study_uid[64];
    char patient_name[64];
    char patient_id[64];
    char description[64];
    char referring_name[64];
    char referring_address[64];
    char modalities[8][2];
    char birth_date[8];
    char study_date[8];
    char study_time[6];
    char patient_sex[2];
    char trial_site[24];
    char trial_sponsor[16];
    char trial_protocol[16];
    char accession_number[16];
    char study_id[16];
};
static_assert(sizeof(studydata) == 512 && offsetof(studydata, modalities) == 384);
static_assert(offsetof(studydata, birth_date) == 400 && offsetof(studydata, patient_sex) == 422);
static_assert(offsetof(studydata, trial_site) == 424 && offsetof(studydata, study_id) == 496);
static_assert(std::is_trivially_copyable_v<studydata>);

namespace tarvo {

// In studyhash::nameBits; no character class ever sets it.
inline constexpr std::uint32_t study_deleted_mark = 1;

// Series record, SERIESINDEX.dat of a study. Texts stand as received, converted to nothing.
//   offset width field             content
//        0    64 series_uid        Series Instance UID (0020,000E), the key
//       64    64 study_uid         Study Instance UID (0020,000D)
//      128    64 description       Series Description (0008,103E)
//      192    64 protocol_name     Protocol Name (0018,1030)
//      256     8 series_date       Series Date (0008,0021)
//      264     6 series_time       Series Time (0008,0031), without its fraction
//      270    12 series_number     Series Number (0020,0011)
//      282    16 body_part         Body Part Examined (0018,0015)
//      298     4 patient_position  Patient Position (0018,5100)
//      302     2 modality          Modality (0008,0060), its first two letters
//      304    16 reserved          zero
struct SeriesRecord {
    char series_uid[64];
    char study_uid[64];
    char description[64];
    char protocol_name[64];
    char series_date[8];
    char series_time[6];
    char series_number[12];
    char body_part[16];
    char patient_position[4];
    char modality[2];
    char reserved[16];
};
static_assert(sizeof(SeriesRecord) == 320 && offsetof(SeriesRecord, series_number) == 270);
static_assert(offsetof(SeriesRecord, modality) == 302);
static_assert(std::is_trivially_copyable_v<SeriesRecord>);

// Image record, IMAGEINDEX.dat of a series. Texts stand as received.
//   offset width field                  content
//        0    64 sop_uid                SOP Instance UID (0008,0018), the key
//       64    64 series_uid             Series Instance UID (0020,000E)
//      128    64 study_uid              Study Instance UID (0020,000D)
//      192    64 image_type             Image Type (0008,0008)
//      256   256 comments               Image Comments (0020,4000)
//      512    32 patient_orientation    Patient Orientation (0020,0020)
//      544    16 slice_location         Slice Location (0020,1041)
//      560    52 image_position         Image Position (Patient) (0020,0032)
//      612   104 image_orientation      Image Orientation (Patient) (0020,0037)
//      716    12 acquisition_number     Acquisition Number (0020,0012)
//      728    12 instance_number        Instance Number (0020,0013)
//      740    12 acquisition_images     Images in Acquisition (0020,1002)
//      752     8 acquisition_date       Acquisition Date (0008,0022)
//      760     6 acquisition_time       Acquisition Time (0008,0032), without its fraction
//      766     2 reserved               zero
struct ImageRecord {
    char sop_uid[64];
    char series_uid[64];
    char study_uid[64];
    char image_type[64];
    char comments[256];
    char patient_orientation[32];
    char slice_location[16];
    char image_position[52];
    char image_orientation[104];
    char acquisition_number[12];
    char instance_number[12];
    char acquisition_images[12];
    char acquisition_date[8];
    char acquisition_time[6];
    char reserved[2];
};
static_assert(sizeof(ImageRecord) == 768 && offsetof(ImageRecord, image_position) == 560);
static_assert(offsetof(ImageRecord, instance_number) == 728);
static_assert(offsetof(ImageRecord, acquisition_time) == 760);
static_assert(std::is_trivially_copyable_v<ImageRecord>);

}  // namespace tarvo
