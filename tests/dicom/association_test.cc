#include "dicom/association.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcuid.h"
#include "dcmtk/dcmnet/cond.h"

#include "tests/dicom/peer.h"
#include "tests/dicom/trace_capture.h"

namespace {

constexpr const char* accepted = "I:DCMTK_associate: Association Accepted\n";

// Accepts Verification and answers the request.
bool accept(T_ASC_Association* association) {
    return DCMTK_params_accept_std_PC(association->params, UID_VerificationSOPClass).good() &&
           ASC_acknowledgeAssociation(association).good();
}

// Waits for the end of the association.
PeerSaw see_the_end(T_ASC_Association* association) {
    const OFCondition ended = DUL_ReadPDVs(&association->DULassociation, nullptr, DUL_NOBLOCK, 10);
    if (ended == DUL_PEERABORTEDASSOCIATION) return peer_saw_abort;
    if (ended != DUL_PEERREQUESTEDRELEASE) return peer_saw_close;
    return ASC_acknowledgeRelease(association).good() ? peer_saw_release : peer_failed;
}

PeerSaw accept_and_see_the_end(T_ASC_Association* association) {
    return accept(association) ? see_the_end(association) : peer_failed;
}

TEST(Network, ListensOnItsPortAlone) {
    TraceCapture trace;
    const tarvo::NetworkOwner both(DCMTK_net_init_listen(0, 1));
    ASSERT_TRUE(both);
    EXPECT_EQ(both->role, NET_ACCEPTORREQUESTOR);
    EXPECT_EQ(dcmConnectionTimeout.get(), 10);
    EXPECT_NE(::fcntl(DUL_networkSocket(both->network), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(tarvo::NetworkOwner(DCMTK_net_init_listen(0, 0))->role, NET_ACCEPTOR);
    EXPECT_EQ(trace.take(), "");
    EXPECT_EQ(DCMTK_net_init_listen(port_of(*both), 1), nullptr);
    EXPECT_EQ(trace.take(), "F:DCMTK_net_init_listen: Failed.\n");
}

TEST(Network, ExitReportsWhatTheToolkitRefuses) {
    TraceCapture trace;
    T_ASC_Network broken{};
    EXPECT_EQ(DCMTK_net_exit(&broken), 1);
    EXPECT_EQ(trace.take(), "F:DCMTK_net_exit: Failed.\n");
    EXPECT_EQ(DCMTK_net_exit(DCMTK_net_init(5)), 0);
    EXPECT_EQ(trace.take(), "");
}

TEST(Parameters, HaveDefaults) {
    const tarvo::ParametersOwner params(
        DCMTK_params_init(nullptr, nullptr, nullptr, "peer:104", false, 0x20000));
    ASSERT_TRUE(params);
    std::array<char, 65> host{};
    ASSERT_EQ(::gethostname(host.data(), host.size() - 1), 0);
    EXPECT_STREQ(params->DULparams.callingAPTitle, "DCMTK_LIB");
    EXPECT_STREQ(params->DULparams.calledAPTitle, "ANY-SCP");
    EXPECT_EQ(params->DULparams.callingPresentationAddress, std::string(host.data()).substr(0, 63));
    EXPECT_STREQ(params->DULparams.calledPresentationAddress, "peer:104");
    EXPECT_EQ(params->ourMaxPDUReceiveSize, 0x20000);
    EXPECT_FALSE(params->DULparams.useSecureLayer);
}

TEST(Parameters, TakeWhatIsGiven) {
    const std::string long_host(500, 'h');
    const tarvo::ParametersOwner params(
        DCMTK_params_init("USER", "here", "PROVIDER", long_host.c_str(), true, 16384));
    ASSERT_TRUE(params);
    EXPECT_STREQ(params->DULparams.callingAPTitle, "USER");
    EXPECT_STREQ(params->DULparams.calledAPTitle, "PROVIDER");
    EXPECT_STREQ(params->DULparams.callingPresentationAddress, "here");
    EXPECT_EQ(params->DULparams.calledPresentationAddress, std::string(63, 'h'));
    EXPECT_TRUE(params->DULparams.useSecureLayer);
}

// The connected socket of this process, which the toolkit keeps to itself.
int only_connection() {
    sockaddr peer{};
    for (int descriptor = 3; descriptor < 1000; ++descriptor) {
        socklen_t size = sizeof(peer);
        if (::getpeername(descriptor, &peer, &size) == 0) return descriptor;
    }
    return -1;
}

class Association : public testing::Test {
  protected:
    int request(const Acceptor& acceptor) {
        return requestor.request(acceptor, {UID_VerificationSOPClass});
    }

    Requestor requestor;
    TraceCapture trace;
};

TEST_F(Association, AcceptedAndReleased) {
    Acceptor acceptor(accept_and_see_the_end);
    EXPECT_EQ(request(acceptor), 0);
    EXPECT_EQ(trace.take(), accepted);
    EXPECT_EQ(requestor.association.end(EC_Normal), 0);
    EXPECT_FALSE(requestor.association);
    EXPECT_EQ(trace.take(), "");
    EXPECT_EQ(acceptor.wait(), peer_saw_release);
}

TEST_F(Association, Rejected) {
    Acceptor acceptor([](T_ASC_Association* association) {
        const T_ASC_RejectParameters reason{ASC_RESULT_REJECTEDPERMANENT, ASC_SOURCE_SERVICEUSER,
                                            ASC_REASON_SU_NOREASON};
        return ASC_rejectAssociation(association, &reason).good() ? peer_done : peer_failed;
    });
    EXPECT_EQ(request(acceptor), -1);
    EXPECT_FALSE(requestor.association);
    EXPECT_EQ(trace.take(), "F:DCMTK_associate: rejected\n");
    EXPECT_EQ(acceptor.wait(), peer_done);
}

// Even with the toolkit's plain pointers nothing may be lost or given back twice.
TEST_F(Association, OwnsItsParametersAfterAFailureToo) {
    std::string nobody;
    {
        const tarvo::NetworkOwner listener(DCMTK_net_init_listen(0, 0));
        nobody = "127.0.0.1:" + std::to_string(port_of(*listener));
    }
    T_ASC_Association* association = nullptr;
    tarvo::ParametersOwner params = propose(nobody, {UID_VerificationSOPClass});
    EXPECT_EQ(DCMTK_associate(&association, requestor.network.get(), params.get()), -2);
    EXPECT_EQ(trace.take(), "F:DCMTK_associate: other failure\n");
    ASSERT_NE(association, nullptr);
    EXPECT_EQ(association->params, params.release());
    EXPECT_EQ(DCMTK_dissociate(&association, EC_Normal), -1);
    EXPECT_EQ(trace.take(), "I:DCMTK_dissociate: release failed\n");
    ASSERT_NE(association, nullptr) << "neither aborted nor destroyed";
    EXPECT_EQ(DCMTK_dissociate(&association, DIMSE_BADDATA), -2);
    EXPECT_EQ(trace.take(),
              "I:DCMTK_dissociate: Other error.\n"
              "I:DCMTK_dissociate: Association abort failed.\n");
    ASSERT_NE(association, nullptr);
    EXPECT_EQ(DCMTK_dissociate(&association, DUL_PEERABORTEDASSOCIATION), 0);
    EXPECT_EQ(association, nullptr);
    EXPECT_EQ(requestor.association.request(requestor.network.get(),
                                            propose(nobody, {UID_VerificationSOPClass})),
              -2);
    EXPECT_FALSE(requestor.association);
}

TEST_F(Association, NothingProposedLeavesTheParametersToTheCaller) {
    T_ASC_Association stale{};
    T_ASC_Association* association = &stale;
    const tarvo::ParametersOwner params = propose("127.0.0.1:1", {});
    EXPECT_EQ(DCMTK_associate(&association, requestor.network.get(), params.get()), -2);
    EXPECT_EQ(association, nullptr);
    EXPECT_EQ(
        requestor.association.request(nullptr, propose("127.0.0.1:1", {UID_VerificationSOPClass})),
        -2);
}

TEST_F(Association, SilentPeer) {
    const tarvo::NetworkOwner listener(DCMTK_net_init_listen(0, 0));  // never accepts
    const tarvo::NetworkOwner hasty(DCMTK_net_init(1));
    EXPECT_EQ(requestor.association.request(
                  hasty.get(), propose("127.0.0.1:" + std::to_string(port_of(*listener)),
                                       {UID_VerificationSOPClass})),
              -2);
}

TEST_F(Association, NoContextAcceptedStaysEstablished) {
    Acceptor acceptor([](T_ASC_Association* association) {
        static_cast<void>(DCMTK_params_accept_std_PC(association->params, "1.2.3"));
        return ASC_acknowledgeAssociation(association).good() ? see_the_end(association)
                                                              : peer_failed;
    });
    EXPECT_EQ(request(acceptor), -3);
    EXPECT_EQ(trace.take(), "F:DCMTK_associate: No Acceptable Presentation Contexts\n");
    ASSERT_TRUE(requestor.association);
    EXPECT_EQ(requestor.association.end(EC_Normal), 0);
    EXPECT_EQ(acceptor.wait(), peer_saw_release);
}

TEST_F(Association, AbortedAfterAnyOtherError) {
    Acceptor acceptor(accept_and_see_the_end);
    ASSERT_EQ(request(acceptor), 0);
    trace.take();
    EXPECT_EQ(requestor.association.end(DIMSE_BADDATA), 0);
    EXPECT_EQ(trace.take(), "I:DCMTK_dissociate: Other error.\n");
    EXPECT_EQ(acceptor.wait(), peer_saw_abort);
}

TEST_F(Association, AbortedWhenThePeerAskedForRelease) {
    Acceptor acceptor([](T_ASC_Association* association) {
        if (!accept(association)) return peer_failed;
        return ASC_releaseAssociation(association) == DUL_PEERABORTEDASSOCIATION ? peer_saw_abort
                                                                                 : peer_failed;
    });
    ASSERT_EQ(request(acceptor), 0);
    trace.take();
    const OFCondition seen =
        DUL_ReadPDVs(&requestor.association.get()->DULassociation, nullptr, DUL_NOBLOCK, 10);
    ASSERT_EQ(seen, DUL_PEERREQUESTEDRELEASE);
    EXPECT_EQ(requestor.association.end(seen), 0);
    EXPECT_EQ(trace.take(),
              "I:DCMTK_dissociate: Protocol Error: peer requested release (Aborting)\n");
    EXPECT_EQ(acceptor.wait(), peer_saw_abort);
}

TEST_F(Association, NothingIsSentAfterThePeersAbort) {
    Acceptor acceptor([](T_ASC_Association* association) {
        if (!accept(association)) return peer_failed;
        const int socket = only_connection();
        const std::array<unsigned char, 10> abort{7, 0, 0, 0, 0, 4, 0, 0, 2, 0};  // PS3.8, 9.3.8
        if (::write(socket, abort.data(), abort.size()) != 10) return peer_failed;
        std::array<char, 10> answer{};
        return ::read(socket, answer.data(), answer.size()) == 0 ? peer_saw_close : peer_failed;
    });
    ASSERT_EQ(request(acceptor), 0);
    trace.take();
    const OFCondition seen =
        DUL_ReadPDVs(&requestor.association.get()->DULassociation, nullptr, DUL_NOBLOCK, 10);
    ASSERT_EQ(seen, DUL_PEERABORTEDASSOCIATION);
    EXPECT_EQ(requestor.association.end(seen), 0);
    EXPECT_EQ(trace.take(), "");
    EXPECT_EQ(acceptor.wait(), peer_saw_close);
}

TEST_F(Association, FailedReleaseIsReported) {
    Acceptor acceptor([](T_ASC_Association* association) {
        return accept(association) ? peer_done : peer_failed;  // and is gone
    });
    ASSERT_EQ(request(acceptor), 0);
    ASSERT_EQ(acceptor.wait(), peer_done);
    trace.take();
    EXPECT_EQ(requestor.association.end(EC_Normal), -1);
    EXPECT_EQ(trace.take(), "I:DCMTK_dissociate: release failed\n");
    EXPECT_FALSE(requestor.association);
}

TEST_F(Association, OwnerAbortsWhatItStillHolds) {
    Acceptor first(accept_and_see_the_end);
    Acceptor second(accept_and_see_the_end);
    ASSERT_EQ(request(first), 0);
    {
        tarvo::RequestedAssociation moved = std::move(requestor.association);
        EXPECT_FALSE(requestor.association);
        ASSERT_EQ(request(second), 0);
        moved = std::move(requestor.association);
        EXPECT_EQ(first.wait(), peer_saw_abort);
    }
    EXPECT_EQ(second.wait(), peer_saw_abort);
}

}  // namespace
