#include "server/worker.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <new>
#include <utility>

#include "dcmtk/dcmnet/dul.h"

#include "dicom/condition.h"
#include "server/answers.h"
#include "server/negotiation.h"
#include "store/local_store.h"
#include "support/held_signals.h"
#include "support/log.h"
#include "support/server_config.h"

namespace tarvo {

namespace {

constexpr unsigned hash_limit = 60;   // seconds for the study hash, when somebody is at the file
constexpr unsigned parse_limit = 10;  // seconds for a request that is there already
constexpr long receive_pdu = 16384;   // largest PDU that a peer may send

void take_signals() {
    std::signal(SIGALRM, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGXCPU, SIG_DFL);
    std::signal(SIGINT, SIG_IGN);
}

// A worker lets go of the port and of everybody who is still at the door, so that the server can
// be started again while the worker serves. The number of the port's descriptor stays taken.
void leave_door(Workplace& place) {
    place.intake.close_all();
    const int door = DUL_networkSocket(place.network->network);
    if (!place.null || ::dup2(place.null.get(), door) < 0) ::close(door);
}

// A failure leaves the copy as it was.
void wait_for_study_hash() {
    ::alarm(hash_limit);
    static_cast<void>(local_store.updateStudyHash());
}

// Hands the request to the toolkit as if it had just come from the network. Null when the toolkit
// does not take it.
T_ASC_Association* receive_association(Workplace& place, Caller& caller) {
    place.transport.replay(std::move(caller.request));
    dcmExternalSocketHandle.set(caller.socket.release());  // the association closes it
    T_ASC_Association* association = nullptr;
    const OFCondition condition = ASC_receiveAssociation(place.network, &association, receive_pdu,
                                                         nullptr, nullptr, OFFalse, DUL_BLOCK);
    dcmExternalSocketHandle.set(-1);
    if (condition.good()) return association;
    dump_condition(condition);
    // Their results change nothing: the worker ends.
    static_cast<void>(ASC_dropAssociation(association));
    static_cast<void>(ASC_destroyAssociation(&association));
    return nullptr;
}

void work(Workplace& place, Caller& caller, bool hash_is_current) {
    leave_door(place);
    if (!hash_is_current) wait_for_study_hash();
    ::alarm(parse_limit);
    T_ASC_Association* const association = receive_association(place, caller);
    if (association == nullptr) return;
    static_cast<void>(negotiate_and_serve(place.network, association));
}

// What the toolkit and the libraries cannot get, they report by failing or by an exception. The
// association ends with this either way, and with an abort.
void end_out_of_memory(int socket) {
    lift_memory_limit();
    logprintf(8, server_config.log, "Out of memory: association aborted\n");
    abort_association(socket);
}

}  // namespace

int Workplace::open_null() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

pid_t fork_worker() {
    const HeldSignals held;  // none may meet the listener's handlers in the child
    const pid_t worker = ::fork();
    if (worker == 0) take_signals();
    return worker;
}

// Serves as far as the memory goes.
void run_worker(Workplace& place, Caller& caller, bool hash_is_current) {
    const int socket = caller.socket.get();  // stays open when an exception skips its owner
    try {
        limit_worker(place.limits);
        work(place, caller, hash_is_current);
    } catch (const std::bad_alloc&) {
        end_out_of_memory(socket);
    }
}

}  // namespace tarvo
