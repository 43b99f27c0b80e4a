#include "support/server_config.h"

namespace {

ServerConfig default_config() {
    ServerConfig config{};
    config.server_port = 1104;
    config.multicast_group = "224.0.0.1";
    config.monitor_port = 1104;
    config.max_associations = 100;
    config.umask = 0xFFFFFFFF;
    config.log = stderr;
    config.aetmap_fd = -1;
    return config;
}

}  // namespace

// stderr is no constant: code sets this record before main, in no known order with the store
// object, which therefore never reads it while it is built.
ServerConfig server_config = default_config();
