#include "store/query_template.h"

#include <gtest/gtest.h>

#include <random>

#include "store/study_bits.h"
#include "support/crc32.h"
#include "support/text_field.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;
using tarvo::field_text;
using tarvo::wildcardMismatch;

TEST(Wildcard, StandsAtTheEndsOnlyAndCaseIsIgnored) {
    const struct {
        const char* pattern;
        std::vector<const char*> fits;
        std::vector<const char*> differs;
    } cases[] = {
        {"", {"", "anything"}, {}},
        {"*", {"", "anything"}, {}},
        {"**", {"", "anything"}, {}},
        {"***", {"*", "a*b"}, {"", "anything"}},
        {"SMITH", {"smith", "SMITH"}, {"Smith^John", "SMIT", "", "SMITHX"}},
        {"sm*", {"SMITH^J", "SM"}, {"S", "", "ISM"}},
        {"*ith", {"SMITH", "ith"}, {"th", "", "SMITHS"}},
        {"*JOHN*", {"Smith^John", "john", "JOHNSON"}, {"JOH", "", "J*OHN"}},
        {"S?ITH", {"s?ith"}, {"SMITH"}},
        {"S*H", {"s*h"}, {"SMITH", "SH"}},
        {"*a*b*", {"xA*bx"}, {"axb", "ab"}},
        {"M\xc3\xbcl*", {"m\xc3\xbcller"}, {"M\xc3\x9cLLER"}},  // letters of ASCII only
    };
    for (const auto& [pattern, fits, differs] : cases) {
        for (const char* value : fits) EXPECT_EQ(wildcardMismatch(value, pattern), 0) << value;
        for (const char* value : differs) EXPECT_NE(wildcardMismatch(value, pattern), 0) << value;
    }
}

std::string folded(std::string text) {
    for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
    return text;
}

bool model_fits(const std::string& value, std::string pattern) {
    if (pattern.size() < 2) return pattern.empty() || pattern == "*" || value == pattern;
    const bool start_open = pattern.front() == '*';
    const bool end_open = pattern.back() == '*';
    pattern = pattern.substr(start_open ? 1 : 0, pattern.size() - (start_open ? 1 : 0) - end_open);
    const bool starts = value.rfind(pattern, 0) == 0;
    const bool ends = value.size() >= pattern.size() &&
                      value.compare(value.size() - pattern.size(), std::string::npos, pattern) == 0;
    if (start_open && end_open) return value.find(pattern) != std::string::npos;
    return start_open ? ends : end_open ? starts : value == pattern;
}

TEST(Wildcard, AgreesWithAPlainModelAndWithTheCharacterClasses) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto draw = [&](std::size_t longest) {
        std::string text(random() % (longest + 1), ' ');
        for (char& c : text) c = "aAbB*"[random() % 5];
        return text;
    };
    int fitting = 0;
    for (int i = 0; i < 200'000; ++i) {
        const std::string value = draw(6);
        const std::string pattern = draw(4);
        const bool expected = model_fits(folded(value), folded(pattern));
        fitting += expected ? 1 : 0;
        ASSERT_EQ(wildcardMismatch(value, pattern) == 0, expected) << value << " and " << pattern;
        const unsigned needed = charClassBits(pattern.c_str());
        ASSERT_TRUE(!expected || (charClassBits(value.c_str()) & needed) == needed) << pattern;
    }
    EXPECT_GT(fitting, 20'000);
}

class Template : public testing::Test {
  protected:
    Template() { store.setLogfile(log.stream()); }

    void make(const std::vector<Attribute>& query) {
        words = tarvo::open_hash_template();
        texts = {};
        store.studyDataMakeTemplate(dataset_of(query).get(), &words, &texts);
    }

    LogCapture log{512};
    LocalStore store{"/nonexistent"};
    studyhash_template words{};
    studydata_template texts{};
};

TEST_F(Template, DateRangesAreBoundsInWholeDays) {
    const struct {
        const char* range;
        unsigned from;
        unsigned to;
    } cases[] = {
        {"", 0, 99991231},
        {"*", 0, 99991231},
        {"-", 0, 99991231},
        {"20200101", 20200101, 20200101},
        {"20200101-", 20200101, 99991231},
        {"-20201231", 0, 20201231},
        {"20200101-20201231", 20200101, 20201231},
        {"20200101 - 20201231", 20200101, 20201231},
        {"20200101.5", 20200101, 20200101},
        {"20200101\\20210101", 20200101, 20200101},
        {"soon", 0, 0},
        {"soon-", 0, 99991231},
        {"19500101-later", 19500101, 0},
        {"**", 0, 0},
    };
    for (const auto& [range, from, to] : cases) {
        unsigned bounds[2] = {1, 2};
        store.dateRangeHash(range, &bounds[0], &bounds[1]);
        EXPECT_EQ(bounds[0], from) << range;
        EXPECT_EQ(bounds[1], to) << range;
        EXPECT_EQ(log.take(), "converting daterange " + std::string(range) + ".\n");
    }
}

// An entry that fails every check passes one more with each step.
TEST_F(Template, AnEntryIsCheckedInOrderUntilACheckRejectsIt) {
    const studyhash_template wanted{.nameBits = 0x6,
                                    .descBits = 0x8,
                                    .refPhysBits = 0x10,
                                    .birthDateFrom = 19500101,
                                    .birthDateTo = 19591231,
                                    .studyDateFrom = 20200101,
                                    .studyDateTo = 20201231,
                                    .modalityMask = 0x3,
                                    .uidCrc = 77};
    studyhash entry{0x1 | 0x2, 0x4, 0x8, 19600101, 20191231, 0x4, 78};
    const struct {
        std::string line;  // of the check
        std::uint32_t studyhash::*word;
        std::vector<std::uint32_t> rejected;
        std::vector<std::uint32_t> passing;
    } checks[] = {
        {"Check Del\n", &studyhash::nameBits, {0x1, 0xFFFFFFFF}, {0x2}},
        {"Check UID\n", &studyhash::uidCrc, {0, 78}, {77}},
        {"Check PN\n", &studyhash::nameBits, {0, 0x2, 0x4, 0x8}, {0x6, 0xFE}},
        {"Check Desc\n", &studyhash::descBits, {0, 0x7}, {0x8, 0xFFFF}},
        {"Check Rphy\n", &studyhash::refPhysBits, {0, 0xF}, {0x10, 0x30}},
        {"Check Mod\n", &studyhash::modalityBits, {0, 0x4}, {0x1, 0x2, 0xFF}},
        {"Check BDay day: %d from: 19500101 to: 19591231\n",
         &studyhash::birthDate,
         {1, 19491231, 19600101},
         {0, 19500101, 19591231}},
        {"Check StudyDate\n",
         &studyhash::studyDate,
         {1, 20191231, 20210101, 0xFFFFFFFF},
         {0, 20200101, 20201231}},
    };
    std::string lines;
    for (const auto& [line, word, rejected, passing] : checks) {
        for (const bool pass : {false, true}) {
            for (const std::uint32_t value : pass ? passing : rejected) {
                entry.*word = value;
                std::string expected = lines + line;
                if (const std::size_t at = expected.find("%d"); at != std::string::npos) {
                    expected.replace(at, 2, std::to_string(entry.birthDate));
                }
                const bool passed_all = store.studyHashCompare(&entry, &wanted) == 0;
                const std::string seen = log.take();
                EXPECT_EQ(passed_all, pass && &line == &std::end(checks)[-1].line) << value;
                EXPECT_EQ(seen.substr(0, expected.size()), expected) << value;
                EXPECT_EQ(seen.size() > expected.size(), pass && !passed_all) << seen;
            }
        }
        lines += line;
    }
    const studyhash_template open = tarvo::open_hash_template();
    entry = {};
    EXPECT_EQ(store.studyHashCompare(&entry, &open), 0);
    entry.nameBits = tarvo::study_deleted_mark;
    EXPECT_EQ(store.studyHashCompare(&entry, &open), 1) << "deleted, whatever the query";
}

TEST_F(Template, HoldsEveryKeyOfTheQuery) {
    make({{DCM_StudyInstanceUID, "1.2.3"},
          {DCM_PatientName, "Doe*"},
          {DCM_PatientID, "P-1"},
          {DCM_PatientBirthDate, "19500101-19591231"},
          {DCM_PatientSex, "F"},
          {DCM_StudyDate, "-20200102"},
          {DCM_StudyTime, "101530.5"},
          {DCM_StudyDescription, "ab"},
          {DCM_StudyID, "12345678901234567"},
          {DCM_AccessionNumber, "A1"},
          {DCM_ReferringPhysicianName, "z"},
          {DCM_ReferringPhysicianAddress, "Street"},
          {DCM_ClinicalTrialSponsorName, "Sponsor"},
          {DCM_ClinicalTrialProtocolName, "Protocol"},
          {DCM_ClinicalTrialSiteName, "Site"},
          {DCM_Modality, "MR"},
          {DCM_ModalitiesInStudy, "CT"}});
    EXPECT_EQ(words.uidCrc, tarvo::crc32_of("1.2.3"));
    EXPECT_EQ(words.nameBits, 1U << 4 | 1U << 15 | 1U << 5);
    EXPECT_EQ(words.descBits, 1U << 1 | 1U << 2);
    EXPECT_EQ(words.refPhysBits, 1U << 26);
    EXPECT_EQ(words.birthDateFrom, 19500101U);
    EXPECT_EQ(words.birthDateTo, 19591231U);
    EXPECT_EQ(words.studyDateFrom, 0U);
    EXPECT_EQ(words.studyDateTo, 20200102U);
    EXPECT_EQ(words.modalityMask, 0x2U);
    studydata_template expected{};
    tarvo::set_field(expected.study_uid, "1.2.3");
    tarvo::set_field(expected.patient_name, "Doe*");
    tarvo::set_field(expected.patient_id, "P-1");
    tarvo::set_field(expected.birth_date, "19500101-19591231");
    tarvo::set_field(expected.patient_sex, "F");
    tarvo::set_field(expected.study_date, "-20200102");
    tarvo::set_field(expected.study_time, "101530.5");
    tarvo::set_field(expected.description, "ab");
    tarvo::set_field(expected.study_id, "1234567890123456");
    tarvo::set_field(expected.accession_number, "A1");
    tarvo::set_field(expected.referring_name, "z");
    tarvo::set_field(expected.referring_address, "Street");
    tarvo::set_field(expected.trial_sponsor, "Sponsor");
    tarvo::set_field(expected.trial_protocol, "Protocol");
    tarvo::set_field(expected.trial_site, "Site");
    tarvo::set_field(expected.modalities[0], "MR");
    EXPECT_EQ(std::memcmp(&texts, &expected, sizeof texts), 0);
    const std::string lines = log.take();
    EXPECT_EQ(lines.rfind("Template-in : 1.2.3\nTemplate-in : Doe*\nTemplate-in : P-1\n"
                          "Template-in : 19500101-19591231\n"
                          "converting daterange 19500101-19591231.\nTemplate-in : F\n",
                          0),
              0U);
    EXPECT_NE(lines.find("Huh? ModalitiesInStudy entry present?\n"), std::string::npos);
}

TEST_F(Template, EmptyAndMissingKeysAskForNothing) {
    make({{DCM_StudyInstanceUID, ""},
          {DCM_PatientName, ""},
          {DCM_StudyDate, ""},
          {DCM_Modality, ""},
          {DCM_ModalitiesInStudy, ""}});
    const studyhash_template open = tarvo::open_hash_template();
    const studydata_template empty{};
    EXPECT_EQ(std::memcmp(&words, &open, sizeof words), 0);
    EXPECT_EQ(std::memcmp(&texts, &empty, sizeof texts), 0);
    EXPECT_EQ(log.take().find("Huh?"), std::string::npos);
    make({{DCM_Modality, "SEG"}, {DCM_PatientName, "*"}});
    EXPECT_EQ(std::memcmp(&words, &open, sizeof words), 0) << "no bits, no condition";
    store.studyDataMakeTemplate(dataset_of({{DCM_PatientName, "A"}}).get(), nullptr, &texts);
    store.studyDataMakeTemplate(dataset_of({{DCM_PatientName, "B"}}).get(), &words, nullptr);
    EXPECT_EQ(field_text(texts.patient_name), "A");
    EXPECT_EQ(words.nameBits, 1U << 2);
}

TEST_F(Template, TextsAreConvertedFromTheCharacterSetOfTheQuery) {
    const struct {
        const char* character_set;
        const char* name;
        const char* expected;
    } cases[] = {
        {"ISO_IR 100", "M\xfcller*", "M\xc3\xbcller*"},
        {"ISO_IR 192", "M\xc3\xbcller*", "M\xc3\xbcller*"},
        {"\\ISO 2022 IR 87", "Yamada=\x1b$B;3ED\x1b(B", "Yamada=\xe5\xb1\xb1\xe7\x94\xb0"},
        {"\\ISO 2022 IR 87", "\x1b%%x", "Unknown ESC"},
    };
    for (const auto& [character_set, name, expected] : cases) {
        make({{DCM_SpecificCharacterSet, character_set},
              {DCM_PatientName, name},
              {DCM_StudyDescription, name},
              {DCM_PatientSex, "O"}});
        EXPECT_EQ(field_text(texts.patient_name), expected);
        EXPECT_EQ(field_text(texts.description), expected);
        EXPECT_EQ(words.nameBits, charClassBits(expected));
        EXPECT_NE(log.take().find("Template-out: " + std::string(expected) + "\n"),
                  std::string::npos);
    }
    make({{DCM_PatientName, "M\xfcller"}});
    EXPECT_EQ(field_text(texts.patient_name), "M\xfcller") << "no character set, no conversion";
}

}  // namespace
