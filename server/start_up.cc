#include "server/start_up.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmdata/dcdict.h"
#include "dcmtk/dcmnet/dcmtrans.h"
#include "dcmtk/dcmnet/dul.h"
#include "dcmtk/oflog/oflog.h"

#include "monitor/aetitle_map.h"
#include "store/local_store.h"
#include "support/log.h"
#include "support/server_config.h"

namespace {

constexpr mode_t map_file_mode = 0666;

void list_aetitle_map() {
    logprintf(64, server_config.log, "AE-Title map table:\n");
    for (std::size_t index = 0;; ++index) {
        const AETitleMapEntry* const entry = AETitleMap_FindByNum(aetitle_map, index);
        if (entry == nullptr) return;
        logprintf(64, server_config.log, "%-10s %-10s %-20s (%s) %s\n", entry->name.c_str(),
                  entry->aetitle.c_str(), entry->address.c_str(),
                  AETitleMap_flagstochars(entry->flags),
                  entry->comment ? entry->comment->c_str() : "");
    }
}

}  // namespace

void write_pid_file() {
    if (server_config.pidfile == nullptr) return;
    FILE* const file = std::fopen(server_config.pidfile, "we");
    if (file == nullptr) return;
    std::fprintf(file, "%d\n", static_cast<int>(::getpid()));
    std::fclose(file);
}

void open_log() {
    if (server_config.logfile != nullptr) {
        server_config.log = std::fopen(server_config.logfile, "ae");
    }
    local_store.setLogfile(server_config.log);
    if (!local_store.waitsForDisk()) {
        logprintf(16, server_config.log,
                  "TARVO_SYNC=off: a power cut may lose images that were stored with success.\n");
    }
}

void set_verbosity() {
    if (server_config.debug == 1) {
        logprintf_setmaxlevel(128);
        local_store.verbosity = 5;
    } else if (server_config.debug >= 2) {
        logprintf_setmaxlevel(256);
        local_store.verbosity = 6;
    }
    // The toolkit complains on standard error about every oddity of a stranger's data set.
    OFLog::configure(server_config.debug > 0 ? OFLogger::WARN_LOG_LEVEL
                                             : OFLogger::FATAL_LOG_LEVEL);
}

void apply_umask() {
    if (server_config.umask == UINT32_MAX) return;
    ::umask(static_cast<mode_t>(server_config.umask));
}

void load_aetitle_map() {
    AETitleMap_Create(aetitle_map);
    const int descriptor = AETitleMap_Open(nullptr, O_RDWR | O_CREAT, map_file_mode);
    if (descriptor < 0) {
        // A map that cannot be read either leaves the map empty: the server serves without it.
        static_cast<void>(AETitleMap_Load(aetitle_map, nullptr));
        return;
    }
    if (AETitleMap_Load_fd(aetitle_map, descriptor) == 0) {
        server_config.aetmap_fd = descriptor;
    } else {
        ::close(descriptor);  // saving a map that was read in part would lose the rest
    }
    list_aetitle_map();
}

void settle_own_aetitle(std::string& storage) {
    if (server_config.aetitle != nullptr) return;
    const AETitleMapEntry* const local = AETitleMap_FindByName(aetitle_map, tarvo::own_entry_name);
    storage = local != nullptr ? local->aetitle : "TarvoStorage";
    server_config.aetitle = storage.c_str();
}

void prepare_process() {
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);  // whoever started us may have held some back
    std::signal(SIGALRM, SIG_IGN);        // workers take the default back: there it is the watchdog
    std::signal(SIGCHLD, SIG_DFL);        // ignored, the ends of workers would not be told
    dcmDisableGethostbyaddr.set(OFTrue);  // a name server that is down must not hold anybody up
    // The alarm says when a silence is too long: for a move's destination later than the toolkit's
    // own minute, after which it would get the image a second time.
    dcmSocketReceiveTimeout.set(-1);
    dcmSocketSendTimeout.set(-1);
    // Loaded here once instead of in each worker.
    static_cast<void>(dcmDataDict.rdlock().numberOfEntries());
    dcmDataDict.rdunlock();
}
