#include "server/server_loop.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/assoc.h"
#include "dcmtk/dcmnet/dul.h"

#include "dicom/association.h"
#include "dicom/network.h"
#include "dicom/transport_layer.h"
#include "monitor/serverstate.h"
#include "server/association_request.h"
#include "server/intake.h"
#include "server/negotiation.h"
#include "server/process.h"
#include "server/stop_signals.h"
#include "server/worker.h"
#include "store/local_store.h"
#include "support/log.h"
#include "support/server_config.h"
#include "support/unique_fd.h"

namespace {

constexpr int wait_limit = 5;         // seconds a pass waits for an association
constexpr unsigned parse_limit = 10;  // seconds for a request that is there already
constexpr long receive_pdu = 16384;   // largest PDU that a peer may send
constexpr int check_interval = 60;    // seconds between two disk checks
constexpr int disk_nearly_full = 20;  // percent free below which the disk is checked more often

// A clock that nobody sets back.
std::int64_t now_seconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

struct LoopState {
    T_ASC_Network* listener;
    tarvo::TransportLayer& transport;
    tarvo::Intake intake;
    const tarvo::WorkerLimits limits{};
    const tarvo::UniqueFd null{::open("/dev/null", O_RDONLY | O_CLOEXEC)};  // for workers
    std::int32_t workers = 0;
    std::int64_t disk_check_interval = check_interval;  // seconds
    std::int64_t last_disk_check = now_seconds();
};

void drop_privileges() {
    // The group first: after the user is dropped it could not be changed any more.
    if (server_config.group != nullptr && drop_to_group(server_config.group) != 0) {
        logprintf(2, server_config.log, "Failed to drop privs to group %s.\n", server_config.group);
    }
    if (server_config.user != nullptr && drop_to_user(server_config.user) != 0) {
        logprintf(2, server_config.log, "Failed to drop privs to user %s.\n", server_config.user);
    }
}

void announce_idle() { static_cast<void>(server_state.change(serverstate_currop::idle, 1)); }

// A worker starts with a current copy of the study hash. The listener does not wait for one: that
// is left to the worker when somebody else is at the file.
bool refresh_study_hash() {
    return !local_store.mustUpdateStudyHash() || local_store.tryUpdateStudyHash();
}

std::span<const std::uint8_t> bytes_of(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

void log_inbound_call(const tarvo::Caller& caller) {
    const auto request = bytes_of(caller.request);
    logprintf(32, server_config.log, "Inbound call from %s to %s\n",
              tarvo::calling_title(request).c_str(), tarvo::called_title(request).c_str());
}

// A worker lets go of the port and of everybody who is still at the door, so that the server can
// be started again while the worker serves. The number of the port's descriptor stays taken.
void leave_door(LoopState& state) {
    state.intake.close_all();
    const int door = DUL_networkSocket(state.listener->network);
    if (!state.null || ::dup2(state.null.get(), door) < 0) ::close(door);
}

// Hands the request to the toolkit as if it had just come from the network. Null when the toolkit
// does not take it.
T_ASC_Association* receive_association(LoopState& state, tarvo::Caller& caller) {
    state.transport.replay(std::move(caller.request));
    dcmExternalSocketHandle.set(caller.socket.release());  // the association closes it
    T_ASC_Association* association = nullptr;
    const OFCondition condition = ASC_receiveAssociation(state.listener, &association, receive_pdu,
                                                         nullptr, nullptr, OFFalse, DUL_BLOCK);
    dcmExternalSocketHandle.set(-1);
    if (condition.good()) return association;
    dump_condition(condition);
    // Their results change nothing: the worker ends.
    static_cast<void>(ASC_dropAssociation(association));
    static_cast<void>(ASC_destroyAssociation(&association));
    return nullptr;
}

void work(LoopState& state, tarvo::Caller& caller) {
    ::alarm(parse_limit);
    leave_door(state);
    T_ASC_Association* const association = receive_association(state, caller);
    if (association == nullptr) return;
    static_cast<void>(negotiate_and_serve(state.listener, association));
}

// What the toolkit and the libraries cannot get, they report by failing or by an exception. The
// association ends with this either way, and with an abort.
void end_out_of_memory(int socket) {
    logprintf(8, server_config.log, "Out of memory: association aborted\n");
    abort_association(socket);
}

// Serves as far as the memory goes.
void work_within_limits(LoopState& state, tarvo::Caller& caller) {
    tarvo::limit_worker(state.limits);
    const int socket = caller.socket.get();  // stays open when an exception skips its owner
    try {
        work(state, caller);
    } catch (const std::bad_alloc&) {
        tarvo::lift_memory_limit();
        end_out_of_memory(socket);
    }
}

void log_child_end(pid_t child, int status) {
    const char* how = " for an unknown reason";
    int number = 0;
    if (WIFSIGNALED(status)) {
        how = " due to signal";
        number = WTERMSIG(status);
    } else if (WIFEXITED(status)) {
        how = " with exit code";
        number = WEXITSTATUS(status);
        if (number == 0) return;
    }
    logprintf(8, server_config.log, "Child %d terminated%s %d.\n", static_cast<int>(child), how,
              number);
}

void reap_workers(LoopState& state) {
    int status = 0;
    for (pid_t child = 0; (child = ::waitpid(-1, &status, WNOHANG)) > 0;) {
        log_child_end(child, status);
        --state.workers;
    }
}

// What became of the wait for an association.
enum class Outcome { housekeeping, next_pass, worker_finished };

Outcome refuse(const tarvo::Caller& caller, Refusal refusal) {
    refuse_association(caller.socket.get(), refusal);
    return Outcome::next_pass;
}

Outcome serve(LoopState& state, tarvo::Caller caller) {
    // A client that comes back every few seconds must not keep a full server full for ever.
    reap_workers(state);
    // Greater than, not at least: one worker beyond the limit may run.
    if (state.workers > server_config.max_associations) {
        return refuse(caller, Refusal::too_many_associations);
    }
    const bool hash_is_current = refresh_study_hash();
    log_inbound_call(caller);
    const pid_t worker = tarvo::fork_worker();
    if (worker < 0) return refuse(caller, Refusal::fork_failure);
    if (worker == 0) {
        // A failure leaves the copy as it was.
        if (!hash_is_current) static_cast<void>(local_store.updateStudyHash());
        work_within_limits(state, caller);
        return Outcome::worker_finished;
    }
    ++state.workers;
    return Outcome::housekeeping;
}

Outcome wait_for_association(LoopState& state) {
    std::optional<tarvo::Caller> caller = state.intake.wait(wait_limit);
    return caller ? serve(state, std::move(*caller)) : Outcome::housekeeping;
}

int free_percent() {
    const auto total = static_cast<std::uint64_t>(local_store.LS_GetTotalSpace());
    const auto free = static_cast<std::uint64_t>(local_store.LS_GetFreeSpace());
    return total == 0 ? 100 : static_cast<int>(free * 100 / total);
}

void check_disk(LoopState& state) {
    const int percent = free_percent();
    // The fuller the disk, the more often it is looked at.
    state.disk_check_interval = percent < disk_nearly_full ? percent : check_interval;
    static_cast<void>(server_state.change(serverstate_currop::disk, percent));
    // Only now, while no worker runs, may records move.
    static_cast<void>(local_store.updateStudyHash());
    static_cast<void>(local_store.compactStudyHash());
    state.last_disk_check = now_seconds();
}

void report_idle(LoopState& state) {
    announce_idle();
    char text[256];
    std::snprintf(text, sizeof text, "DISCOVER_AET %s %d", server_config.aetitle,
                  server_config.server_port);
    server_state.change_verbose(text);
    if (now_seconds() > state.last_disk_check + state.disk_check_interval) check_disk(state);
}

void report_state(LoopState& state) {
    if (state.workers > 0) {
        static_cast<void>(server_state.change(serverstate_currop::busy, state.workers));
    } else {
        report_idle(state);
    }
}

void keep_house(LoopState& state) {
    reap_workers(state);
    report_state(state);
    static_cast<void>(server_state.checklisten());  // sockets that fail are tried again next pass
}

}  // namespace

void server_loop() {
    const tarvo::StopSignals stop;
    const tarvo::NetworkOwner listener(DCMTK_net_init_listen(server_config.server_port, 1));
    if (!listener) {
        logprintf(1, server_config.log, "Cannot open Network listener.\n");
        return;
    }
    logprintf(32, server_config.log, "Tarvo storage server %s listening on port %d\n",
              server_config.aetitle, server_config.server_port);
    drop_privileges();
    announce_idle();
    tarvo::TransportLayer transport;
    static_cast<void>(ASC_setTransportLayer(listener.get(), &transport, 0));  // takes any layer
    LoopState state{listener.get(), transport,
                    tarvo::Intake(DUL_networkSocket(listener->network), {}, stop.descriptor())};
    while (tarvo::StopSignals::received() == 0) {
        switch (wait_for_association(state)) {
            case Outcome::housekeeping:
                keep_house(state);
                break;
            case Outcome::next_pass:
                break;
            case Outcome::worker_finished:
                return;
        }
    }
    reap_workers(state);
    logprintf(32, server_config.log, "Ending on signal %d, %d workers go on.\n",
              tarvo::StopSignals::received(), state.workers);
}
