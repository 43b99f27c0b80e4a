#include <gtest/gtest.h>

#include <cstring>

#include "store/local_store.h"
#include "store/study_bits.h"
#include "support/text_field.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;
using tarvo::field_text;

class StudyRecord : public testing::Test {
  protected:
    void add(const Attributes& attributes) {
        store.studyDataMake(dataset_of(attributes).get(), &entry, &record);
    }
    [[nodiscard]] std::string modalities() const { return {record.modalities[0], 16}; }

    LocalStore store{"/nonexistent"};
    studyhash entry{};
    studydata record{};
};

TEST(StudyBits, TellLettersDigitsAndPunctuation) {
    for (const auto& [text, bits] :
         {std::pair{"", 0U}, std::pair{"aA", 0x2U}, std::pair{"Zz", 0x04000000U},
          std::pair{"abcdefghijklmnopqrstuvwxyz", 0x07FFFFFEU}, std::pair{"0", 0x40000000U},
          std::pair{"9", 0x40000000U}, std::pair{"!", 0x20000000U},
          std::pair{"(),-./:;[]{}", 0x20000000U}, std::pair{"^=*?@`_~\x7f\xc3\xa4\"#&'+<>\\|", 0U},
          std::pair{"CAB-2", 0x6000000EU}}) {
        EXPECT_EQ(charClassBits(text), bits) << text;
    }
}

TEST_F(StudyRecord, HoldsEveryAttributeAtItsPlace) {
    add({{DCM_StudyInstanceUID, "1.2.3"},
         {DCM_PatientName, "CAB"},
         {DCM_PatientID, std::string(70, 'x')},
         {DCM_PatientBirthDate, "19700101"},
         {DCM_PatientSex, "M"},
         {DCM_StudyDate, "20200229"},
         {DCM_StudyTime, "101530.123456"},
         {DCM_StudyDescription, "D"},
         {DCM_StudyID, "ID1"},
         {DCM_AccessionNumber, "ACC"},
         {DCM_ReferringPhysicianName, "E"},
         {DCM_ReferringPhysicianAddress, "STREET 1"},
         {DCM_ClinicalTrialSponsorName, "SPONSOR"},
         {DCM_ClinicalTrialProtocolName, "PROTOCOL"},
         {DCM_ClinicalTrialSiteName, "SITE"},
         {DCM_Modality, "CT"}});
    std::string expected(512, '\0');
    for (const auto& [offset, text] :
         {std::pair{0U, "1.2.3"}, std::pair{64U, "CAB"}, std::pair{192U, "D"}, std::pair{256U, "E"},
          std::pair{320U, "STREET 1"}, std::pair{384U, "CT"},
          std::pair{400U, "1970010120200229101530M"}, std::pair{424U, "SITE"},
          std::pair{448U, "SPONSOR"}, std::pair{464U, "PROTOCOL"}, std::pair{480U, "ACC"},
          std::pair{496U, "ID1"}}) {
        expected.replace(offset, std::strlen(text), text);
    }
    expected.replace(128, 64, 64, 'x');
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&record), sizeof record), expected);
    const std::uint32_t words[7] = {0xE, 0x10, 0x20, 19700101, 20200229, 0x1, 0x89B6E7E2};
    EXPECT_EQ(std::memcmp(&entry, words, sizeof words), 0);
}

TEST_F(StudyRecord, TheLatestImageWinsAndAbsentAttributesStay) {
    add({{DCM_PatientName, "A VERY LONG NAME"}, {DCM_StudyDescription, "D"}});
    entry.nameBits |= tarvo::study_deleted_mark;
    add({{DCM_PatientName, "AB"}, {DCM_PatientBirthDate, "1970"}, {DCM_StudyDate, ""}});
    EXPECT_EQ(std::string(record.patient_name, 64), "AB" + std::string(62, '\0'));
    EXPECT_EQ(entry.nameBits, 0x6U) << "a new name clears the deleted mark";
    EXPECT_EQ(entry.descBits, 0x10U);
    EXPECT_EQ(entry.birthDate, 0U);
    EXPECT_EQ(field_text(record.birth_date), "1970");
}

TEST_F(StudyRecord, ModalitiesAccumulateInEightSlots) {
    for (const char* code : {"CTX", "CT", "MR", "SEG", "CT"}) add({{DCM_Modality, code}});
    EXPECT_EQ(modalities(), std::string("CTMRSE") + std::string(10, '\0'));
    EXPECT_EQ(entry.modalityBits, 0x3U);
    for (const char* code : {"PT", "ST", "CR", "NM", "US", "RG", "XA", "OT"}) {
        add({{DCM_Modality, code}});
    }
    EXPECT_EQ(modalities(), "CTMRSEPTSTCRNMUS");
    EXPECT_EQ(entry.modalityBits, 0x100001FFU) << "the ninth code has a bit but no slot";
}

TEST_F(StudyRecord, TextsAreStoredInUtf8) {
    const struct {
        const char* character_set;
        const char* name;
        const char* stored;
    } cases[] = {
        {"ISO_IR 100", "M\xfcller^J", "M\xc3\xbcller^J"},
        {"ISO 2022 IR 6\\ISO 2022 IR 87", "A=\x1b$B;3ED\x1b(B", "A=\xe5\xb1\xb1\xe7\x94\xb0"},
        {"", "M\xfcller", "M\xfcller"}};
    for (const auto& [character_set, name, stored] : cases) {
        const Attributes attributes{{DCM_SpecificCharacterSet, character_set},
                                    {DCM_PatientName, name},
                                    {DCM_PatientID, name},
                                    {DCM_PatientSex, "\xfc"}};
        add(attributes);
        EXPECT_EQ(field_text(record.patient_name), stored);
        EXPECT_EQ(field_text(record.patient_id), stored);
        EXPECT_EQ(field_text(record.patient_sex), "\xfc") << "a code string is never converted";
        EXPECT_EQ(entry.nameBits, charClassBits(stored));
        studyhash alone{};
        store.studyDataMake(dataset_of(attributes).get(), &alone, nullptr);
        EXPECT_EQ(alone.nameBits, charClassBits(name)) << "without a record nothing is converted";
        store.studyDataMake(dataset_of({{DCM_PatientName, "B"}}).get(), nullptr, &record);
        EXPECT_EQ(field_text(record.patient_name), "B");
    }
}

TEST_F(StudyRecord, LogsEveryTextThatItTakesIn) {
    LogCapture log(512);
    store.setLogfile(log.stream());
    add({{DCM_SpecificCharacterSet, "ISO_IR 100"},
         {DCM_Modality, "CT"},
         {DCM_ModalitiesInStudy, "CT"},
         {DCM_StudyInstanceUID, "1.2"},
         {DCM_PatientName, "M\xfcller"}});
    EXPECT_EQ(log.take(),
              "Translate-in : 1.2\nTranslate-in : M\xfcller\nTranslate-out: M\xc3\xbcller\n"
              "Huh? ModalitiesInStudy entry present?\n");
}

}  // namespace
