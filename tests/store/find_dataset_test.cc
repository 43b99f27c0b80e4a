#include <gtest/gtest.h>

#include "tests/store/store_test_support.h"

namespace {

using namespace store_test;

using Answers = std::vector<std::string>;

const std::string full_uid(64, '7');

// Adds attributes given as "PatientName=DOE;StudyID=1".
void add(DcmDataset& dataset, const std::string& attributes) {
    std::istringstream list(attributes);
    for (std::string item; std::getline(list, item, ';');) {
        const std::size_t end = item.find('=');
        DcmTag tag;
        EXPECT_TRUE(DcmTag::findTagFromName(item.substr(0, end).c_str(), tag).good()) << item;
        EXPECT_TRUE(dataset.putAndInsertString(tag, item.c_str() + end + 1).good()) << item;
    }
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

std::ptrdiff_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class FindDataset : public testing::Test {
  protected:
    FindDataset() { store.setLogfile(log.stream()); }

    void write(const std::string& study, const std::string& series, const std::string& sop,
               const std::string& attributes = "") {
        const Dataset dataset = image(study, series, sop);
        add(*dataset, attributes);
        ASSERT_EQ(store.WriteDataset(dataset.get(), 0, nullptr, 0), 0);
    }

    // All answers; the iteration must end with `end` and give everything back.
    Answers find(const std::string& keys, int end = 1, const char* level = nullptr) {
        return find_in(store, keys, end, level);
    }
    static Answers find_in(LocalStore& searched, const std::string& keys, int end = 1,
                           const char* level = nullptr) {
        DcmDataset query;
        add(query, keys);
        const std::ptrdiff_t descriptors = open_descriptors();
        void* handle = nullptr;
        Answers answers;
        for (;;) {
            DcmDataset* response = nullptr;
            const int result = searched.FindDataset(&handle, &query, &response, level);
            const Dataset owner(response);
            EXPECT_EQ(response != nullptr, result == 0);
            EXPECT_TRUE(result == 0 || result == end) << result;
            if (result != 0 || response == nullptr) break;
            answers.push_back(text_of(*response));
        }
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(open_descriptors(), descriptors);
        return answers;
    }
    // One character of the value of `tag` for each answer.
    static std::string letters(const Answers& answers, const std::string& tag) {
        std::string found;
        for (const std::string& text : answers) found += text.at(text.find(tag) + tag.size() + 1);
        return found;
    }
    std::string studies(const std::string& keys) {
        return letters(find("QueryRetrieveLevel=STUDY;StudyID=;" + keys), "(0020,0010)");
    }
    std::string images(const std::string& keys) {
        return letters(find("StudyInstanceUID=1.2.3;" + keys, 1, "IMAGE"), "(0008,0018)");
    }
    [[nodiscard]] std::string index(const char* series) const {
        return (store.GetUidIndexPath("1.2.3", series) + ".dat").c_str();
    }

    const TemporaryDirectory directory;
    LogCapture log;
    LocalStore store{directory.path().c_str()};
};

TEST_F(FindDataset, StudiesAnswerWhatIsAskedForNewestFirst) {
    write("1.2.3", "4", "5",
          "PatientID=P1;PatientBirthDate=19600101;PatientSex=F;StudyDate=20200102;"
          "StudyTime=101530.123;StudyDescription=DESC;StudyID=S1;AccessionNumber=A1;"
          "ReferringPhysicianName=REF^P;ReferringPhysicianAddress=STREET;"
          "ClinicalTrialSponsorName=SPONSOR;ClinicalTrialProtocolName=PROTOCOL;"
          "ClinicalTrialSiteName=SITE");
    write("1.2.3", "4", "6", "Modality=MR");
    write("1.2.4", "4", "5", "SpecificCharacterSet=ISO_IR 100;PatientName=M\xfcller");
    log.take();
    EXPECT_EQ(find("QueryRetrieveLevel=STUDY;PatientName="),
              (Answers{"(0008,0005)=ISO_IR 192 (0008,0052)=STUDY (0010,0010)=M\xc3\xbcller",
                       "(0008,0052)=STUDY (0010,0010)=DOE^JOHN"}));
    EXPECT_EQ(log.take(),
              "checking entry 1\nCheck Del\nentry 1 hash matches\n"
              "entry 1 data matches, responding\n"
              "checking entry 0\nCheck Del\nentry 0 hash matches\n"
              "entry 0 data matches, responding\n");
    EXPECT_EQ(
        find("QueryRetrieveLevel=PATIENT;StudyInstanceUID="),
        (Answers{"(0008,0052)=PATIENT (0020,000d)=1.2.4", "(0008,0052)=PATIENT (0020,000d)=1.2.3"}))
        << "no character set where only ASCII is answered";
    EXPECT_EQ(log.take().find("Treating PATIENT type query as STUDY\n"), 0U);
    EXPECT_EQ(find("StudyInstanceUID=1.2.3;PatientName=;PatientID=;PatientBirthDate=;PatientSex=;"
                   "PatientAge=;StudyDate=;StudyTime=;StudyDescription=;StudyID=;AccessionNumber=;"
                   "Modality=;ModalitiesInStudy=;ReferringPhysicianName=;"
                   "ReferringPhysicianAddress=;ClinicalTrialSponsorName=;"
                   "ClinicalTrialProtocolName=;ClinicalTrialSiteName=",
                   1, "STUDY"),
              Answers{"(0008,0020)=20200102 (0008,0030)=101530 (0008,0050)=A1 (0008,0052)=STUDY "
                      "(0008,0061)=CT\\MR (0008,0090)=REF^P (0008,0092)=STREET (0008,1030)=DESC "
                      "(0010,0010)=DOE^JOHN (0010,0020)=P1 (0010,0030)=19600101 (0010,0040)=F "
                      "(0012,0010)=SPONSOR (0012,0021)=PROTOCOL (0012,0031)=SITE "
                      "(0020,000d)=1.2.3 (0020,0010)=S1"});
}

TEST_F(FindDataset, StudiesMatchByEveryKey) {
    const std::string full_number(16, 'I');
    write("1.1", "4", "5",
          "StudyID=a;PatientName=Smith^John;StudyDate=20200101;PatientBirthDate=19600101;"
          "PatientID=P1;PatientSex=M;Modality=MR;AccessionNumber=" +
              full_number);
    write("1.2", "4", "5",
          "StudyID=b;PatientName=S?ITH;StudyDescription=Head;PatientID=P12;"
          "ReferringPhysicianName=Ref^A;ReferringPhysicianAddress=Road;"
          "ClinicalTrialSponsorName=Sponsor;ClinicalTrialProtocolName=Protocol;"
          "ClinicalTrialSiteName=Site");
    write(full_uid, "4", "5", "StudyID=c;StudyDate=20200102;PatientName=O'Hara;Modality=US");
    const struct {
        std::string keys;
        const char* expected;
    } cases[] = {
        {"", "cba"},
        {"StudyInstanceUID=1.1", "a"},
        {"StudyInstanceUID=1.*", ""},          // its checksum is no study's
        {"StudyInstanceUID=" + full_uid, ""},  // compared with the name behind it
        {"PatientName=smith*", "a"},
        {"PatientName=SMITH", ""},
        {"PatientName=*ITH", "b"},
        {"PatientID=P1", "a"},
        {"PatientSex=m", "a"},
        {"StudyDescription=*ead", "b"},
        {"ReferringPhysicianName=REF*", "b"},
        {"ReferringPhysicianAddress=road", "b"},
        {"ClinicalTrialSponsorName=s*", "b"},
        {"ClinicalTrialProtocolName=protocol", "b"},
        {"ClinicalTrialSiteName=*te", "b"},
        {"StudyID=B", "b"},
        {"AccessionNumber=" + full_number, ""},  // compared with the study's id behind it
        {"AccessionNumber=III*", "a"},
        {"StudyDate=20200101", "ba"},  // not known passes
        {"StudyDate=20200102-", "cb"},
        {"PatientBirthDate=19500101-19591231", "cb"},
        {"Modality=MR", "a"},
        {"Modality=SEG;ModalitiesInStudy=MR;StudyTime=1200", "cba"},
        {"Modality=MR;PatientName=s?ith", ""},
    };
    for (const auto& [keys, expected] : cases) EXPECT_EQ(studies(keys), expected) << keys;
    EXPECT_EQ(find("QueryRetrieveLevel=STUDY;StudyInstanceUID=").at(0),
              "(0008,0052)=STUDY (0020,000d)=" + full_uid)
        << "cut at its width";
}

TEST_F(FindDataset, DeletedBlankAndMissingStudyRecordsNeverMatch) {
    for (const char* id : {"1", "2", "3", "4"}) write(id, "4", "5", std::string("StudyID=") + id);
    EXPECT_EQ(store.DeleteFile("3", "4", "5"), 0);
    EXPECT_EQ(studies(""), "421");
    const std::string data = directory.file("uid/STUDYINDEX.dat");
    std::string bytes = read_file(data);
    bytes[512] = '\0';
    write_file(data, bytes.substr(0, 4 * 512 - 1));
    EXPECT_EQ(studies(""), "1") << "the second is blank, the last not whole";
    std::filesystem::remove(data);
    EXPECT_EQ(find("", -1, "STUDY"), Answers{});
    write_file(data, "");
    ASSERT_EQ(store.reallocStudyHash(0), 0);
    EXPECT_EQ(find("", 1, "STUDY"), Answers{}) << "an empty store";
}

TEST_F(FindDataset, WhatAnotherProcessStoresIsFoundBelowStudyLevel) {
    write("1.2.3", "4", "5");
    LocalStore forked(directory.path().c_str());
    write("1.2.4", "4", "5");
    EXPECT_EQ(find_in(forked, "StudyInstanceUID=", 1, "STUDY"),
              Answers{"(0008,0052)=STUDY (0020,000d)=1.2.3"});
    for (const char* level : {"SERIES", "IMAGE"}) {
        EXPECT_EQ(find_in(forked, "StudyInstanceUID=1.2.4", 1, level).size(), 1U);
    }
}

TEST_F(FindDataset, SeriesAnswerInTheOrderOfTheirIndex) {
    write("1.2.3", "4", "5", "SeriesDescription=first;SeriesTime=101530.12");
    write("1.2.3", full_uid, "6", "SeriesDescription=" + full_uid);
    write("1.2.3", "9", "7");
    log.take();
    const auto found = [&](const std::string& series) {
        return find(
            "QueryRetrieveLevel=SERIES;StudyInstanceUID=1.2.3;SeriesDescription=;"
            "SeriesTime=;PatientName=NOBODY;SeriesInstanceUID=" +
            series);
    };
    const auto answer = [](const std::string& series, const std::string& description = "",
                           const std::string& time = "") {
        return "(0008,0031)=" + time + " (0008,0052)=SERIES (0008,103e)=" + description +
               " (0020,000d)=1.2.3 (0020,000e)=" + series;
    };
    const std::string first = answer("4", "first", "101530");
    const std::string full = answer(full_uid, full_uid);
    EXPECT_EQ(found(""), (Answers{first, full, answer("9")}));
    EXPECT_EQ(log.take(),
              "series entry matches, responding\nseries entry matches, responding\n"
              "series entry matches, responding\n");
    EXPECT_EQ(found("4"), Answers{first});
    EXPECT_EQ(found(full_uid + "1"), Answers{full}) << "cut like the key";
    EXPECT_EQ(found("4*"), Answers{});
    EXPECT_EQ(store.DeleteFile("1.2.3", "9", "7"), 0);
    EXPECT_EQ(found(""), (Answers{first, full})) << "a blank record";
    write_file(index(nullptr),
               read_file(index(nullptr)).substr(0, 640) + "8" + std::string(99, '\0'));
    EXPECT_EQ(found("8"), Answers{"(0008,0031)= (0008,0052)=SERIES (0008,103e)= (0020,000d)= "
                                  "(0020,000e)=8"})
        << "a fragment shows nothing of the record before it";
}

TEST_F(FindDataset, ImagesAnswerInTheOrderOfTheirIndex) {
    for (const char* sop : {"5", "3", "8"}) write("1.2.3", "4", sop, "InstanceNumber=12");
    write("1.2.3", "4", full_uid);
    write("1.2.3", "1", "9");
    const std::string all =
        "QueryRetrieveLevel=IMAGE;StudyInstanceUID=1.2.3;SeriesInstanceUID=4;"
        "InstanceNumber=;PatientName=;";
    const auto answer = [](const std::string& number) {
        return "(0008,0052)=IMAGE (0020,000d)=1.2.3 (0020,000e)=4 (0020,0013)=" + number;
    };
    EXPECT_EQ(find(all), (Answers{answer("12"), answer("12"), answer("12"), answer("")}));
    log.take();
    EXPECT_EQ(find(all + "SOPInstanceUID=3"), Answers{"(0008,0018)=3 " + answer("12")});
    EXPECT_EQ(log.take(), "image entry matches, responding 1.2.3/4/3\n");

    EXPECT_EQ(
        find("StudyInstanceUID=1.2.3;SOPInstanceUID=" + full_uid, 1, "IMAGE"),
        Answers{"(0008,0018)=" + full_uid + " (0008,0052)=IMAGE (0020,000d)=1.2.3 (0020,000e)=4"})
        << "a given level has the UIDs answered unasked";
    EXPECT_EQ(images("SeriesInstanceUID=4"), "5387");
    log.take();
    EXPECT_EQ(images(""), "53879") << "every series in its order";
    EXPECT_EQ(log.take().find("IMAGE level query without SERIES UID - enumerating.\n"), 0U);
    EXPECT_EQ(store.DeleteFile("1.2.3", "4", "3"), 0);
    EXPECT_EQ(images(""), "5879");
    write_file(index("4"), read_file(index("4")) + "6");
    EXPECT_EQ(find(all + "SOPInstanceUID=6"),
              Answers{"(0008,0018)=6 (0008,0052)=IMAGE (0020,000d)= (0020,000e)= (0020,0013)="})
        << "a fragment shows nothing of the record before it";
}

TEST_F(FindDataset, ASeriesDeletedDuringTheWalkIsPassedOver) {
    for (const char* series : {"1", "2", "3"}) write("1.2.3", series, "5");
    DcmDataset query;
    add(query, "StudyInstanceUID=1.2.3");
    void* handle = nullptr;
    const auto next = [&] {
        DcmDataset answer;
        DcmDataset* response = &answer;
        const int result = store.FindDataset(&handle, &query, &response, "IMAGE");
        OFString series;
        answer.findAndGetOFString(DCM_SeriesInstanceUID, series);
        return result == 0 ? std::string("series ") + series.c_str() : std::to_string(result);
    };
    EXPECT_EQ(next(), "series 1");
    EXPECT_EQ(in_child([&] { return store.DeleteFile("1.2.3", "2", "5"); }), 0);
    EXPECT_EQ(next(), "series 3");
    EXPECT_EQ(next(), "1");
    EXPECT_EQ(next(), "series 1");
    std::filesystem::remove(index("3"));
    EXPECT_EQ(next(), "-1") << "an index that is lost is not passed over";
    EXPECT_EQ(handle, nullptr);
}

TEST_F(FindDataset, QueriesThatCannotBeAnswered) {
    write("1.2.3", "4", "5");
    log.take();
    const struct {
        const char* keys;
        const char* level;
        int result;
        const char* message;
    } cases[] = {
        {"", nullptr, 1, "AIEE - QRL (null) is not STUDY, SERIES or IMAGE\n"},
        {"QueryRetrieveLevel=study", nullptr, 1,
         "AIEE - QRL study is not STUDY, SERIES or IMAGE\n"},
        {"QueryRetrieveLevel=STUDY", "FRAME", 1,
         "AIEE - QRL FRAME is not STUDY, SERIES or IMAGE\n"},
        {"", "SERIES", -1, "SERIES level query without STUDY UID unsupported.\n"},
        {"StudyInstanceUID=", "IMAGE", -1, "IMAGE level query without STUDY UID unsupported.\n"},
        {"StudyInstanceUID=9", "SERIES", -1, ""},
        {"StudyInstanceUID=9", "IMAGE", -1,
         "IMAGE level query without SERIES UID - enumerating.\n"},
        {"StudyInstanceUID=1.2.3;SeriesInstanceUID=9", "IMAGE", -1, ""},
        {"StudyInstanceUID=1.2.3;SeriesInstanceUID=4;SOPInstanceUID=9", "IMAGE", 1, ""},
        {"StudyInstanceUID=x/../study_1.2.3", "SERIES", -1, ""},
        {"StudyInstanceUID=1.2.3;SeriesInstanceUID=x/../series_4", "IMAGE", -1, ""},
    };
    // A directory that "/../" would lead through.
    std::filesystem::create_directories(directory.file("uid/E2/E7/study_1.2.3/series_x"));
    for (const auto& [keys, level, result, message] : cases) {
        EXPECT_EQ(find(keys, result, level), Answers{}) << keys;
        EXPECT_EQ(log.take(), message);
    }
    DcmDataset* response = nullptr;
    void* handle = nullptr;
    EXPECT_EQ(store.FindDataset(nullptr, dataset_of({}).get(), &response, "STUDY"), 1);
    EXPECT_EQ(log.take(), "LocalStore::FindDataset: No handle pointer.\n");
    EXPECT_EQ(store.FindDataset(&handle, dataset_of({}).get(), nullptr, "STUDY"), 1);
    EXPECT_EQ(handle, nullptr);
}

TEST_F(FindDataset, AnIterationCanBeGivenUpAndKeysBeAddedToADataset) {
    write("1.2.3", "4", "5");
    write("1.2.3", "4", "6");
    DcmDataset query;
    add(query, "StudyInstanceUID=1.2.3");
    for (const char* level : {"STUDY", "SERIES", "IMAGE"}) {
        DcmDataset answer;
        add(answer, "PatientName=KEPT;StudyInstanceUID=1");
        DcmDataset* response = &answer;
        const std::ptrdiff_t descriptors = open_descriptors();
        void* handle = nullptr;
        EXPECT_EQ(store.FindDataset(&handle, &query, &response, level), 0);
        EXPECT_EQ(response, &answer);
        EXPECT_NE(text_of(answer).find("(0010,0010)=KEPT (0020,000d)=1.2.3"), std::string::npos);
        EXPECT_GT(open_descriptors(), descriptors);
        for (int i = 0; i < 2; ++i) LocalStore::EndFind(&handle);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
}

}  // namespace
