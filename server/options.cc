#include "server/options.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "support/bounded_string.h"
#include "support/server_config.h"

namespace {

// No range check: what an administrator asks for is taken.
std::int32_t decimal(const char* text) {
    return static_cast<std::int32_t>(std::strtol(text, nullptr, 10));
}

void print_usage(const char* program) {
    std::fprintf(stderr,
                 "Usage: %s [-a AETitle] [-p ServerPort] [-m MonitorPort]\n"
                 "       [-u DropToUserName] [-g DropToGroupName] [-U umask]\n"
                 "       [-l logfile] [-P pidfile] [-d] [-D] [-o] [-s] [-N]\n",
                 program);
}

// Takes an option that has an argument. Returns false when `option` is none of them.
bool take_value(int option, const char* value) {
    switch (option) {
        case 'a':
            server_config.aetitle = value;
            return true;
        case 'p':  // Both ports, so an earlier -m is overridden and a later one overrides.
            server_config.server_port = server_config.monitor_port = decimal(value);
            return true;
        case 'm':
            server_config.monitor_port = decimal(value);
            return true;
        case 'u':
            server_config.user = value;
            return true;
        case 'g':
            server_config.group = value;
            return true;
        case 'U':
            server_config.umask = static_cast<std::uint32_t>(std::strtol(value, nullptr, 8));
            return true;
        case 'l':
            server_config.logfile = value;
            return true;
        case 'P':
            server_config.pidfile = value;
            return true;
        case 'M':
            server_config.max_associations = decimal(value);
            return true;
        case 'E':  // A longer text is cut at 63 characters.
            static_cast<void>(
                vr_strncpy(server_config.charset, value, sizeof server_config.charset));
            return true;
        default:
            return false;
    }
}

// Takes an option without an argument. Returns false when `option` is none of them.
bool take_flag(int option) {
    switch (option) {
        case 'd':
            server_config.daemon = 1;
            return true;
        case 'o':
            server_config.overwrite = 1;
            return true;
        case 's':
            server_config.symlinks = 1;
            return true;
        case 'D':
            server_config.debug += 1;
            return true;
        case 'N':
            server_config.no_unknown_sop = 1;
            return true;
        default:
            return false;
    }
}

}  // namespace

bool parse_options(int argc, char** argv) {
    opterr = 0;  // the usage text says all there is to say
    int option = -1;
    while ((option = ::getopt(argc, argv, "a:p:m:u:U:g:l:P:M:dosDE:hN")) != -1) {
        if (take_value(option, optarg) || take_flag(option)) continue;
        print_usage(argv[0]);
        return false;
    }
    return true;
}
