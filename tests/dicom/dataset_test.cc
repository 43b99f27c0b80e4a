#include "dicom/dataset.h"

#include <gtest/gtest.h>

#include <memory>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcelem.h"

#include "tests/dicom/trace_capture.h"

namespace {

TEST(Dataset, PutsAndReplacesAttributes) {
    struct Case {
        int group, element;
        const char* value;
        const char* vr;
        int result;
        DcmEVR made;
        const char* text;
        const char* traced;
    };
    const char* const refused = "F:DCMTK_Key_AddVR: Can't Put Value in Set.\n";
    const Case cases[] = {
        {0x0010, 0x0020, "a\\b", nullptr, 0, EVR_LO, "a\\b", ""},
        {0x0010, 0x0020, "replaced", nullptr, 0, EVR_LO, "replaced", ""},
        {0x0010, 0x0020, "", nullptr, 0, EVR_LO, nullptr, ""},
        {0x0008, 0x0020, nullptr, nullptr, 0, EVR_DA, nullptr, ""},
        {0x0020, 0x000D, "=CTImageStorage", nullptr, 0, EVR_UI, "=CTImageStorage", ""},
        {0x0020, 0x000D, "=nobody", nullptr, 0, EVR_UI, "=nobody", ""},
        {0x0009, 0x1001, "text", "LO", 0, EVR_LO, "text", ""},
        {0x0009, 0x1002, nullptr, "ZZ", 0, EVR_UNKNOWN, nullptr, ""},
        {0x0009, 0x1003, nullptr, "?!", 0, EVR_UNKNOWN2B, nullptr, ""},
        {0x0009, 0x1004, "not in the dictionary", nullptr, -2, EVR_UNKNOWN, nullptr, ""},
        {0x10010, 0x0010, "beyond 16 bits", nullptr, -2, EVR_UNKNOWN, nullptr, ""},
        {0x0010, -1, "negative", nullptr, -2, EVR_UNKNOWN, nullptr, ""},
        {0x0009, 0x1005, nullptr, "na", -3, EVR_UNKNOWN, nullptr,
         "F:DCMTK_Key_AddVR: Can't Create Element.\n"},
        {0x0009, 0x1006, "no number", "US", -4, EVR_UNKNOWN, nullptr, refused},
        {0x0008, 0x1115, "a sequence has no text", nullptr, -4, EVR_UNKNOWN, nullptr, refused},
    };
    const std::unique_ptr<DcmDataset> set(DCMTK_Dataset_Create());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value != nullptr ? c.value : "null");
        trace.take();
        EXPECT_EQ(DCMTK_Key_AddVR(set.get(), c.group, c.element, c.value, c.vr), c.result);
        EXPECT_EQ(trace.take(), c.traced);
        if (c.result != 0) continue;
        const DcmTagKey tag(static_cast<Uint16>(c.group), static_cast<Uint16>(c.element));
        DcmElement* made = nullptr;
        ASSERT_TRUE(set->findAndGetElement(tag, made).good());
        EXPECT_EQ(made->getTag().getEVR(), c.made);
        EXPECT_STREQ(DCMTK_getTagString(set.get(), tag), c.text);
    }
    EXPECT_EQ(set->card(), 6U) << "replaced, not doubled; nothing left of the failures";
    EXPECT_EQ(DCMTK_Key_Add(nullptr, 0x0010, 0x0010, "A"), -1);
    EXPECT_EQ(trace.take(), "F:DCMTK_Key_AddVR: Set is NULL.\n");
}

TEST(Dataset, TagStringLooksAtTheTopLevelOnly) {
    DcmDataset set;
    DcmItem* item = nullptr;
    ASSERT_TRUE(set.findOrCreateSequenceItem(DCM_ReferencedSeriesSequence, item, -2).good());
    ASSERT_EQ(DCMTK_Key_Add(&set, 0x0008, 0x0020, ""), 0);
    ASSERT_TRUE(item->putAndInsertString(DCM_SeriesInstanceUID, "1.2.3").good());
    trace.take();
    EXPECT_STREQ(DCMTK_getTagString(item, DCM_SeriesInstanceUID), "1.2.3");
    EXPECT_EQ(DCMTK_getTagString(&set, DCM_StudyDate), nullptr);
    EXPECT_EQ(trace.take(), "") << "an empty attribute is not a failed look-up";
    EXPECT_EQ(DCMTK_getTagString(&set, DCM_SeriesInstanceUID), nullptr);
    EXPECT_EQ(trace.take(), "I:DCMTK_getTagString: failure\n");
    EXPECT_EQ(DCMTK_getTagString(&set, DCM_ReferencedSeriesSequence), nullptr);
    EXPECT_EQ(DCMTK_getTagString(nullptr, DCM_SeriesInstanceUID), nullptr);
}

TEST(Dataset, NumericFieldsReportTheirLengthInBytes) {
    DcmDataset set;
    const Uint16 words[] = {1, 0x0203, 0xffff};
    const Uint8 bytes[] = {7, 8};
    const auto& table = DCM_RedPaletteColorLookupTableDescriptor;
    const auto& version = DCM_FileMetaInformationVersion;
    ASSERT_TRUE(set.putAndInsertUint16Array(table, words, 3).good());
    ASSERT_TRUE(set.putAndInsertUint8Array(version, bytes, 2).good());
    int length = -1;
    EXPECT_EQ(DCMTK_getUnit16Field(&set, table, &length)[2], 0xffff);
    EXPECT_EQ(length, 6);
    EXPECT_EQ(DCMTK_getUnit8Field(&set, version, nullptr)[1], 8);
    EXPECT_EQ(DCMTK_getUnit16Field(&set, DCM_Rows, &length), nullptr);
    EXPECT_EQ(DCMTK_getUnit8Field(&set, table, &length), nullptr);
    EXPECT_EQ(length, 6) << "a failure leaves the length alone";
}

}  // namespace
