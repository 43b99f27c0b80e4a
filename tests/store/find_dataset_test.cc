#include <gtest/gtest.h>

#include "store/records.h"
#include "support/text_field.h"
#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;

using Query = std::vector<Attribute>;
using Answers = std::vector<std::string>;

const std::string full_uid(64, '7');

std::ptrdiff_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// An answer as "(0008,0052)=STUDY (0020,000d)=1.2.3".
std::string text_of(DcmDataset& answer) {
    std::string text;
    for (unsigned long i = 0; i < answer.card(); ++i) {
        OFString value;
        EXPECT_TRUE(answer.getElement(i)->getOFStringArray(value).good());
        text += text.empty() ? "" : " ";
        text += answer.getElement(i)->getTag().toString() + "=" + value;
    }
    return text;
}

class FindDataset : public testing::Test {
  protected:
    FindDataset() { store.setLogfile(log.stream()); }

    void write(const std::string& study, const std::string& series, const std::string& sop,
               const Query& more = {}) {
        ASSERT_EQ(store.WriteDataset(image(study, series, sop, more).get(), 0, nullptr, 0), 0);
    }

    // All answers; the iteration must end with `end` and give everything back.
    Answers find(const Query& query, int end = 1, const char* level = nullptr) {
        return find_in(store, query, end, level);
    }
    static Answers find_in(LocalStore& searched, const Query& query, int end = 1,
                           const char* level = nullptr) {
        const Dataset identifier = dataset_of(query);
        const std::ptrdiff_t descriptors = open_descriptors();
        void* handle = nullptr;
        Answers answers;
        for (;;) {
            DcmDataset* response = nullptr;
            const int result = searched.FindDataset(&handle, identifier.get(), &response, level);
            const Dataset owner(response);
            if (result != 0) {
                EXPECT_EQ(result, end);
                EXPECT_EQ(response, nullptr);
                break;
            }
            answers.push_back(text_of(*response));
        }
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(open_descriptors(), descriptors);
        return answers;
    }
    // The UIDs of the studies that match, in the order of the answers.
    std::string studies(Query query) {
        query.insert(query.begin(), {{DCM_QueryRetrieveLevel, "STUDY"}, {DCM_StudyID, ""}});
        std::string ids;
        for (const std::string& answer : find(query)) {
            ids += answer.substr(answer.find("(0020,0010)=") + 12, 1);
        }
        return ids;
    }
    [[nodiscard]] std::string series_index(const char* study = "1.2.3") const {
        return (store.GetUidIndexPath(study, nullptr) + ".dat").c_str();
    }
    [[nodiscard]] std::string image_index(const char* series = "4") const {
        return (store.GetUidIndexPath("1.2.3", series) + ".dat").c_str();
    }

    const TemporaryDirectory directory;
    LogCapture log;
    LocalStore store{directory.path().c_str()};
};

TEST_F(FindDataset, StudiesAnswerWhatIsAskedForNewestFirst) {
    write("1.2.3", "4", "5",
          {{DCM_PatientID, "P1"},
           {DCM_PatientBirthDate, "19600101"},
           {DCM_PatientSex, "F"},
           {DCM_StudyDate, "20200102"},
           {DCM_StudyTime, "101530.123"},
           {DCM_StudyDescription, "DESC"},
           {DCM_StudyID, "S1"},
           {DCM_AccessionNumber, "A1"},
           {DCM_ReferringPhysicianName, "REF^P"},
           {DCM_ReferringPhysicianAddress, "STREET"},
           {DCM_ClinicalTrialSponsorName, "SPONSOR"},
           {DCM_ClinicalTrialProtocolName, "PROTOCOL"},
           {DCM_ClinicalTrialSiteName, "SITE"}});
    write("1.2.3", "4", "6", {{DCM_Modality, "MR"}});
    write("1.2.4", "4", "5",
          {{DCM_SpecificCharacterSet, "ISO_IR 100"}, {DCM_PatientName, "M\xfcller"}});
    log.take();
    const Query names = {{DCM_QueryRetrieveLevel, "STUDY"}, {DCM_PatientName, ""}};
    EXPECT_EQ(find(names), (Answers{"(0008,0005)=ISO_IR 192 (0008,0052)=STUDY "
                                    "(0010,0010)=M\xc3\xbcller",
                                    "(0008,0052)=STUDY (0010,0010)=DOE^JOHN"}));
    EXPECT_EQ(log.take(),
              "checking entry 1\nCheck Del\nentry 1 hash matches\n"
              "entry 1 data matches, responding\n"
              "checking entry 0\nCheck Del\nentry 0 hash matches\n"
              "entry 0 data matches, responding\n");
    const Query uids = {{DCM_QueryRetrieveLevel, "PATIENT"}, {DCM_StudyInstanceUID, ""}};
    EXPECT_EQ(find(uids), (Answers{"(0008,0052)=PATIENT (0020,000d)=1.2.4",
                                   "(0008,0052)=PATIENT (0020,000d)=1.2.3"}))
        << "no character set where only ASCII is answered";
    EXPECT_EQ(log.take().find("Treating PATIENT type query as STUDY\n"), 0U);
    EXPECT_EQ(find({{DCM_StudyInstanceUID, "1.2.3"},
                    {DCM_PatientName, ""},
                    {DCM_PatientID, ""},
                    {DCM_PatientBirthDate, ""},
                    {DCM_PatientSex, ""},
                    {DCM_PatientAge, ""},
                    {DCM_StudyDate, ""},
                    {DCM_StudyTime, ""},
                    {DCM_StudyDescription, ""},
                    {DCM_StudyID, ""},
                    {DCM_AccessionNumber, ""},
                    {DCM_Modality, ""},
                    {DCM_ModalitiesInStudy, ""},
                    {DCM_ReferringPhysicianName, ""},
                    {DCM_ReferringPhysicianAddress, ""},
                    {DCM_ClinicalTrialSponsorName, ""},
                    {DCM_ClinicalTrialProtocolName, ""},
                    {DCM_ClinicalTrialSiteName, ""}},
                   1, "STUDY"),
              Answers{"(0008,0020)=20200102 (0008,0030)=101530 (0008,0050)=A1 (0008,0052)=STUDY "
                      "(0008,0061)=CT\\MR (0008,0090)=REF^P (0008,0092)=STREET (0008,1030)=DESC "
                      "(0010,0010)=DOE^JOHN (0010,0020)=P1 (0010,0030)=19600101 (0010,0040)=F "
                      "(0012,0010)=SPONSOR (0012,0021)=PROTOCOL (0012,0031)=SITE "
                      "(0020,000d)=1.2.3 (0020,0010)=S1"});
}

TEST_F(FindDataset, StudiesMatchByEveryKey) {
    const std::string full_id(16, 'I');
    write("1.1", "4", "5",
          {{DCM_StudyID, "a"},
           {DCM_PatientName, "Smith^John"},
           {DCM_StudyDate, "20200101"},
           {DCM_PatientBirthDate, "19600101"},
           {DCM_PatientID, "P1"},
           {DCM_PatientSex, "M"},
           {DCM_AccessionNumber, full_id.c_str()},
           {DCM_Modality, "MR"}});
    write("1.2", "4", "5",
          {{DCM_StudyID, "b"},
           {DCM_PatientName, "S?ITH"},
           {DCM_StudyDescription, "Head"},
           {DCM_PatientID, "P12"},
           {DCM_ReferringPhysicianName, "Ref^A"},
           {DCM_ReferringPhysicianAddress, "Road"},
           {DCM_ClinicalTrialSponsorName, "Sponsor"},
           {DCM_ClinicalTrialProtocolName, "Protocol"},
           {DCM_ClinicalTrialSiteName, "Site"}});
    write(full_uid, "4", "5",
          {{DCM_StudyID, "c"},
           {DCM_StudyDate, "20200102"},
           {DCM_PatientName, "O'Hara"},
           {DCM_Modality, "US"}});
    const struct {
        Query query;
        const char* expected;
    } cases[] = {
        {{}, "cba"},
        {{{DCM_StudyInstanceUID, "1.1"}}, "a"},
        {{{DCM_StudyInstanceUID, "1.*"}}, ""},             // its checksum is no study's
        {{{DCM_StudyInstanceUID, full_uid.c_str()}}, ""},  // read on into the name
        {{{DCM_PatientName, "*"}}, "cba"},
        {{{DCM_PatientName, "SMITH"}}, ""},
        {{{DCM_PatientName, "smith*"}}, "a"},
        {{{DCM_PatientName, "*JOHN*"}}, "a"},
        {{{DCM_PatientName, "S?ITH"}}, "b"},
        {{{DCM_PatientName, "*ith"}}, "b"},
        {{{DCM_PatientID, "P1"}}, "a"},
        {{{DCM_PatientID, "P1*"}}, "ba"},
        {{{DCM_PatientSex, "m"}}, "a"},
        {{{DCM_StudyDescription, "*ead"}}, "b"},
        {{{DCM_ReferringPhysicianName, "REF*"}}, "b"},
        {{{DCM_ReferringPhysicianAddress, "road"}}, "b"},
        {{{DCM_ClinicalTrialSponsorName, "s*"}}, "b"},
        {{{DCM_ClinicalTrialProtocolName, "protocol"}}, "b"},
        {{{DCM_ClinicalTrialSiteName, "*te"}}, "b"},
        {{{DCM_StudyID, "B"}}, "b"},
        {{{DCM_AccessionNumber, full_id.c_str()}}, ""},  // read on into the study's id
        {{{DCM_AccessionNumber, "III*"}}, "a"},
        {{{DCM_StudyDate, "20200101"}}, "ba"},  // not known passes
        {{{DCM_StudyDate, "20200102-"}}, "cb"},
        {{{DCM_PatientBirthDate, "19500101-19591231"}}, "cb"},
        {{{DCM_Modality, "MR"}}, "a"},
        {{{DCM_Modality, "SEG"}}, "cba"},
        {{{DCM_ModalitiesInStudy, "MR"}}, "cba"},
        {{{DCM_StudyTime, "1200"}}, "cba"},
        {{{DCM_Modality, "MR"}, {DCM_PatientName, "s?ith"}}, ""},
    };
    for (const auto& [query, expected] : cases) {
        EXPECT_EQ(studies(query), expected) << text_of(*dataset_of(query));
    }
    const Query all = {{DCM_QueryRetrieveLevel, "STUDY"}, {DCM_StudyInstanceUID, ""}};
    EXPECT_EQ(find(all)[0], "(0008,0052)=STUDY (0020,000d)=" + full_uid) << "cut at its width";
}

TEST_F(FindDataset, DeletedBlankAndMissingStudyRecordsNeverMatch) {
    for (const char* study : {"1", "2", "3", "4"}) write(study, "4", "5", {{DCM_StudyID, study}});
    EXPECT_EQ(store.DeleteFile("3", "4", "5"), 0);
    EXPECT_EQ(studies({}), "421");
    const std::string data = directory.file("uid/STUDYINDEX.dat");
    std::string bytes = read_file(data);
    bytes[512] = '\0';
    write_file(data, bytes.substr(0, 4 * 512 - 1));
    EXPECT_EQ(studies({}), "1") << "the second is blank, the last not whole";
    std::filesystem::remove(data);
    EXPECT_EQ(find({{DCM_QueryRetrieveLevel, "STUDY"}}, -1), Answers{});
    write_file(data, "");
    ASSERT_EQ(store.reallocStudyHash(0), 0);
    EXPECT_EQ(find({{DCM_QueryRetrieveLevel, "STUDY"}}, 1), Answers{}) << "an empty store";
}

TEST_F(FindDataset, WhatAnotherProcessStoresIsFoundBelowStudyLevel) {
    write("1.2.3", "4", "5");
    LocalStore forked(directory.path().c_str());
    write("1.2.4", "4", "5");
    EXPECT_EQ(find_in(forked, {{DCM_QueryRetrieveLevel, "STUDY"}, {DCM_StudyInstanceUID, ""}}),
              Answers{"(0008,0052)=STUDY (0020,000d)=1.2.3"});
    for (const char* level : {"SERIES", "IMAGE"}) {
        EXPECT_EQ(find_in(forked, {{DCM_StudyInstanceUID, "1.2.4"}}, 1, level).size(), 1U);
    }
}

TEST_F(FindDataset, SeriesAnswerInTheOrderOfTheirIndex) {
    write("1.2.3", "4", "5", {{DCM_SeriesDescription, "first"}, {DCM_SeriesTime, "101530.12"}});
    write("1.2.3", full_uid, "6", {{DCM_SeriesDescription, full_uid.c_str()}});
    write("1.2.3", "9", "7");
    log.take();
    const auto query = [](const char* series) {
        return Query{{DCM_QueryRetrieveLevel, "SERIES"},
                     {DCM_StudyInstanceUID, "1.2.3"},
                     {DCM_SeriesInstanceUID, series},
                     {DCM_SeriesDescription, ""},
                     {DCM_SeriesTime, ""},
                     {DCM_PatientName, "NOBODY"}};
    };
    const auto answer = [](const std::string& series, const std::string& description = "",
                           const std::string& time = "") {
        return "(0008,0031)=" + time + " (0008,0052)=SERIES (0008,103e)=" + description +
               " (0020,000d)=1.2.3 (0020,000e)=" + series;
    };
    const std::string first = answer("4", "first", "101530");
    const std::string full = answer(full_uid, full_uid);
    EXPECT_EQ(find(query("")), (Answers{first, full, answer("9")}));
    EXPECT_EQ(log.take(),
              "series entry matches, responding\nseries entry matches, responding\n"
              "series entry matches, responding\n");
    EXPECT_EQ(find(query("4")), Answers{first});
    EXPECT_EQ(find(query((full_uid + "1").c_str())), Answers{full}) << "cut like the key";
    EXPECT_EQ(find(query("4*")), Answers{});
    EXPECT_EQ(store.DeleteFile("1.2.3", "9", "7"), 0);
    EXPECT_EQ(find(query("")), (Answers{first, full})) << "a blank record";
    const std::string index = read_file(series_index());
    write_file(series_index(), index.substr(0, 640) + "8" + std::string(100, '\0'));
    EXPECT_EQ(find(query("8")).at(0),
              "(0008,0031)= (0008,0052)=SERIES (0008,103e)= "
              "(0020,000d)= (0020,000e)=8")
        << "a fragment shows nothing of the record before it";
}

TEST_F(FindDataset, ImagesAnswerInTheOrderOfTheirIndex) {
    for (const char* sop : {"5", "3", "8"}) {
        write("1.2.3", "4", sop, {{DCM_ImageComments, sop}, {DCM_InstanceNumber, "12"}});
    }
    write("1.2.3", "4", full_uid);
    write("1.2.3", "1", "9");
    const Query all = {{DCM_QueryRetrieveLevel, "IMAGE"},
                       {DCM_StudyInstanceUID, "1.2.3"},
                       {DCM_SeriesInstanceUID, "4"},
                       {DCM_InstanceNumber, ""},
                       {DCM_PatientName, ""}};
    const auto answer = [](const std::string& number) {
        return "(0008,0052)=IMAGE (0020,000d)=1.2.3 (0020,000e)=4 (0020,0013)=" + number;
    };
    EXPECT_EQ(find(all), (Answers{answer("12"), answer("12"), answer("12"), answer("")}));
    log.take();
    Query one = all;
    one.push_back({DCM_SOPInstanceUID, "3"});
    EXPECT_EQ(find(one), Answers{"(0008,0018)=3 " + answer("12")});
    EXPECT_EQ(log.take(), "image entry matches, responding 1.2.3/4/3\n");

    const auto uids = [&](const Query& query) {
        std::string found;
        for (const std::string& text : find(query, 1, "IMAGE")) {
            const std::size_t length = text.find(' ') - 12;
            found += (length == 1 ? text.substr(12, length) : "f");
            EXPECT_EQ(text.substr(12 + length, 18), " (0008,0052)=IMAGE");
            EXPECT_NE(text.find("(0020,000d)=1.2.3 (0020,000e)="), std::string::npos);
        }
        return found;
    };
    EXPECT_EQ(uids({{DCM_StudyInstanceUID, "1.2.3"}, {DCM_SeriesInstanceUID, "4"}}), "538f")
        << "a given level has the UIDs answered unasked";
    EXPECT_EQ(uids({{DCM_StudyInstanceUID, "1.2.3"}, {DCM_SOPInstanceUID, full_uid.c_str()}}), "f");
    log.take();
    EXPECT_EQ(uids({{DCM_StudyInstanceUID, "1.2.3"}}), "538f9") << "every series in its order";
    EXPECT_EQ(log.take().find("IMAGE level query without SERIES UID - enumerating.\n"), 0U);
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "3"), 0);
    EXPECT_EQ(uids({{DCM_StudyInstanceUID, "1.2.3"}}), "58f9");
    write_file(image_index(), read_file(image_index()) + "6");
    EXPECT_EQ(find(all).back(), "(0008,0052)=IMAGE (0020,000d)= (0020,000e)= (0020,0013)=")
        << "a fragment shows nothing of the record before it";
}

TEST_F(FindDataset, ASeriesDeletedDuringTheWalkIsPassedOver) {
    for (const char* series : {"1", "2", "3"}) write("1.2.3", series, "5");
    const Dataset query = dataset_of({{DCM_StudyInstanceUID, "1.2.3"}});
    void* handle = nullptr;
    const auto next = [&] {
        DcmDataset* response = nullptr;
        const int result = store.FindDataset(&handle, query.get(), &response, "IMAGE");
        const Dataset owner(response);
        if (result != 0) return std::to_string(result);
        OFString series;
        EXPECT_TRUE(response->findAndGetOFString(DCM_SeriesInstanceUID, series).good());
        return std::string("series ") + series.c_str();
    };
    EXPECT_EQ(next(), "series 1");
    EXPECT_EQ(in_child([&] { return store.DeleteFile("1.2.3", "2", "5"); }), 0);
    EXPECT_EQ(next(), "series 3");
    EXPECT_EQ(next(), "1");
    EXPECT_EQ(next(), "series 1");
    std::filesystem::remove(image_index("3"));
    EXPECT_EQ(next(), "-1") << "an index that is lost is not passed over";
    EXPECT_EQ(handle, nullptr);
}

TEST_F(FindDataset, QueriesThatCannotBeAnswered) {
    write("1.2.3", "4", "5");
    log.take();
    const struct {
        Query query;
        const char* level;
        int result;
        std::string message;
    } cases[] = {
        {{}, nullptr, 1, "AIEE - QRL (null) is not STUDY, SERIES or IMAGE\n"},
        {{{DCM_QueryRetrieveLevel, "study"}},
         nullptr,
         1,
         "AIEE - QRL study is not STUDY, SERIES or IMAGE\n"},
        {{{DCM_QueryRetrieveLevel, "STUDY"}},
         "FRAME",
         1,
         "AIEE - QRL FRAME is not STUDY, SERIES or IMAGE\n"},
        {{}, "SERIES", -1, "SERIES level query without STUDY UID unsupported.\n"},
        {{{DCM_StudyInstanceUID, ""}},
         "IMAGE",
         -1,
         "IMAGE level query without STUDY UID unsupported.\n"},
        {{{DCM_StudyInstanceUID, "9"}}, "SERIES", -1, ""},
        {{{DCM_StudyInstanceUID, "9"}},
         "IMAGE",
         -1,
         "IMAGE level query without SERIES UID - enumerating.\n"},
        {{{DCM_StudyInstanceUID, "1.2.3"}, {DCM_SeriesInstanceUID, "9"}}, "IMAGE", -1, ""},
        {{{DCM_StudyInstanceUID, "x/../study_1.2.3"}}, "SERIES", -1, ""},
        {{{DCM_StudyInstanceUID, "1.2.3"}, {DCM_SeriesInstanceUID, "x/../series_4"}},
         "IMAGE",
         -1,
         ""},
        {{{DCM_StudyInstanceUID, "1.2.3"}, {DCM_SeriesInstanceUID, "x/../series_4"}},
         "SERIES",
         1,
         ""},
        {{{DCM_StudyInstanceUID, "1.2.3"}, {DCM_SeriesInstanceUID, "4"}, {DCM_SOPInstanceUID, "9"}},
         "IMAGE",
         1,
         ""},
    };
    // Directories that "/../" would lead through.
    std::filesystem::create_directories(directory.file("uid/E2/E7/study_1.2.3/series_x"));
    std::filesystem::create_directories(directory.file("uid/E2/E7/study_x"));
    for (const auto& [query, level, result, message] : cases) {
        SCOPED_TRACE(text_of(*dataset_of(query)) + message);
        EXPECT_EQ(find(query, result, level), Answers{});
        EXPECT_EQ(log.take(), message);
    }
    DcmDataset* response = nullptr;
    void* handle = nullptr;
    EXPECT_EQ(store.FindDataset(nullptr, dataset_of({}).get(), &response, "STUDY"), 1);
    EXPECT_EQ(log.take(), "LocalStore::FindDataset: No handle pointer.\n");
    EXPECT_EQ(store.FindDataset(&handle, dataset_of({}).get(), nullptr, "STUDY"), 1);
    EXPECT_EQ(log.take(), "");
    EXPECT_EQ(handle, nullptr);
}

TEST_F(FindDataset, AnIterationCanBeGivenUpAndKeysBeAddedToADataset) {
    write("1.2.3", "4", "5");
    write("1.2.3", "4", "6");
    write("1.2.4", "4", "6");
    const Dataset query = dataset_of({{DCM_StudyInstanceUID, "1.2.3"}});
    for (const char* level : {"STUDY", "SERIES", "IMAGE"}) {
        const Dataset answer = dataset_of({{DCM_PatientName, "KEPT"}, {DCM_StudyInstanceUID, "1"}});
        DcmDataset* response = answer.get();
        const std::ptrdiff_t descriptors = open_descriptors();
        void* handle = nullptr;
        EXPECT_EQ(store.FindDataset(&handle, query.get(), &response, level), 0);
        EXPECT_EQ(response, answer.get());
        EXPECT_NE(text_of(*answer).find("(0010,0010)=KEPT (0020,000d)=1.2.3"), std::string::npos);
        EXPECT_GT(open_descriptors(), descriptors);
        LocalStore::EndFind(&handle);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(open_descriptors(), descriptors);
        LocalStore::EndFind(&handle);
    }
}

}  // namespace
