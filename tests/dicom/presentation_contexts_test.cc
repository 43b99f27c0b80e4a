#include "dicom/presentation_contexts.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcuid.h"

#include "dicom/association.h"
#include "tests/dicom/trace_capture.h"

namespace {

constexpr const char* implicit_le = UID_LittleEndianImplicitTransferSyntax;
constexpr const char* explicit_le = UID_LittleEndianExplicitTransferSyntax;
constexpr const char* explicit_be = UID_BigEndianExplicitTransferSyntax;
constexpr const char* jpeg_ls = UID_JPEGLSLosslessTransferSyntax;
constexpr const char* mpeg2 = UID_MPEG2MainProfileAtMainLevelTransferSyntax;
constexpr const char* ct = UID_CTImageStorage;
constexpr const char* mr = UID_MRImageStorage;
constexpr const char* private_class = "1.2.826.0.1.3680043.2.1143.99.1";
constexpr const char* private_syntax = "1.2.826.0.1.3680043.2.1143.99.2";

class PresentationContexts : public testing::Test {
  protected:
    void propose(T_ASC_PresentationContextID id, const char* sop_class,
                 std::vector<const char*> transfer_syntaxes) {
        ASSERT_TRUE(ASC_addPresentationContext(params.get(), id, sop_class,
                                               transfer_syntaxes.data(),
                                               static_cast<int>(transfer_syntaxes.size()))
                        .good());
    }

    // The transfer syntax when accepted, "abstract" or "transfer" for the reason when refused.
    std::string answer(T_ASC_PresentationContextID id) {
        T_ASC_PresentationContext context;
        if (ASC_findAcceptedPresentationContext(params.get(), id, &context).good()) {
            return context.acceptedTransferSyntax;
        }
        for (int i = 0; i < ASC_countPresentationContexts(params.get()); ++i) {
            EXPECT_TRUE(ASC_getPresentationContext(params.get(), i, &context).good());
            if (context.presentationContextID != id) continue;
            if (context.resultReason == ASC_P_ABSTRACTSYNTAXNOTSUPPORTED) return "abstract";
            if (context.resultReason == ASC_P_TRANSFERSYNTAXESNOTSUPPORTED) return "transfer";
        }
        return "none";
    }

    OFCondition accept_unknown(std::vector<const char*> transfer_syntaxes,
                               T_ASC_SC_ROLE role = ASC_SC_ROLE_DEFAULT) {
        return DCMTK_params_accept_unknown_PCs(params.get(), transfer_syntaxes.data(),
                                               static_cast<int>(transfer_syntaxes.size()), role);
    }

    tarvo::ParametersOwner params{DCMTK_params_init(nullptr, nullptr, nullptr, "h:1", false, 4096)};
    TraceCapture trace;
};

TEST_F(PresentationContexts, StandardListIsProposedInItsOrder) {
    int count = 0;
    const char** const list = DCMTK_get_STD_TS(count);
    ASSERT_EQ(count, 30);
    EXPECT_EQ(std::set<std::string>(list, list + count).size(), 30U);
    EXPECT_STREQ(list[0], explicit_le);
    EXPECT_STREQ(list[1], explicit_be);
    EXPECT_STREQ(list[2], implicit_le);
    EXPECT_STREQ(list[3], UID_RLELosslessTransferSyntax);
    EXPECT_STREQ(list[4], UID_DeflatedExplicitVRLittleEndianTransferSyntax);
    EXPECT_STREQ(list[9], UID_JPEGProcess1TransferSyntax);
    EXPECT_STREQ(list[26], UID_JPEGProcess14SV1TransferSyntax);
    EXPECT_STREQ(list[29], mpeg2);
    for (int i = 0; i < count; ++i) EXPECT_NE(dcmFindNameOfUID(list[i]), nullptr) << list[i];

    ASSERT_TRUE(DCMTK_params_add_std_PC(params.get(), 1, ct).good());
    T_ASC_PresentationContext proposed;
    ASSERT_TRUE(ASC_getPresentationContext(params.get(), 0, &proposed).good());
    ASSERT_EQ(proposed.transferSyntaxCount, 30);
    for (int i = 0; i < count; ++i) EXPECT_STREQ(proposed.proposedTransferSyntaxes[i], list[i]);
    EXPECT_EQ(proposed.proposedRole, ASC_SC_ROLE_DEFAULT);
}

TEST_F(PresentationContexts, NoMoreThan128CanBeProposed) {
    // Of a greater number the toolkit sees the low byte: 257 would be proposed as 1.
    for (const unsigned long id : {257UL, 65537UL, 256UL, 2UL, 0UL}) {
        EXPECT_TRUE(DCMTK_params_add_std_PC(params.get(), id, mr).bad()) << id;
        EXPECT_EQ(trace.take(),
                  std::string("F:DCMTK_params_add_std_PC: Failed for AS ") + mr + ".\n");
    }
    for (unsigned long id = 1; id < 256; id += 2) {
        ASSERT_TRUE(DCMTK_params_add_std_PC(params.get(), id, ct).good()) << id;
    }
    EXPECT_TRUE(DCMTK_params_add_std_PC(params.get(), 257, mr).bad());
    EXPECT_TRUE(DCMTK_params_add_std_PC(params.get(), 255, mr).bad()) << "taken";
    EXPECT_EQ(ASC_countPresentationContexts(params.get()), 128);
}

TEST_F(PresentationContexts, EarliestOfferOfTheStandardListIsAccepted) {
    propose(1, ct, {implicit_le, explicit_le, explicit_be});
    propose(3, ct, {implicit_le, explicit_be});
    propose(5, ct, {mpeg2, UID_RLELosslessTransferSyntax, implicit_le});
    propose(7, mr, {private_syntax, mpeg2, jpeg_ls});
    propose(9, mr, {private_syntax});
    propose(11, private_class, {implicit_le});
    const char* classes[] = {UID_VerificationSOPClass, mr, ct};
    ASSERT_TRUE(DCMTK_params_accept_std_PCs(params.get(), classes, 3).good());
    EXPECT_EQ(answer(1), explicit_le);
    EXPECT_EQ(answer(3), explicit_be);
    EXPECT_EQ(answer(5), implicit_le);
    EXPECT_EQ(answer(7), jpeg_ls);
    EXPECT_EQ(answer(9), "transfer");
    EXPECT_EQ(answer(11), "abstract");
    EXPECT_EQ(trace.take(), "");
}

TEST_F(PresentationContexts, EachCallAddsToWhatEarlierOnesAccepted) {
    propose(1, ct, {implicit_le});
    propose(3, mr, {implicit_le});
    ASSERT_TRUE(DCMTK_params_accept_std_PC(params.get(), ct).good());
    EXPECT_EQ(answer(3), "abstract");
    ASSERT_TRUE(DCMTK_params_accept_std_PC(params.get(), mr).good());
    EXPECT_EQ(answer(1), implicit_le);
    EXPECT_EQ(answer(3), implicit_le);
}

TEST_F(PresentationContexts, NothingProposedIsAnError) {
    const char* classes[] = {ct, UID_VerificationSOPClass, mr};
    EXPECT_TRUE(DCMTK_params_accept_std_PCs(params.get(), classes, 3).bad());
    EXPECT_EQ(trace.take(),
              std::string("F:DCMTK_params_add_std_PCs: Failed for AS ") + ct + ".." + mr + ".\n");
    EXPECT_TRUE(accept_unknown({implicit_le}).good());
}

TEST_F(PresentationContexts, UnknownClassesTakeTheFirstPreferenceThatIsOffered) {
    propose(1, private_class, {implicit_le, jpeg_ls, explicit_be});
    propose(3, private_class, {mpeg2, implicit_le});
    propose(5, private_class, {private_syntax});
    propose(7, ct, {implicit_le, explicit_le});
    ASSERT_TRUE(accept_unknown({explicit_le, explicit_be, implicit_le}).good());
    EXPECT_EQ(answer(1), explicit_be);
    EXPECT_EQ(answer(3), implicit_le);
    EXPECT_EQ(answer(5), "transfer");
    EXPECT_EQ(answer(7), "abstract") << "the dictionary knows it";
    EXPECT_EQ(trace.take(), "") << "the first context was accepted: the list was never empty";
}

TEST_F(PresentationContexts, UnknownPassKeepsEarlierAnswers) {
    propose(1, ct, {implicit_le});
    propose(3, mr, {private_syntax});
    propose(5, private_class, {private_syntax});
    const char* classes[] = {ct, mr};
    ASSERT_TRUE(DCMTK_params_accept_std_PCs(params.get(), classes, 2).good());
    ASSERT_EQ(answer(3), "transfer");
    ASSERT_EQ(answer(5), "abstract");
    ASSERT_TRUE(accept_unknown({explicit_le, implicit_le}).good());
    EXPECT_EQ(answer(1), implicit_le) << "an acceptance is never undone";
    EXPECT_EQ(answer(3), "transfer") << "the reason is kept";
    EXPECT_EQ(answer(5), "transfer");
    ASSERT_TRUE(accept_unknown({private_syntax}).good());
    EXPECT_EQ(answer(5), private_syntax) << "a refusal can still turn into an acceptance";
    ASSERT_TRUE(accept_unknown({explicit_le}).good());
    EXPECT_EQ(answer(5), private_syntax) << "and that stands as well";
}

TEST_F(PresentationContexts, UnknownPassTracesAnEmptyListAndARoleThatCannotBe) {
    propose(1, ct, {implicit_le});
    propose(3, private_class, {implicit_le});
    EXPECT_TRUE(accept_unknown({explicit_le, implicit_le}, ASC_SC_ROLE_SCP).bad());
    EXPECT_EQ(trace.take(),
              "F:findPresentationContextID: Head is NULL.\n"
              "F:DCMTK_params_accept_unknown_PC: accepted, but ASC_accept does not work.\n"
              "F:DCMTK_params_accept_unknown_PCs: bad status in TS 1.2.840.10008.1.2\n");
    EXPECT_EQ(answer(1), "abstract");
}

}  // namespace
