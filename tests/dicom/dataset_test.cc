#include "dicom/dataset.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcelem.h"

#include "tests/dicom/trace_capture.h"

namespace {

class Dataset : public testing::Test {
  protected:
    DcmElement* element(const DcmTagKey& tag) {
        DcmElement* found = nullptr;
        return set->findAndGetElement(tag, found).good() ? found : nullptr;
    }

    std::unique_ptr<DcmDataset> set{DCMTK_Dataset_Create()};
    TraceCapture trace;
};

TEST_F(Dataset, SameTagTwiceLeavesTheSecondValue) {
    EXPECT_EQ(DCMTK_Key_Add(set.get(), 0x0010, 0x0020, "first"), 0);
    EXPECT_EQ(DCMTK_Key_Add(set.get(), 0x0010, 0x0010, "NAME^A"), 0);
    EXPECT_EQ(DCMTK_Key_Add(set.get(), 0x0010, 0x0020, "second\\third"), 0);
    EXPECT_EQ(set->card(), 2U);
    EXPECT_STREQ(DCMTK_getTagString(set.get(), DCM_PatientID), "second\\third");
    EXPECT_EQ(element(DCM_PatientName)->ident(), EVR_PN);
    EXPECT_EQ(trace.take(), "");
}

TEST_F(Dataset, EmptyAndNullValuesMakeEmptyElements) {
    for (const char* value : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(DCMTK_Key_Add(set.get(), 0x0008, 0x0020, value), 0);
        ASSERT_NE(element(DCM_StudyDate), nullptr);
        EXPECT_EQ(element(DCM_StudyDate)->getLength(), 0U);
        EXPECT_EQ(DCMTK_getTagString(set.get(), DCM_StudyDate), nullptr);
        EXPECT_EQ(trace.take(), "") << "an empty attribute is not a failed look-up";
    }
}

TEST_F(Dataset, GivenVrReplacesThatOfTheDictionary) {
    struct Case {
        const char* vr;
        const char* value;
        int result;
        DcmEVR made;
        const char* traced;
    };
    const Case cases[] = {
        {"LO", "text", 0, EVR_LO, ""},
        {"US", "513", 0, EVR_US, ""},
        {"US", "no number", -4, EVR_UNKNOWN, "F:DCMTK_Key_AddVR: Can't Put Value in Set.\n"},
        {"ZZ", nullptr, 0, EVR_UNKNOWN, ""},
        {"?!", nullptr, 0, EVR_UNKNOWN2B, ""},
        {"na", nullptr, -3, EVR_UNKNOWN, "F:DCMTK_Key_AddVR: Can't Create Element.\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.vr);
        set->clear();
        EXPECT_EQ(DCMTK_Key_AddVR(set.get(), 0x0009, 0x1001, c.value, c.vr), c.result);
        EXPECT_EQ(trace.take(), c.traced);
        DcmElement* const made = element(DcmTagKey(0x0009, 0x1001));
        ASSERT_EQ(made != nullptr, c.result == 0);
        if (made != nullptr) {
            EXPECT_EQ(made->getTag().getEVR(), c.made);
        }
    }
}

TEST_F(Dataset, RefusesWhatIsNoAttribute) {
    EXPECT_EQ(DCMTK_Key_Add(nullptr, 0x0010, 0x0010, "A"), -1);
    EXPECT_EQ(trace.take(), "F:DCMTK_Key_AddVR: Set is NULL.\n");
    EXPECT_EQ(DCMTK_Key_Add(set.get(), 0x0009, 0x1001, "A"), -2) << "not in the dictionary";
    EXPECT_EQ(DCMTK_Key_Add(set.get(), 0x10010, 0x0010, "A"), -2) << "group beyond 16 bits";
    EXPECT_EQ(DCMTK_Key_Add(set.get(), 0x0010, -1, "A"), -2);
    EXPECT_EQ(DCMTK_Key_Add(set.get(), 0x0008, 0x1115, "A"), -4) << "a sequence has no text";
    EXPECT_EQ(trace.take(), "F:DCMTK_Key_AddVR: Can't Put Value in Set.\n");
    EXPECT_TRUE(set->isEmpty());
}

TEST_F(Dataset, TagStringLooksAtTheTopLevelOnly) {
    DcmItem* item = nullptr;
    ASSERT_TRUE(set->findOrCreateSequenceItem(DCM_ReferencedSeriesSequence, item, -2).good());
    ASSERT_TRUE(item->putAndInsertString(DCM_SeriesInstanceUID, "1.2.3").good());
    EXPECT_EQ(DCMTK_getTagString(set.get(), DCM_SeriesInstanceUID), nullptr);
    EXPECT_EQ(trace.take(), "I:DCMTK_getTagString: failure\n");
    EXPECT_STREQ(DCMTK_getTagString(item, DCM_SeriesInstanceUID), "1.2.3");
    EXPECT_EQ(DCMTK_getTagString(set.get(), DCM_ReferencedSeriesSequence), nullptr);
    EXPECT_EQ(DCMTK_getTagString(nullptr, DCM_SeriesInstanceUID), nullptr);
}

TEST_F(Dataset, NumericFieldsReportTheirLengthInBytes) {
    const Uint16 words[] = {1, 0x0203, 0xffff};
    const Uint8 bytes[] = {7, 8};
    ASSERT_TRUE(
        set->putAndInsertUint16Array(DCM_RedPaletteColorLookupTableDescriptor, words, 3).good());
    ASSERT_TRUE(set->putAndInsertUint8Array(DCM_FileMetaInformationVersion, bytes, 2).good());
    int length = -1;
    const Uint16* const found =
        DCMTK_getUnit16Field(set.get(), DCM_RedPaletteColorLookupTableDescriptor, &length);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(std::basic_string<Uint16>(found, 3), std::basic_string<Uint16>(words, 3));
    EXPECT_EQ(length, 6);
    const Uint8* const octets =
        DCMTK_getUnit8Field(set.get(), DCM_FileMetaInformationVersion, nullptr);
    ASSERT_NE(octets, nullptr);
    EXPECT_EQ(octets[1], 8);
    EXPECT_EQ(trace.take(), "");

    EXPECT_EQ(DCMTK_getUnit16Field(set.get(), DCM_Rows, &length), nullptr);
    EXPECT_EQ(DCMTK_getUnit8Field(set.get(), DCM_Rows, &length), nullptr);
    EXPECT_EQ(DCMTK_getUnit16Field(set.get(), DCM_FileMetaInformationVersion, &length), nullptr);
    EXPECT_EQ(DCMTK_getUnit8Field(set.get(), DCM_RedPaletteColorLookupTableDescriptor, &length),
              nullptr);
    EXPECT_EQ(length, 6) << "a failure leaves the length alone";
    EXPECT_EQ(trace.take(),
              "I:DCMTK_getUnit16Field: find failure\nI:DCMTK_getUnit8Field: find failure\n"
              "I:DCMTK_getUnit16Field: getUint16Array failure\n"
              "I:DCMTK_getUnit8Field: getUint8Array failure\n");
}

}  // namespace
