// What the server never does as a user of services: its own companion programs do.
#include "dicom/association.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcuid.h"
#include "dcmtk/dcmnet/cond.h"
#include "dcmtk/dcmnet/dul.h"

#include "dicom/character_sets.h"
#include "dicom/dataset.h"
#include "dicom/network.h"
#include "dicom/presentation_contexts.h"
#include "dicom/service_provider.h"
#include "dicom/service_user.h"
#include "tests/support/test_helpers.h"

namespace {

using tarvo::test::exit_code;
using tarvo::test::start_child;

constexpr const char* ct = UID_CTImageStorage;
constexpr const char* find_model = UID_FINDStudyRootQueryRetrieveInformationModel;
constexpr const char* move_model = UID_MOVEStudyRootQueryRetrieveInformationModel;

// What the other side of an association does, and how its process ends.
enum Peer { serves, rejects, leaves, saw_release = 10, saw_abort, failed };

void answer_find(void* /*data*/, OFBool /*cancelled*/, T_DIMSE_C_FindRQ* /*request*/,
                 DcmDataset* identifier, int count, T_DIMSE_C_FindRSP* response, DcmDataset** match,
                 DcmDataset** /*detail*/) {
    response->DimseStatus = count > 2 ? STATUS_Success : STATUS_Pending;
    if (count <= 2) *match = new DcmDataset(*identifier);
}

void answer_move(void* /*data*/, OFBool /*cancelled*/, T_DIMSE_C_MoveRQ* request,
                 DcmDataset* /*identifier*/, int count, T_DIMSE_C_MoveRSP* response,
                 DcmDataset** /*detail*/, DcmDataset** /*failed*/) {
    const bool expected = request->MoveDestination == std::string("DESTINATION_AET!");
    response->NumberOfCompletedSubOperations = static_cast<DIC_US>(count);
    response->DimseStatus = count > 2 || !expected ? STATUS_Success : STATUS_Pending;
}

OFCondition answer(T_ASC_Association* association, T_DIMSE_Message& message,
                   T_ASC_PresentationContextID id) {
    switch (message.CommandField) {
        case DIMSE_C_ECHO_RQ:
            return DCMTK_SCP_echo(association, &message, id);
        case DIMSE_C_STORE_RQ:
            return DCMTK_SCP_store(association, &message, id, nullptr, nullptr);
        case DIMSE_C_FIND_RQ:
            return DCMTK_SCP_find(association, &message, id, answer_find, nullptr);
        default:
            return DCMTK_SCP_move(association, &message, id, answer_move, nullptr);
    }
}

Peer serve(T_ASC_Association* association) {
    for (;;) {
        T_DIMSE_Message message;
        T_ASC_PresentationContextID id = 0;
        const OFCondition received =
            DIMSE_receiveCommand(association, DIMSE_NONBLOCKING, 10, &id, &message, nullptr);
        if (received == DUL_PEERABORTEDASSOCIATION) return saw_abort;
        if (received == DUL_PEERREQUESTEDRELEASE) {
            return ASC_acknowledgeRelease(association).good() ? saw_release : failed;
        }
        if (received.bad() || answer(association, message, id).bad()) return failed;
    }
}

Peer take_association(T_ASC_Network* network, Peer does) {
    ::alarm(20);
    T_ASC_Association* association = nullptr;
    if (ASC_receiveAssociation(network, &association, 16384, nullptr, nullptr, OFFalse, DUL_NOBLOCK,
                               10)
            .bad()) {
        return failed;
    }
    const T_ASC_RejectParameters reason{ASC_RESULT_REJECTEDPERMANENT, ASC_SOURCE_SERVICEUSER,
                                        ASC_REASON_SU_NOREASON};
    if (does == rejects) {
        return ASC_rejectAssociation(association, &reason).good() ? rejects : failed;
    }
    const char* classes[] = {UID_VerificationSOPClass, ct, find_model, move_model};
    static_cast<void>(DCMTK_params_accept_std_PCs(association->params, classes, 4));
    if (ASC_acknowledgeAssociation(association).bad()) return failed;
    return does == serves ? serve(association) : does;
}

class Association : public testing::Test {
  protected:
    // Requests an association with these classes from a new process.
    int request(Peer does, const std::vector<const char*>& classes) {
        peer = start_child([&] { return take_association(listener.get(), does); });
        sockaddr_in bound{};
        socklen_t size = sizeof bound;
        ::getsockname(DUL_networkSocket(listener->network), reinterpret_cast<sockaddr*>(&bound),
                      &size);
        const std::string address = "127.0.0.1:" + std::to_string(ntohs(bound.sin_port));
        tarvo::ParametersOwner params(
            DCMTK_params_init(nullptr, nullptr, nullptr, address.c_str(), false, 16384));
        unsigned long id = 1;
        for (const char* sop_class : classes) {
            EXPECT_TRUE(DCMTK_params_add_std_PC(params.get(), id, sop_class).good());
            id += 2;
        }
        return user.request(network.get(), std::move(params));
    }

    const tarvo::NetworkOwner listener{DCMTK_net_init_listen(0, 0)};
    const tarvo::NetworkOwner network{DCMTK_net_init(5)};
    tarvo::RequestedAssociation user;
    pid_t peer = -1;
};

TEST_F(Association, EndsAsItsLastConditionDemands) {
    const struct {
        const char* sop_class;
        OFCondition last;
        Peer does;
        int requested;
        int ended;
        Peer saw;
    } cases[] = {
        {ct, EC_Normal, rejects, -1, 0, rejects},
        {"1.2", EC_Normal, serves, -3, 0, saw_release},
        {ct, EC_Normal, serves, 0, 0, saw_release},
        {ct, DIMSE_BADDATA, serves, 0, 0, saw_abort},
        {ct, DUL_PEERREQUESTEDRELEASE, serves, 0, 0, saw_abort},
        {ct, EC_Normal, leaves, 0, -1, leaves},
        {ct, DUL_PEERABORTEDASSOCIATION, leaves, 0, 0, leaves},
    };
    for (const auto& [sop_class, last, does, requested, ended, saw] : cases) {
        SCOPED_TRACE(testing::Message() << does << ' ' << sop_class << ' ' << last.text());
        EXPECT_EQ(request(does, {sop_class}), requested);
        ASSERT_EQ(static_cast<bool>(user), does != rejects);
        if (does != serves) {  // wait until it is gone
            EXPECT_EQ(exit_code(peer), saw);
        }
        if (user) {
            EXPECT_EQ(user.end(last), ended);
        }
        EXPECT_FALSE(user);
        if (does == serves) {
            EXPECT_EQ(exit_code(peer), saw);
        }
    }
    ASSERT_EQ(request(serves, {ct}), 0);
    user = {};
    EXPECT_EQ(exit_code(peer), saw_abort) << "the owner aborts what it still holds";
    EXPECT_EQ(request(leaves, {}), -2) << "nothing is proposed";
    ::kill(peer, SIGKILL);
    EXPECT_EQ(exit_code(peer), -1);
}

TEST_F(Association, ServicesReachTheirProviders) {
    ASSERT_EQ(request(serves, {UID_VerificationSOPClass, ct, find_model, move_model}), 0);
    DcmDataset set;
    EXPECT_TRUE(DCMTK_SCU_echo(user.get()).good());
    EXPECT_TRUE(DCMTK_SCU_store(user.get(), &set) == DIMSE_BADDATA) << "no SOP class";
    DCMTK_Key_Add(&set, 0x0008, 0x0018, "1.2.3.4");
    DCMTK_Key_Add(&set, 0x0008, 0x0016, UID_MRImageStorage);
    EXPECT_TRUE(DCMTK_SCU_store(user.get(), &set) == DIMSE_NOVALIDPRESENTATIONCONTEXTID);
    DCMTK_Key_Add(&set, 0x0008, 0x0016, ct);
    EXPECT_TRUE(DCMTK_SCU_store(user.get(), &set).good());
    std::string seen;
    const auto found = [](void* data, T_DIMSE_C_FindRQ* /*request*/, int count,
                          T_DIMSE_C_FindRSP* /*response*/, DcmDataset* match) {
        *static_cast<std::string*>(data) +=
            std::to_string(count) + DCMTK_getTagString(match, DCM_SOPInstanceUID) + " ";
    };
    EXPECT_TRUE(DCMTK_SCU_find(user.get(), find_model, &set, found, &seen).good());
    const auto moved = [](void* data, T_DIMSE_C_MoveRQ* /*request*/, int /*count*/,
                          T_DIMSE_C_MoveRSP* response) {
        *static_cast<std::string*>(data) +=
            std::to_string(response->NumberOfCompletedSubOperations) + " ";
    };
    EXPECT_TRUE(
        DCMTK_SCU_move(user.get(), move_model, &set, "DESTINATION_AET!", moved, &seen).good());
    EXPECT_EQ(seen, "11.2.3.4 21.2.3.4 1 2 ");
    EXPECT_EQ(user.end(EC_Normal), 0);
    EXPECT_EQ(exit_code(peer), saw_release);
}

TEST(Parameters, ProposeAtMost128ContextsAndKeepEarlierAnswers) {
    const tarvo::ParametersOwner params(
        DCMTK_params_init(nullptr, nullptr, nullptr, std::string(500, 'h').c_str(), false, 4096));
    // Of a greater number the toolkit sees the low byte: 257 would be proposed as 1.
    for (const unsigned long id : {257UL, 65537UL, 256UL, 2UL, 0UL}) {
        EXPECT_TRUE(DCMTK_params_add_std_PC(params.get(), id, "1.2").bad()) << id;
    }
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
