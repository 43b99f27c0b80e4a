// The steps of start-up between the command line and the server loop, in the order of main.
#pragma once

#include <string>

// Writes the process id to the pid file, when one is asked for. Failing is silent.
void write_pid_file();

// Opens the log file, when one is asked for, and hands the stream to the store. A log file that
// cannot be opened silences the process. Logs when stored images are not waited for.
void open_log();

// Sets the log levels of the process, the store and the toolkit from the number of -D options.
void set_verbosity();

void apply_umask();

// Loads the AE title map and keeps its file open for what is learned later, when it is writable.
void load_aetitle_map();

// Settles the own AE title: -a, else the entry "Local" of the AE title map, else "TarvoStorage".
// `storage` holds it and must outlive its use: the map may change while the server runs.
void settle_own_aetitle(std::string& storage);

// Signals, the toolkit's settings and its data dictionary: what has to stand before the first fork.
void prepare_process();
