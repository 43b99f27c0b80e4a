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

TEST(Network, ListensOnItsPortAlone) {
    const tarvo::NetworkOwner both(DCMTK_net_init_listen(0, 1));
    ASSERT_TRUE(both);
    EXPECT_EQ(both->role, NET_ACCEPTORREQUESTOR);
    EXPECT_EQ(dcmConnectionTimeout.get(), 10);
    EXPECT_NE(::fcntl(DUL_networkSocket(both->network), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(tarvo::NetworkOwner(DCMTK_net_init_listen(0, 0))->role, NET_ACCEPTOR);
    trace.take();
    const std::string address = address_of(*both);
    EXPECT_EQ(DCMTK_net_init_listen(std::stoi(address.substr(address.find(':') + 1)), 1), nullptr);
    EXPECT_EQ(trace.take(), "F:DCMTK_net_init_listen: Failed.\n");
    T_ASC_Network broken{};
    EXPECT_EQ(DCMTK_net_exit(&broken), 1);
    EXPECT_EQ(trace.take(), "F:DCMTK_net_exit: Failed.\n");
    EXPECT_EQ(DCMTK_net_exit(DCMTK_net_init(5)), 0);
}

TEST(Parameters, HaveDefaultsAndLimits) {
    const tarvo::ParametersOwner defaults(
        DCMTK_params_init(nullptr, nullptr, nullptr, "peer:104", false, 0x20000));
    std::array<char, 65> host{};
    ASSERT_EQ(::gethostname(host.data(), host.size() - 1), 0);
    EXPECT_STREQ(defaults->DULparams.callingAPTitle, "DCMTK_LIB");
    EXPECT_STREQ(defaults->DULparams.calledAPTitle, "ANY-SCP");
    EXPECT_EQ(defaults->DULparams.callingPresentationAddress,
              std::string(host.data()).substr(0, 63));
    EXPECT_STREQ(defaults->DULparams.calledPresentationAddress, "peer:104");
    EXPECT_EQ(defaults->ourMaxPDUReceiveSize, 0x20000);
    const tarvo::ParametersOwner given(
        DCMTK_params_init("USER", "here", "PROVIDER", std::string(500, 'h').c_str(), true, 16384));
    EXPECT_STREQ(given->DULparams.callingAPTitle, "USER");
    EXPECT_STREQ(given->DULparams.calledAPTitle, "PROVIDER");
    EXPECT_STREQ(given->DULparams.callingPresentationAddress, "here");
    EXPECT_EQ(given->DULparams.calledPresentationAddress, std::string(63, 'h'));
    EXPECT_TRUE(given->DULparams.useSecureLayer);
}

// What acceptors do.

OFCondition read_the_end(T_ASC_Association* association) {
    return DUL_ReadPDVs(&association->DULassociation, nullptr, DUL_NOBLOCK, 10);
}

PeerSaw see_the_end(T_ASC_Association* association) {
    const OFCondition ended = read_the_end(association);
    if (ended == DUL_PEERABORTEDASSOCIATION) return peer_saw_abort;
    if (ended != DUL_PEERREQUESTEDRELEASE) return peer_saw_close;
    return ASC_acknowledgeRelease(association).good() ? peer_saw_release : peer_failed;
}

PeerSaw accept(T_ASC_Association* association) {
    static_cast<void>(DCMTK_params_accept_std_PC(association->params, UID_VerificationSOPClass));
    return ASC_acknowledgeAssociation(association).good() ? peer_done : peer_failed;
}

PeerSaw accept_and_see_the_end(T_ASC_Association* association) {
    return accept(association) == peer_done ? see_the_end(association) : peer_failed;
}

PeerSaw accept_and_ask_for_release(T_ASC_Association* association) {
    static_cast<void>(accept(association));
    return ASC_releaseAssociation(association) == DUL_PEERABORTEDASSOCIATION ? peer_saw_abort
                                                                             : peer_failed;
}

PeerSaw reject(T_ASC_Association* association) {
    const T_ASC_RejectParameters reason{ASC_RESULT_REJECTEDPERMANENT, ASC_SOURCE_SERVICEUSER,
                                        ASC_REASON_SU_NOREASON};
    return ASC_rejectAssociation(association, &reason).good() ? peer_done : peer_failed;
}

// Aborts by hand (PS3.8, 9.3.8) on the one connected socket, which the toolkit keeps to itself,
// and reads what the requestor still sends.
PeerSaw accept_and_abort(T_ASC_Association* association) {
    static_cast<void>(accept(association));
    int connection = 3;
    sockaddr peer{};
    socklen_t size = sizeof(peer);
    while (connection < 1000 && ::getpeername(connection, &peer, &size) != 0) ++connection;
    std::array<unsigned char, 10> pdu{7, 0, 0, 0, 0, 4, 0, 0, 2, 0};
    if (::write(connection, pdu.data(), pdu.size()) != 10) return peer_failed;
    return ::read(connection, pdu.data(), pdu.size()) == 0 ? peer_saw_close : peer_failed;
}

enum class End { none, normal, error, as_read };

OFCondition last_condition(End end, T_ASC_Association* association) {
    if (end == End::as_read) return read_the_end(association);
    return end == End::error ? DIMSE_BADDATA : EC_Normal;
}

TEST(Association, EndsAsItsLastConditionDemands) {
    struct Case {
        const char* what;
        Acceptor::Behaviour acceptor;
        const char* sop_class;
        const char* traced;
        const char* traced_at_end;
        int requested;
        End end;
        int ended;
        PeerSaw saw;
    };
    const char* const echo = UID_VerificationSOPClass;
    const char* const accepted = "I:DCMTK_associate: Association Accepted\n";
    const Case cases[] = {
        {"rejected", reject, echo, "F:DCMTK_associate: rejected\n", "", -1, End::none, 0,
         peer_done},
        {"no context accepted", accept_and_see_the_end, "1.2",
         "F:DCMTK_associate: No Acceptable Presentation Contexts\n", "", -3, End::normal, 0,
         peer_saw_release},
        {"released", accept_and_see_the_end, echo, accepted, "", 0, End::normal, 0,
         peer_saw_release},
        {"peer is gone", accept, echo, accepted, "I:DCMTK_dissociate: release failed\n", 0,
         End::normal, -1, peer_done},
        {"aborted", accept_and_see_the_end, echo, accepted, "I:DCMTK_dissociate: Other error.\n", 0,
         End::error, 0, peer_saw_abort},
        {"peer asks for release", accept_and_ask_for_release, echo, accepted,
         "I:DCMTK_dissociate: Protocol Error: peer requested release (Aborting)\n", 0, End::as_read,
         0, peer_saw_abort},
        {"peer aborts", accept_and_abort, echo, accepted, "", 0, End::as_read, 0, peer_saw_close},
    };
    const tarvo::NetworkOwner network(DCMTK_net_init(5));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Acceptor acceptor(c.acceptor);
        tarvo::RequestedAssociation association;
        trace.take();
        EXPECT_EQ(association.request(network.get(), propose(acceptor.address, {c.sop_class})),
                  c.requested);
        EXPECT_EQ(trace.take(), c.traced);
        ASSERT_EQ(static_cast<bool>(association), c.end != End::none);
        if (c.saw == peer_done) {  // wait until it is gone
            EXPECT_EQ(acceptor.wait(), c.saw);
        }
        if (association) {
            EXPECT_EQ(association.end(last_condition(c.end, association.get())), c.ended);
        }
        EXPECT_EQ(trace.take(), c.traced_at_end);
        EXPECT_FALSE(association);
        if (c.saw != peer_done) {
            EXPECT_EQ(acceptor.wait(), c.saw);
        }
    }
}

// Neither the parameters nor the association may be lost or given back twice.
TEST(Association, OwnsItsParametersAfterAFailureToo) {
    tarvo::NetworkOwner listener(DCMTK_net_init_listen(0, 0));
    const std::string address = address_of(*listener);
    const tarvo::NetworkOwner hasty(DCMTK_net_init(1));
    tarvo::RequestedAssociation owner;
    const std::vector<const char*> echo{UID_VerificationSOPClass};
    EXPECT_EQ(owner.request(hasty.get(), propose(address, echo)), -2) << "never answered";
    EXPECT_EQ(owner.request(nullptr, propose(address, echo)), -2);
    EXPECT_FALSE(owner);
    listener.reset();

    trace.take();
    T_ASC_Association stale{};
    T_ASC_Association* association = &stale;
    const tarvo::ParametersOwner nothing = propose(address, {});
    EXPECT_EQ(DCMTK_associate(&association, hasty.get(), nothing.get()), -2);
    EXPECT_EQ(association, nullptr) << "the parameters stay with the caller";
    EXPECT_EQ(trace.take(), "F:DCMTK_associate: other failure\n");
    tarvo::ParametersOwner params = propose(address, echo);
    EXPECT_EQ(DCMTK_associate(&association, hasty.get(), params.get()), -2);
    ASSERT_NE(association, nullptr);
    EXPECT_EQ(association->params, params.release());
    trace.take();
    EXPECT_EQ(DCMTK_dissociate(&association, EC_Normal), -1);
    ASSERT_NE(association, nullptr) << "neither aborted nor destroyed";
    EXPECT_EQ(DCMTK_dissociate(&association, DIMSE_BADDATA), -2);
    EXPECT_EQ(trace.take(),
              "I:DCMTK_dissociate: release failed\nI:DCMTK_dissociate: Other error.\n"
              "I:DCMTK_dissociate: Association abort failed.\n");
    ASSERT_NE(association, nullptr);
    EXPECT_EQ(DCMTK_dissociate(&association, DUL_PEERABORTEDASSOCIATION), 0);
    EXPECT_EQ(association, nullptr);
}

TEST(Association, OwnerAbortsWhatItStillHolds) {
    const tarvo::NetworkOwner network(DCMTK_net_init(5));
    Acceptor first(accept_and_see_the_end);
    Acceptor second(accept_and_see_the_end);
    {
        tarvo::RequestedAssociation held;
        tarvo::RequestedAssociation other;
        const std::vector<const char*> echo{UID_VerificationSOPClass};
        ASSERT_EQ(held.request(network.get(), propose(first.address, echo)), 0);
        ASSERT_EQ(other.request(network.get(), propose(second.address, echo)), 0);
        held = std::move(other);
        EXPECT_EQ(first.wait(), peer_saw_abort);
    }
    EXPECT_EQ(second.wait(), peer_saw_abort);
}

}  // namespace
