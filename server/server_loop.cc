#include "server/server_loop.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/assoc.h"

#include "dicom/association.h"
#include "dicom/network.h"
#include "monitor/serverstate.h"
#include "server/negotiation.h"
#include "server/process.h"
#include "store/local_store.h"
#include "support/log.h"
#include "support/server_config.h"

namespace {

constexpr int wait_limit = 5;         // seconds a pass waits for an association
constexpr long receive_pdu = 16384;   // largest PDU that a peer may send
constexpr int drop_wait = 180;        // seconds a peer has to close its side
constexpr int check_interval = 60;    // seconds between two disk checks
constexpr int disk_nearly_full = 20;  // percent free below which the disk is checked more often

struct LoopState {
    T_ASC_Network* listener;
    std::int32_t workers;
    std::int64_t disk_check_interval;  // seconds
    std::int64_t last_disk_check;
};

// What became of the wait for an association.
enum class Outcome { housekeeping, next_pass, worker_finished };

// A clock that nobody sets back.
std::int64_t now_seconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

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

// A connection that is closed before its first byte counts as received for the toolkit.
bool is_silent(const T_ASC_Association* association) {
    const DUL_ASSOCIATESERVICEPARAMETERS& proposed = association->params->DULparams;
    return proposed.applicationContextName[0] == '\0' && proposed.callingAPTitle[0] == '\0' &&
           proposed.calledAPTitle[0] == '\0' &&
           ASC_countPresentationContexts(association->params) == 0;
}

// Receives the association that is waiting. Returns null when that failed, or when the peer left
// without a word.
T_ASC_Association* receive_association(T_ASC_Network* listener) {
    T_ASC_Association* association = nullptr;
    const OFCondition condition = ASC_receiveAssociation(listener, &association, receive_pdu,
                                                         nullptr, nullptr, OFFalse, DUL_BLOCK);
    if (condition.good() && !is_silent(association)) return association;
    if (condition.bad()) dump_condition(condition);
    // Its result changes nothing: the peer is gone or was never there.
    static_cast<void>(ASC_dropSCPAssociation(association, drop_wait));
    static_cast<void>(ASC_destroyAssociation(&association));
    return nullptr;
}

// A worker starts with a current copy of the study hash.
void refresh_study_hash() {
    if (!local_store.mustUpdateStudyHash()) return;
    static_cast<void>(local_store.updateStudyHash());  // a failure leaves the copy as it was
}

void log_inbound_call(T_ASC_Association* association) {
    char calling[17] = "";
    char called[17] = "";
    const OFCondition condition = ASC_getAPTitles(association->params, calling, sizeof calling,
                                                  called, sizeof called, nullptr, 0);
    if (condition.bad()) return;
    logprintf(32, server_config.log, "Inbound call from %s to %s\n", calling, called);
}

void work(T_ASC_Network* listener, T_ASC_Association* association) {
    std::signal(SIGALRM, SIG_DFL);  // the watchdogs of a worker end it
    static_cast<void>(negotiate_and_serve(listener, association));
}

Outcome refuse(T_ASC_Association* association, Refusal refusal) {
    static_cast<void>(refuse_or_release(association, refusal));  // it logs its failures
    return Outcome::next_pass;
}

Outcome serve(LoopState& state, T_ASC_Association* association) {
    // Greater than, not at least: one worker beyond the limit may run.
    if (state.workers > server_config.max_associations) {
        return refuse(association, Refusal::too_many_associations);
    }
    refresh_study_hash();
    log_inbound_call(association);
    const pid_t worker = ::fork();
    if (worker < 0) return refuse(association, Refusal::fork_failure);
    if (worker == 0) {
        work(state.listener, association);
        return Outcome::worker_finished;
    }
    ++state.workers;
    static_cast<void>(refuse_or_release(association, Refusal::parent_release));
    return Outcome::housekeeping;
}

Outcome wait_for_association(LoopState& state) {
    if (!ASC_associationWaiting(state.listener, wait_limit)) return Outcome::housekeeping;
    T_ASC_Association* const association = receive_association(state.listener);
    return association != nullptr ? serve(state, association) : Outcome::housekeeping;
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
    const tarvo::NetworkOwner listener(DCMTK_net_init_listen(server_config.server_port, 1));
    if (!listener) {
        logprintf(1, server_config.log, "Cannot open Network listener.\n");
        return;
    }
    logprintf(32, server_config.log, "Tarvo storage server %s listening on port %d\n",
              server_config.aetitle, server_config.server_port);
    drop_privileges();
    announce_idle();
    LoopState state{listener.get(), 0, check_interval, now_seconds()};
    for (;;) {
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
}
