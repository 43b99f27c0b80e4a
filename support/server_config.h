// The settings of the process: plain data, read by every layer, written only by server/ while it
// starts up. Workers inherit the record at fork.
#pragma once

#include <cstdint>
#include <cstdio>

struct ServerConfig {
    const char* aetitle;            // own AE title; null until start-up has settled it
    std::int32_t server_port;       // TCP port of the DICOM listener
    const char* multicast_group;    // IPv4 group of the monitor protocol
    std::int32_t monitor_port;      // UDP port of the monitor protocol; the low 16 bits count
    std::int32_t max_associations;  // one more may run
    const char* user;               // to switch to once the listener is open; null: stay
    const char* group;              // likewise
    std::uint32_t umask;            // all ones: not given
    FILE* log;                      // null silences the log; set to stderr before main
    const char* logfile;
    const char* pidfile;
    std::int32_t daemon;
    std::int32_t overwrite;       // C-STORE replaces an image that is already stored
    std::int32_t symlinks;        // keep the patient link tree
    std::int32_t debug;           // number of -D options
    std::int32_t no_unknown_sop;  // refuse SOP classes outside the standard storage list
    int aetmap_fd;                // AE title map file, held open read-write; -1: not held
    char charset[64];  // Specific Character Set of C-FIND responses; empty: none is added
};

extern ServerConfig server_config;
