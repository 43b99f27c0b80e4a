// What no peer can bring about over the wire.
#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcuid.h"

#include "dicom/association.h"
#include "dicom/character_sets.h"
#include "dicom/dataset.h"
#include "dicom/presentation_contexts.h"

namespace {

TEST(Parameters, ProposeAtMost128ContextsAndKeepEarlierAnswers) {
    const tarvo::ParametersOwner params(
        DCMTK_params_init(nullptr, nullptr, nullptr, std::string(500, 'h').c_str(), false, 4096));
    // Of a greater number the toolkit sees the low byte: 257 would be proposed as 1.
    for (const unsigned long id : {257UL, 65537UL, 256UL, 2UL, 0UL}) {
        EXPECT_TRUE(DCMTK_params_add_std_PC(params.get(), id, "1.2").bad()) << id;
    }
    const char* ct = UID_CTImageStorage;
    const char* odd_syntax = "1.2.826.0.1.3680043.2.1143.99.2";
    const char* implicit_le = UID_LittleEndianImplicitTransferSyntax;
    EXPECT_TRUE(ASC_addPresentationContext(params.get(), 1, ct, &implicit_le, 1).good());
    EXPECT_TRUE(ASC_addPresentationContext(params.get(), 3, ct, &odd_syntax, 1).good());
    EXPECT_TRUE(ASC_addPresentationContext(params.get(), 5, "1.2.9", &odd_syntax, 1).good());
    const char* classes[] = {ct};
    EXPECT_TRUE(DCMTK_params_accept_std_PCs(params.get(), classes, 1).good());
    for (const char* preferred : {odd_syntax, implicit_le}) {
        EXPECT_TRUE(
            DCMTK_params_accept_unknown_PCs(params.get(), &preferred, 1, ASC_SC_ROLE_DEFAULT)
                .good());
    }
    std::vector<int> reasons;
    T_ASC_PresentationContext context;
    for (int i = 0; ASC_getPresentationContext(params.get(), i, &context).good(); ++i) {
        reasons.push_back(context.resultReason);
    }
    EXPECT_EQ(reasons, (std::vector<int>{ASC_P_ACCEPTANCE, ASC_P_TRANSFERSYNTAXESNOTSUPPORTED,
                                         ASC_P_ACCEPTANCE}));
}

// Others wait meanwhile: the study index is locked.
TEST(CharacterSets, MegabytesOfEscapeSequencesTakeNoTime) {
    std::string text;
    for (int i = 0; i < 6'000'000; ++i) text += "\x1b(B";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_STREQ(DCMTK_convertSCS(text.c_str(), "\\ISO 2022 IR 6", 1, "UTF-8"), "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(DCMTK_convertSCS("a", "ISO_IR 100", 0, "NO SUCH SET"), nullptr);
}

TEST(Dataset, PutsAndReplacesAttributes) {
    DcmDataset set;
    EXPECT_EQ(DCMTK_Key_Add(&set, 0x0010, 0x0020, "old"), 0);
    EXPECT_EQ(DCMTK_Key_AddVR(&set, 0x0010, 0x0020, "a\\b", "LO"), 0);
    EXPECT_STREQ(DCMTK_getTagString(&set, DCM_PatientID), "a\\b");
    EXPECT_EQ(DCMTK_Key_Add(&set, 0x0020, 0x000D, "=CTImageStorage"), 0);
    EXPECT_STREQ(DCMTK_getTagString(&set, DCM_StudyInstanceUID), "=CTImageStorage");
    EXPECT_EQ(DCMTK_Key_Add(nullptr, 0x0010, 0x0020, "A"), -1);
    EXPECT_EQ(DCMTK_Key_Add(&set, 0x0009, 0x1004, "not in the dictionary"), -2);
    EXPECT_EQ(DCMTK_Key_Add(&set, 0x10010, 0x0010, "beyond 16 bits"), -2);
    EXPECT_EQ(DCMTK_Key_AddVR(&set, 0x0009, 0x1005, "no VR", "na"), -3);
    EXPECT_EQ(DCMTK_Key_Add(&set, 0x0008, 0x1115, "a sequence has no text"), -4);
    EXPECT_EQ(set.card(), 2U) << "replaced, not doubled; nothing left of the failures";
    const Uint16 words[] = {1, 0x0203, 0xffff};
    EXPECT_TRUE(set.putAndInsertUint16Array(DCM_Rows, words, 3).good());
    int length = -1;
    EXPECT_EQ(DCMTK_getUnit16Field(&set, DCM_Rows, &length)[2], 0xffff);
    EXPECT_EQ(length, 6);
    EXPECT_EQ(DCMTK_getUnit8Field(&set, DCM_Rows, &length), nullptr);
}

}  // namespace
