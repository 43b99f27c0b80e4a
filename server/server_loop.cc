#include "server/server_loop.h"

#include <sys/wait.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <utility>
#include <vector>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/assoc.h"
#include "dcmtk/dcmnet/dul.h"

#include "dicom/association.h"
#include "dicom/network.h"
#include "dicom/transport_layer.h"
#include "monitor/serverstate.h"
#include "server/answers.h"
#include "server/association_request.h"
#include "server/intake.h"
#include "server/process.h"
#include "server/stop_signals.h"
#include "server/worker.h"
#include "store/local_store.h"
#include "support/log.h"
#include "support/server_config.h"
#include "support/unique_fd.h"

namespace {

constexpr int wait_limit = 5;         // seconds a pass waits for an association
constexpr int check_interval = 60;    // seconds between two disk checks
constexpr int disk_nearly_full = 20;  // percent free below which the disk is checked more often

// A clock that nobody sets back.
std::int64_t now_seconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

struct LoopState {
    tarvo::Intake& intake;
    tarvo::Workplace workplace;
    std::vector<pid_t> workers{};
    std::int64_t disk_check_interval = check_interval;  // seconds
    std::int64_t last_disk_check = now_seconds();
};

std::int32_t worker_count(const LoopState& state) {
    return static_cast<std::int32_t>(state.workers.size());
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

// A worker starts with a current copy of the study hash. The listener does not wait for one: that
// is left to the worker when somebody else is at the file.
bool refresh_study_hash() {
    return !local_store.mustUpdateStudyHash() || local_store.tryUpdateStudyHash();
}

void log_inbound_call(const tarvo::Caller& caller) {
    logprintf(32, server_config.log, "Inbound call from %s to %s\n",
              tarvo::calling_title(caller.bytes()).c_str(),
              tarvo::called_title(caller.bytes()).c_str());
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
        // Whoever started us may have left us other children, and process 1 gets every orphan.
        if (std::erase(state.workers, child) > 0) log_child_end(child, status);
    }
}

// What became of the wait for an association.
enum class Outcome { housekeeping, next_pass, worker_finished };

Outcome refuse(const tarvo::Caller& caller, tarvo::Refusal refusal) {
    tarvo::refuse_association(caller.socket.get(), refusal);
    return Outcome::next_pass;
}

Outcome serve(LoopState& state, tarvo::Caller caller) {
    // A client that comes back every few seconds must not keep a full server full for ever.
    reap_workers(state);
    // Greater than, not at least: one worker beyond the limit may run.
    if (worker_count(state) > server_config.max_associations) {
        return refuse(caller, tarvo::Refusal::too_many_associations);
    }
    const bool hash_is_current = refresh_study_hash();
    log_inbound_call(caller);
    state.workers.reserve(state.workers.size() + 1);  // no failure between fork and entry
    const pid_t worker = tarvo::fork_worker();
    if (worker < 0) return refuse(caller, tarvo::Refusal::fork_failure);
    if (worker == 0) {
        tarvo::run_worker(state.workplace, caller, hash_is_current);
        return Outcome::worker_finished;
    }
    state.workers.push_back(worker);
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
    // Only now, while no worker runs, may records move. A worker of another server on this store
    // may be at the file: nobody waits for it here, and the next check comes.
    static_cast<void>(local_store.tryUpdateStudyHash());
    static_cast<void>(local_store.tryCompactStudyHash());
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
    if (!state.workers.empty()) {
        static_cast<void>(server_state.change(serverstate_currop::busy, worker_count(state)));
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
    tarvo::Intake intake(DUL_networkSocket(listener->network), {}, stop.descriptor());
    LoopState state{intake, {listener.get(), transport, intake}};
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
              tarvo::StopSignals::received(), worker_count(state));
}
