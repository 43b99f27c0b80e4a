// UDP multicast transport of the monitor protocol: one text message a datagram.
//
// Both kinds of socket are close-on-exec, survive a fork and belong to the caller. `group` is a
// dotted IPv4 address. Nothing is logged here: a failure is -1 and the caller tries again later.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

// The size of a message buffer: the longest datagram plus its terminating NUL.
inline constexpr std::size_t multicast_message_size = 1024;

// Reads the names of this host once and for all. Always returns 0.
int multicast_init();

// "TARVO_UNKNOWN" when the host has no name, and before multicast_init.
const char* multicast_get_hostname();

// Empty when no domain name is set.
const char* multicast_get_domainname();

// A socket connected to group:port, or -1.
[[nodiscard]] int multicast_sendsocket(std::uint16_t port, const char* group);

// A socket bound to any address on the port and member of the group, or -1. Other processes may
// listen on the same port. While some other program keeps the port to itself the call takes two
// seconds: three attempts with a pause of a second between them.
[[nodiscard]] int multicast_listen_udp(std::uint16_t port, const char* group);

// Sends "<host name> <process id> <message>\n" as one datagram of at most 1023 bytes: of a longer
// one the end is lost, the newline with it. Returns the bytes sent, -1 on failure or when the
// descriptor is -1.
int multicast_send(int descriptor, const char* message);

struct ReceivedDatagram {
    char text[multicast_message_size];
    std::size_t length;  // on the wire, which may be more than fits
    sockaddr_in sender;
    bool for_us;  // it was sent to the group, or by this host
};

// Takes the next datagram from a socket of multicast_listen_udp, if one has come in: never waits.
[[nodiscard]] bool multicast_receive(int descriptor, const char* group, ReceivedDatagram& datagram);
