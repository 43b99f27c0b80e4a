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
                 std::vector<const char*> offered) {
        ASSERT_TRUE(ASC_addPresentationContext(params.get(), id, sop_class, offered.data(),
                                               static_cast<int>(offered.size()))
                        .good());
    }
    OFCondition accept_unknown(std::vector<const char*> preferred,
                               T_ASC_SC_ROLE role = ASC_SC_ROLE_DEFAULT) {
        return DCMTK_params_accept_unknown_PCs(params.get(), preferred.data(),
                                               static_cast<int>(preferred.size()), role);
    }
    // Of each context in turn: the accepted transfer syntax, or "abstract" or "transfer" for the
    // reason of the refusal.
    std::vector<std::string> answers() {
        std::vector<std::string> all;
        T_ASC_PresentationContext context;
        for (int i = 0; ASC_getPresentationContext(params.get(), i, &context).good(); ++i) {
            const auto reason = context.resultReason;
            if (reason == ASC_P_ACCEPTANCE) all.emplace_back(context.acceptedTransferSyntax);
            if (reason == ASC_P_ABSTRACTSYNTAXNOTSUPPORTED) all.emplace_back("abstract");
            if (reason == ASC_P_TRANSFERSYNTAXESNOTSUPPORTED) all.emplace_back("transfer");
        }
        return all;
    }
    using Answers = std::vector<std::string>;

    tarvo::ParametersOwner params{DCMTK_params_init(nullptr, nullptr, nullptr, "h:1", false, 4096)};
};

TEST_F(PresentationContexts, StandardListIsProposedInItsOrder) {
    int count = 0;
    const char** const list = DCMTK_get_STD_TS(count);
    ASSERT_EQ(count, 30);
    EXPECT_EQ(std::set<std::string>(list, list + count).size(), 30U);
    for (int i = 0; i < count; ++i) EXPECT_NE(dcmFindNameOfUID(list[i]), nullptr) << list[i];
    EXPECT_STREQ(list[0], explicit_le);
    EXPECT_STREQ(list[1], explicit_be);
    EXPECT_STREQ(list[2], implicit_le);
    EXPECT_STREQ(list[4], UID_DeflatedExplicitVRLittleEndianTransferSyntax);
    EXPECT_STREQ(list[26], UID_JPEGProcess14SV1TransferSyntax);
    EXPECT_STREQ(list[29], mpeg2);
    ASSERT_TRUE(DCMTK_params_add_std_PC(params.get(), 1, ct).good());
    T_ASC_PresentationContext proposed;
    ASSERT_TRUE(ASC_getPresentationContext(params.get(), 0, &proposed).good());
    ASSERT_EQ(proposed.transferSyntaxCount, 30);
    for (int i = 0; i < count; ++i) EXPECT_STREQ(proposed.proposedTransferSyntaxes[i], list[i]);
}

TEST_F(PresentationContexts, NoMoreThan128CanBeProposed) {
    // Of a greater number the toolkit sees the low byte: 257 would be proposed as 1.
    for (const unsigned long id : {257UL, 65537UL, 256UL, 2UL, 0UL}) {
        EXPECT_TRUE(DCMTK_params_add_std_PC(params.get(), id, "1.2").bad()) << id;
        EXPECT_EQ(trace.take(), "F:DCMTK_params_add_std_PC: Failed for AS 1.2.\n");
    }
    for (unsigned long id = 1; id < 256; id += 2) {
        ASSERT_TRUE(DCMTK_params_add_std_PC(params.get(), id, ct).good()) << id;
    }
    EXPECT_TRUE(DCMTK_params_add_std_PC(params.get(), 257, mr).bad());
    EXPECT_EQ(ASC_countPresentationContexts(params.get()), 128);
}

TEST_F(PresentationContexts, EarliestOfferOfTheStandardListIsAccepted) {
    propose(1, ct, {implicit_le, explicit_le, explicit_be});
    propose(3, ct, {implicit_le, explicit_be});
    propose(5, ct, {mpeg2, UID_RLELosslessTransferSyntax, implicit_le});
    propose(7, mr, {private_syntax, mpeg2, jpeg_ls});
    propose(9, mr, {private_syntax});
    const char* classes[] = {UID_VerificationSOPClass, ct};
    ASSERT_TRUE(DCMTK_params_accept_std_PCs(params.get(), classes, 2).good());
    EXPECT_EQ(answers(), (Answers{explicit_le, explicit_be, implicit_le, "abstract", "abstract"}));
    ASSERT_TRUE(DCMTK_params_accept_std_PC(params.get(), mr).good());
    EXPECT_EQ(answers(), (Answers{explicit_le, explicit_be, implicit_le, jpeg_ls, "transfer"}));
}

TEST_F(PresentationContexts, UnknownClassesTakeTheFirstPreferenceThatIsOffered) {
    propose(1, private_class, {implicit_le, jpeg_ls, explicit_be});
    propose(3, private_class, {mpeg2, implicit_le});
    propose(5, private_class, {private_syntax});
    propose(7, ct, {implicit_le, explicit_le});  // known to the dictionary
    ASSERT_TRUE(accept_unknown({explicit_le, explicit_be, implicit_le}).good());
    EXPECT_EQ(answers(), (Answers{explicit_be, implicit_le, "transfer", "abstract"}));
}

TEST_F(PresentationContexts, UnknownPassKeepsEarlierAnswers) {
    propose(1, ct, {implicit_le});
    propose(3, mr, {private_syntax});
    propose(5, private_class, {private_syntax});
    const char* classes[] = {ct, mr};
    ASSERT_TRUE(DCMTK_params_accept_std_PCs(params.get(), classes, 2).good());
    EXPECT_EQ(answers(), (Answers{implicit_le, "transfer", "abstract"}));
    ASSERT_TRUE(accept_unknown({explicit_le, implicit_le}).good());
    EXPECT_EQ(answers(), (Answers{implicit_le, "transfer", "transfer"}));
    ASSERT_TRUE(accept_unknown({private_syntax}).good());
    ASSERT_TRUE(accept_unknown({explicit_le}).good());
    EXPECT_EQ(answers(), (Answers{implicit_le, "transfer", private_syntax}));
}

TEST_F(PresentationContexts, FailuresStopTheAnswering) {
    const char* classes[] = {"1.2", "1.3", "1.4"};
    EXPECT_TRUE(DCMTK_params_accept_std_PCs(params.get(), classes, 3).bad()) << "none proposed";
    EXPECT_EQ(trace.take(), "F:DCMTK_params_add_std_PCs: Failed for AS 1.2..1.4.\n");
    propose(1, ct, {implicit_le});
    propose(3, private_class, {implicit_le});
    EXPECT_TRUE(accept_unknown({explicit_le, implicit_le}, ASC_SC_ROLE_SCP).bad());
    EXPECT_EQ(trace.take(),
              "F:findPresentationContextID: Head is NULL.\n"
              "F:DCMTK_params_accept_unknown_PC: accepted, but ASC_accept does not work.\n"
              "F:DCMTK_params_accept_unknown_PCs: bad status in TS 1.2.840.10008.1.2\n");
}

}  // namespace
