// The state messages of a process of the server, and its ear on the monitor group.
#pragma once

#include <array>

#include "support/unique_fd.h"

enum class serverstate_currop { idle, busy, disk, echo, store, find, move };

// The word of each operation as it is announced, with a number behind it: IDLE always 1, BUSY the
// active workers, DISK the free space in percent, the others 1 at the start and 0 at the end.
inline constexpr std::array<const char*, 7> serverstate_message = {"IDLE",  "BUSY", "DISK", "ECHO",
                                                                   "STORE", "FIND", "MOVE"};

// Owns the two sockets of the monitor group, both closed at first. They go to the port and group
// of server_config. Workers inherit them at fork and announce their own process id.
class serverstate {
  public:
    // Reads the host's names and opens both sockets. What fails is tried again by checklisten().
    void init();

    // Opens whichever of the sockets is closed, for sending first.
    void check_connect();

    // Announces "STORAGE <word> <number>". Returns the bytes sent or -1, and the length of the
    // text while the socket is closed: then nothing is sent, now or later.
    int change(serverstate_currop operation, int number);

    // Announces "STORAGE <text>", if the socket is open.
    void change_verbose(const char* text);

    // Opens missing sockets, then handles the messages that have come in, at most 256 of them,
    // and never waits for one. Only those sent to the group or by this host count. Saves
    // aetitle_map to server_config.aetmap_fd when it learned something. Returns false when there is
    // no socket to listen to.
    bool checklisten();

    // Descriptors, -1 while closed. They stay this object's own.
    [[nodiscard]] int send_socket() const { return send_socket_.get(); }
    [[nodiscard]] int listen_socket() const { return listen_socket_.get(); }

  private:
    int announce(const char* text);

    tarvo::UniqueFd send_socket_;
    tarvo::UniqueFd listen_socket_;
};

extern serverstate server_state;
