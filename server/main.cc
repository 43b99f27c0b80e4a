#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "monitor/aetitle_map.h"
#include "monitor/serverstate.h"
#include "server/options.h"
#include "server/process.h"
#include "server/server_loop.h"
#include "server/start_up.h"
#include "store/local_store.h"
#include "support/file_helpers.h"
#include "support/log.h"
#include "support/paths.h"
#include "support/server_config.h"

namespace {

enum class Detached { parent, child, failed };

Detached detach_if_asked() {
    if (server_config.daemon == 0) return Detached::child;
    const int result = daemonize();
    if (result >= 0) return result > 0 ? Detached::parent : Detached::child;
    logprintf(1, server_config.log, "Cannot fork to become daemon.\n");
    return Detached::failed;
}

// Time to attach a debugger.
void wait_for_debugger() {
    if (server_config.debug >= 2) ::usleep(5'000'000);
}

void shut_down() {
    if (server_config.aetmap_fd >= 0) ::close(server_config.aetmap_fd);
    AETitleMap_Destroy(aetitle_map);
    local_store.setLogfile(nullptr);
}

// Ends the process without the destructors of what lives as long as it: taking the toolkit's data
// dictionary apart costs a worker more than an echo, since it copies every page that it shares with
// the listener. What has an effect outside is through: associations closed, files written, locks
// dropped with their descriptors, the log never buffered.
[[noreturn]] void leave() {
    std::fflush(nullptr);
#ifdef __SANITIZE_ADDRESS__
    std::exit(0);  // leaks are looked for on this way only
#else
    ::_exit(0);
#endif
}

}  // namespace

int main(int argc, char** argv) {
    tarvo::fill_standard_descriptors();
    std::signal(SIGPIPE, SIG_IGN);
    detect_installpath(argv[0]);
    if (!parse_options(argc, argv)) return 1;

    switch (detach_if_asked()) {
        case Detached::parent:
            return 0;
        case Detached::failed:
            return 1;
        case Detached::child:
            break;
    }
    wait_for_debugger();
    write_pid_file();
    open_log();
    set_verbosity();
    apply_umask();
    load_aetitle_map();
    std::string own_aetitle;
    settle_own_aetitle(own_aetitle);
    prepare_process();
    server_state.init();

    server_loop();  // comes back at the end of the listener, and of each worker in the worker

    shut_down();
    leave();
}
