#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcostrmb.h"
#include "dcmtk/dcmdata/dcuid.h"
#include "dcmtk/oflog/oflog.h"

#include "dicom/dataset.h"
#include "dicom/service_provider.h"
#include "dicom/service_user.h"
#include "support/bounded_string.h"
#include "tests/dicom/peer.h"
#include "tests/dicom/trace_capture.h"

namespace {

constexpr const char* ct = UID_CTImageStorage;
constexpr const char* find_model = UID_FINDStudyRootQueryRetrieveInformationModel;
constexpr const char* move_model = UID_MOVEStudyRootQueryRetrieveInformationModel;

// What the provider's process saw and is to answer.
struct Provider {
    int begun, progressed, ended, ended_without_dataset;
    bool equal;
    Uint16 status;  // to answer with
    int last_message_id;
    char destination[17];
    char traced[512];
};

// An image of several fragments with a sequence, text and both kinds of numbers.
std::unique_ptr<DcmDataset> make_image() {
    std::unique_ptr<DcmDataset> image(DCMTK_Dataset_Create());
    EXPECT_EQ(DCMTK_Key_Add(image.get(), 0x0008, 0x0016, ct), 0);
    EXPECT_EQ(DCMTK_Key_Add(image.get(), 0x0008, 0x0018, "1.2.3.4"), 0);
    EXPECT_EQ(DCMTK_Key_Add(image.get(), 0x0010, 0x0010, "NAME^A"), 0);
    EXPECT_EQ(DCMTK_Key_Add(image.get(), 0x0028, 0x0010, "512"), 0);
    DcmItem* item = nullptr;
    EXPECT_TRUE(image->findOrCreateSequenceItem(DCM_ReferencedSeriesSequence, item, -2).good());
    EXPECT_TRUE(item->putAndInsertString(DCM_SeriesInstanceUID, "1.2.3").good());
    std::vector<Uint16> pixels(50'000);
    for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<Uint16>(i);
    EXPECT_TRUE(image->putAndInsertUint16Array(DCM_PixelData, pixels.data(), pixels.size()).good());
    return image;
}

void store(void* data, T_DIMSE_StoreProgress* progress, T_DIMSE_C_StoreRQ* /*request*/,
           char* file_name, DcmDataset** dataset, T_DIMSE_C_StoreRSP* response,
           DcmDataset** /*status_detail*/) {
    Provider& provider = *static_cast<Provider*>(data);
    if (progress->state == DIMSE_StoreBegin) ++provider.begun;
    if (progress->state == DIMSE_StoreProgressing) ++provider.progressed;
    if (progress->state != DIMSE_StoreEnd) return;
    ++provider.ended;
    if (*dataset == nullptr) {
        ++provider.ended_without_dataset;
        return;
    }
    provider.equal = file_name == nullptr && make_image()->compare(**dataset) == 0;
    response->DimseStatus = provider.status;
}

// Three matches, then the status.
void find(void* data, OFBool /*cancelled*/, T_DIMSE_C_FindRQ* /*request*/, DcmDataset* identifier,
          int count, T_DIMSE_C_FindRSP* response, DcmDataset** match, DcmDataset** /*detail*/) {
    response->DimseStatus = static_cast<Provider*>(data)->status;
    if (count > 3) return;
    const std::string wanted = DCMTK_getTagString(identifier, DCM_PatientID);
    *match = DCMTK_Dataset_Create();
    DCMTK_Key_Add(*match, 0x0010, 0x0020, (wanted + std::to_string(count)).c_str());
    response->DimseStatus = STATUS_FIND_Pending_MatchesAreContinuing;
}

// Two images moved, then the status and, unless that is Success, a data set.
void move(void* data, OFBool /*cancelled*/, T_DIMSE_C_MoveRQ* request, DcmDataset* identifier,
          int count, T_DIMSE_C_MoveRSP* response, DcmDataset** /*detail*/, DcmDataset** failed) {
    Provider& provider = *static_cast<Provider*>(data);
    vr_strncpy(provider.destination, request->MoveDestination, sizeof(provider.destination));
    provider.equal = DCMTK_getTagString(identifier, DCM_PatientID) == std::string("WANTED");
    response->NumberOfCompletedSubOperations = static_cast<DIC_US>(count);
    response->DimseStatus =
        count > 2 ? provider.status : STATUS_MOVE_Pending_SubOperationsAreContinuing;
    if (count > 2) *failed = make_image().release();
}

OFCondition provide(T_ASC_Association* association, T_DIMSE_Message& message,
                    T_ASC_PresentationContextID id, Provider& provider) {
    switch (message.CommandField) {
        case DIMSE_C_ECHO_RQ:
            provider.last_message_id = message.msg.CEchoRQ.MessageID;
            return DCMTK_SCP_echo(association, &message, id);
        case DIMSE_C_STORE_RQ:
            provider.last_message_id = message.msg.CStoreRQ.MessageID;
            return DCMTK_SCP_store(association, &message, id, store, &provider);
        case DIMSE_C_FIND_RQ:
            return DCMTK_SCP_find(association, &message, id, find, &provider);
        case DIMSE_C_MOVE_RQ:
            return DCMTK_SCP_move(association, &message, id, move, &provider);
        default:
            return DIMSE_BADCOMMANDTYPE;
    }
}

// Serves until the peer releases or aborts, or a service fails.
PeerSaw serve(T_ASC_Association* association, Provider& provider) {
    const char* classes[] = {UID_VerificationSOPClass, ct, find_model, move_model};
    if (DCMTK_params_accept_std_PCs(association->params, classes, 4).bad() ||
        ASC_acknowledgeAssociation(association).bad()) {
        return peer_failed;
    }
    for (;;) {
        T_DIMSE_Message message;
        T_ASC_PresentationContextID id = 0;
        const OFCondition received =
            DIMSE_receiveCommand(association, DIMSE_NONBLOCKING, 10, &id, &message, nullptr);
        if (received == DUL_PEERABORTEDASSOCIATION) return peer_saw_abort;
        if (received == DUL_PEERREQUESTEDRELEASE) {
            static_cast<void>(ASC_acknowledgeRelease(association));
            return peer_saw_release;
        }
        const bool good = received.good() && provide(association, message, id, provider).good();
        vr_strncat(provider.traced, trace.take().c_str(), sizeof(provider.traced));
        if (!good) return peer_failed;
    }
}

class Services : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        ::setenv("TCP_NODELAY", "1", 1);  // the toolkit waits 40 ms a message without
        OFLog::configure(OFLogger::OFF_LOG_LEVEL);
    }
    void SetUp() override {
        DCMTK_Key_Add(query.get(), 0x0010, 0x0020, "WANTED");
        connect();
    }
    // A new provider process and an association with it.
    void connect() {
        trace.take();  // the child begins with a copy of it
        acceptor.emplace([this](T_ASC_Association* received) { return serve(received, provider); });
        ASSERT_EQ(
            user.request(network.get(), propose(acceptor->address, {UID_VerificationSOPClass, ct,
                                                                    find_model, move_model})),
            0);
        trace.take();
    }
    T_ASC_Association* association() { return user.get(); }
    void expect_release() {
        EXPECT_EQ(user.end(EC_Normal), 0);
        EXPECT_EQ(acceptor->wait(), peer_saw_release);
    }

    Provider& provider = shared_with_peers<Provider>();
    std::optional<Acceptor> acceptor;
    tarvo::NetworkOwner network{DCMTK_net_init(5)};
    tarvo::RequestedAssociation user;
    std::unique_ptr<DcmDataset> query{DCMTK_Dataset_Create()};
};

TEST_F(Services, StoredImageArrivesWithEveryAttribute) {
    EXPECT_TRUE(DCMTK_SCU_echo(association()).good());
    EXPECT_EQ(provider.last_message_id, 1);
    for (const Uint16 status : std::initializer_list<Uint16>{0x0000, 0xb006, 0xa700}) {
        provider.status = status;
        provider.equal = false;
        EXPECT_TRUE(DCMTK_SCU_store(association(), make_image().get()).good())
            << "the exchange is complete whatever the status";
        EXPECT_TRUE(provider.equal);
    }
    EXPECT_EQ(provider.last_message_id, 4);
    EXPECT_EQ(trace.take(), "");
    expect_release();
    EXPECT_EQ(provider.begun, 3);
    EXPECT_EQ(provider.ended, 3);
    EXPECT_GT(provider.progressed, 3 * 100'000 / 16384);
    EXPECT_STREQ(provider.traced, "");
}

TEST_F(Services, RequestsNeedAContext) {
    const std::unique_ptr<DcmDataset> image = make_image();
    DCMTK_Key_Add(image.get(), 0x0008, 0x0016, UID_MRImageStorage);
    const auto& no_context = DIMSE_NOVALIDPRESENTATIONCONTEXTID;
    auto* const set = query.get();
    EXPECT_TRUE(DCMTK_SCU_store(association(), nullptr) == DIMSE_BADDATA);
    EXPECT_TRUE(DCMTK_SCU_store(association(), set) == DIMSE_BADDATA) << "no SOP class";
    EXPECT_TRUE(DCMTK_SCU_store(association(), image.get()) == no_context);
    EXPECT_TRUE(DCMTK_SCU_find(association(), "1.2", set, nullptr, nullptr) == no_context);
    EXPECT_TRUE(DCMTK_SCU_move(association(), "1.2", set, "D", nullptr, nullptr) == no_context);
    EXPECT_EQ(trace.take(),
              "F:DCMTK_SCU_store: failed to find SOPClass/Instance.\n"
              "F:DCMTK_SCU_store: failed to find SOPClass/Instance.\n"
              "F:DCMTK_SCU_store: failed to find PC.\n"
              "F:DCMTK_SCU_find: No valid PC\nF:DCMTK_SCU_move: No valid PC\n");
    expect_release();
    EXPECT_EQ(provider.begun, 0) << "nothing was sent";
}

TEST_F(Services, FindHandsEveryMatchToTheCallback) {
    std::string found;
    const auto collect = [](void* data, T_DIMSE_C_FindRQ* /*request*/, int count,
                            T_DIMSE_C_FindRSP* /*response*/, DcmDataset* match) {
        *static_cast<std::string*>(data) +=
            std::to_string(count) + DCMTK_getTagString(match, DCM_PatientID) + " ";
    };
    EXPECT_TRUE(DCMTK_SCU_find(association(), find_model, query.get(), collect, &found).good());
    EXPECT_EQ(found, "1WANTED1 2WANTED2 3WANTED3 ");
    EXPECT_EQ(trace.take(), "I:DCMTK_SCU_find: Response: Success\n");
    provider.status = STATUS_FIND_Refused_OutOfResources;
    EXPECT_TRUE(DCMTK_SCU_find(association(), find_model, query.get(), nullptr, nullptr).good());
    EXPECT_EQ(trace.take(), "I:DCMTK_SCU_find: Response: Refused: OutOfResources\n");
    expect_release();
}

TEST_F(Services, MoveReportsItsProgress) {
    std::string progress;
    const auto collect = [](void* data, T_DIMSE_C_MoveRQ* /*request*/, int count,
                            T_DIMSE_C_MoveRSP* response) {
        *static_cast<std::string*>(data) +=
            std::to_string(count) + ":" + std::to_string(response->NumberOfCompletedSubOperations) +
            " ";
    };
    EXPECT_TRUE(DCMTK_SCU_move(association(), move_model, query.get(), "DESTINATION_AET!", collect,
                               &progress)
                    .good());
    EXPECT_EQ(progress, "1:1 2:2 ");
    EXPECT_STREQ(provider.destination, "DESTINATION_AET!");
    EXPECT_TRUE(provider.equal);
    EXPECT_EQ(trace.take(), "I:DCMTK_SCU_move: Response: Success\n");
    provider.status = STATUS_MOVE_Refused_OutOfResourcesSubOperations;
    EXPECT_TRUE(
        DCMTK_SCU_move(association(), move_model, query.get(), "D", nullptr, nullptr).good());
    EXPECT_EQ(trace.take(), "I:DCMTK_SCU_move: Response: Unknown Status: 0xa702\n");
    expect_release();
}

TEST_F(Services, UsersReportALostPeer) {
    acceptor->end();
    EXPECT_TRUE(DCMTK_SCU_echo(association()).bad());
    EXPECT_TRUE(DCMTK_SCU_store(association(), make_image().get()).bad());
    EXPECT_TRUE(DCMTK_SCU_find(association(), find_model, query.get(), nullptr, nullptr).bad());
    EXPECT_TRUE(
        DCMTK_SCU_move(association(), move_model, query.get(), "D", nullptr, nullptr).bad());
    EXPECT_EQ(trace.take(),
              "F:DCMTK_dissociate: destroy failure.\nF:DCMTK_SCU_store: DIMSE_storeUser failure\n"
              "F:DCMTK_SCU_find: failure\nF:DCMTK_SCU_move: DIMSE_moveUser failure\n");
}

// Sending by hand, fragment by fragment.

std::string encode(DcmDataset& dataset, E_TransferSyntax transfer_syntax, E_EncodingType sequences,
                   E_GrpLenEncoding group_lengths) {
    std::vector<char> buffer(200'000);
    DcmOutputBufferStream stream(buffer.data(), static_cast<offile_off_t>(buffer.size()));
    dataset.transferInit();
    EXPECT_TRUE(dataset.write(stream, transfer_syntax, sequences, nullptr, group_lengths).good());
    dataset.transferEnd();
    void* bytes = nullptr;
    offile_off_t size = 0;
    stream.flushBuffer(bytes, size);
    return {static_cast<const char*>(bytes), static_cast<std::size_t>(size)};
}

void send(T_ASC_Association* association, T_ASC_PresentationContextID id, DUL_DATAPDV type,
          bool last, std::string bytes) {
    DUL_PDV fragment{bytes.size(), id, type, last, bytes.data()};
    DUL_PDVLIST list{};
    list.count = 1;
    list.pdv = &fragment;
    ASSERT_TRUE(DUL_WritePDVs(&association->DULassociation, &list).good());
}

// The command of a request that announces a data set (PS3.7, annex E).
std::string command(Uint16 field, const char* sop_class) {
    DcmDataset set;
    DCMTK_Key_Add(&set, 0x0000, 0x0002, sop_class);
    DCMTK_Key_Add(&set, 0x0000, 0x0100, std::to_string(field).c_str());
    for (const int element : {0x0110, 0x0700, 0x0800}) DCMTK_Key_Add(&set, 0, element, "1");
    DCMTK_Key_Add(&set, 0x0000, field == DIMSE_C_STORE_RQ ? 0x1000 : 0x0600, "1");
    return encode(set, EXS_LittleEndianImplicit, EET_ExplicitLength, EGL_withGL);
}

// Sends a C-STORE whose data set consists of these fragments. Returns the status of the answer, or
// -1 when there is none.
int store_fragments(T_ASC_Association* association, const std::vector<std::string>& fragments) {
    const auto id = ASC_findAcceptedPresentationContextID(association, ct);
    send(association, id, DUL_COMMANDPDV, true, command(DIMSE_C_STORE_RQ, ct));
    for (const std::string& fragment : fragments) {
        send(association, id, DUL_DATASETPDV, &fragment == &fragments.back(), fragment);
    }
    T_DIMSE_Message answer;
    T_ASC_PresentationContextID answered = 0;
    const OFCondition received =
        DIMSE_receiveCommand(association, DIMSE_NONBLOCKING, 10, &answered, &answer, nullptr);
    return received.good() ? answer.msg.CStoreRSP.DimseStatus : -1;
}

// Explicit VR Little Endian: a sequence of two items, then an element of 12 + 8 bytes.
std::string small_image(E_EncodingType sequences) {
    DcmDataset image;
    DcmItem* item = nullptr;
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(image.findOrCreateSequenceItem(DCM_ReferencedSeriesSequence, item, -2).good());
        EXPECT_TRUE(item->putAndInsertString(DCM_SeriesInstanceUID, "1.2.34").good());
    }
    const std::array<Uint8, 8> value{};
    EXPECT_TRUE(
        image.putAndInsertUint8Array(DcmTag(0x0009, 0x1001, EVR_OB), value.data(), 8).good());
    return encode(image, EXS_LittleEndianExplicit, sequences, EGL_withoutGL);
}

TEST_F(Services, WholeDataSetInAnyFragments) {
    for (const E_EncodingType sequences : {EET_ExplicitLength, EET_UndefinedLength}) {
        const std::string image = small_image(sequences);
        const std::string empty_element("\x10\0\x20\0LO\0\0", 8);  // Patient ID
        const std::string empty_sequence("\x40\0\x75\2SQ\0\0\0\0\0\0", 12);
        EXPECT_EQ(store_fragments(association(), {image, ""}), 0);
        EXPECT_EQ(store_fragments(association(), {image + empty_element}), 0);
        EXPECT_EQ(store_fragments(association(), {image + empty_element, ""}), 0);
        EXPECT_EQ(store_fragments(association(), {image + empty_sequence}), 0);
        for (std::size_t size = 2; size < image.size(); size += 2) {
            ASSERT_EQ(store_fragments(association(), {image.substr(0, size), image.substr(size)}),
                      0)
                << size;
        }
    }
    expect_release();
    EXPECT_EQ(provider.ended_without_dataset, 0);
}

TEST_F(Services, DataSetCutShortIsNeverTakenForWhole) {
    const std::string image = small_image(EET_UndefinedLength);
    for (std::size_t size = 2; size < image.size(); size += 2) {
        if (size == image.size() - 20) continue;  // between elements: a whole, shorter data set
        for (const std::size_t empty_fragments : {0, 1}) {
            std::vector<std::string> fragments(1 + empty_fragments);
            fragments[0] = image.substr(0, size);
            provider = Provider{};
            const int answer = store_fragments(association(), fragments);
            if (answer < 0) {  // the toolkit noticed by itself and gave up
                EXPECT_EQ(acceptor->wait(), peer_failed);
                EXPECT_EQ(provider.ended, 0) << size;
                ASSERT_NO_FATAL_FAILURE(connect());
            } else {
                EXPECT_EQ(answer, STATUS_STORE_Error_CannotUnderstand) << size;
                EXPECT_TRUE(DCMTK_SCU_echo(association()).good()) << "the association goes on";
                EXPECT_EQ(provider.ended, 1) << size;
            }
            EXPECT_EQ(provider.ended, provider.ended_without_dataset) << size;
            EXPECT_STREQ(provider.traced, "F:DCMTK_SCP_store: failure.\n") << size;
        }
    }
}

TEST_F(Services, ProvidersReportALostPeer) {
    const std::array<const char*, 2> cases[] = {
        {ct, "F:DCMTK_SCP_store: failure.\n"},
        {find_model, "F:DCMTK_SCP_find: DIMSE_findProvider failure\n"},
        {move_model, "F:DCMTK_SCU_find: failure\n"},
    };
    for (const auto& [sop_class, traced] : cases) {
        provider = Provider{};
        const auto field = sop_class == ct           ? DIMSE_C_STORE_RQ
                           : sop_class == find_model ? DIMSE_C_FIND_RQ
                                                     : DIMSE_C_MOVE_RQ;
        send(association(), ASC_findAcceptedPresentationContextID(association(), sop_class),
             DUL_COMMANDPDV, true, command(static_cast<Uint16>(field), sop_class));
        user = {};
        EXPECT_EQ(acceptor->wait(), peer_failed);
        EXPECT_STREQ(provider.traced, traced);
        EXPECT_EQ(provider.ended, 0);
        ASSERT_NO_FATAL_FAILURE(connect());
    }
}

}  // namespace
