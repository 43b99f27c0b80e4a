#include "monitor/multicast.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "support/unique_fd.h"

namespace {

constexpr int bind_attempts = 3;

struct HostNames {
    char host[256];
    char domain[256];
};

constexpr HostNames unnamed{"TARVO_UNKNOWN", ""};
constinit HostNames names = unnamed;

bool parse_group(const char* group, in_addr& address) {
    return ::inet_pton(AF_INET, group, &address) == 1;
}

sockaddr_in socket_address(in_addr address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr = address;
    result.sin_port = htons(port);
    return result;
}

tarvo::UniqueFd udp_socket() {
    return tarvo::UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

// The calls take every kind of socket address through this one type.
const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

bool bind_patiently(int descriptor, const sockaddr_in& address) {
    for (int attempt = 1;; ++attempt) {
        if (::bind(descriptor, generic(address), sizeof address) == 0) return true;
        if (attempt == bind_attempts) return false;
        ::sleep(1);
    }
}

bool join_group(int descriptor, in_addr group) {
    ip_mreq membership{};
    membership.imr_multiaddr = group;
    membership.imr_interface.s_addr = htonl(INADDR_ANY);
    return ::setsockopt(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership,
                        sizeof membership) == 0;
}

// The address that a received datagram was sent to; zero when unknown.
in_addr destination_of(msghdr& message) {
    in_pktinfo info{};
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_PKTINFO) continue;
        std::memcpy(&info, CMSG_DATA(part), sizeof info);
    }
    return info.ipi_addr;
}

// Whether an address belongs to this host: only then a socket can be bound to it. The system lets
// nothing in from outside that bears such a source address.
bool is_own(const sockaddr_in& sender) {
    if (sender.sin_addr.s_addr == htonl(INADDR_ANY)) return false;
    const tarvo::UniqueFd probe = udp_socket();
    const sockaddr_in any_port = socket_address(sender.sin_addr, 0);
    return probe && ::bind(probe.get(), generic(any_port), sizeof any_port) == 0;
}

bool is_for_us(msghdr& message, const sockaddr_in& sender, const char* group) {
    in_addr group_address{};
    if (!parse_group(group, group_address)) return false;
    return destination_of(message).s_addr == group_address.s_addr || is_own(sender);
}

}  // namespace

int multicast_init() {
    // The last byte of each name is never written and stays its terminator.
    if (::gethostname(names.host, sizeof names.host - 1) != 0 || names.host[0] == '\0') {
        names = unnamed;
    }
    // An unset domain reads as "(none)".
    if (::getdomainname(names.domain, sizeof names.domain - 1) != 0 || names.domain[0] == '(') {
        names.domain[0] = '\0';
    }
    return 0;
}

const char* multicast_get_hostname() { return names.host; }

const char* multicast_get_domainname() { return names.domain; }

int multicast_sendsocket(std::uint16_t port, const char* group) {
    in_addr group_address{};
    if (!parse_group(group, group_address)) return -1;
    const sockaddr_in address = socket_address(group_address, port);
    tarvo::UniqueFd descriptor = udp_socket();
    if (!descriptor || ::connect(descriptor.get(), generic(address), sizeof address) != 0) {
        return -1;
    }
    return descriptor.release();
}

int multicast_listen_udp(std::uint16_t port, const char* group) {
    in_addr group_address{};
    if (!parse_group(group, group_address)) return -1;
    tarvo::UniqueFd descriptor = udp_socket();
    const int on = 1;
    if (!descriptor ||
        ::setsockopt(descriptor.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::setsockopt(descriptor.get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0 ||
        !bind_patiently(descriptor.get(), socket_address({htonl(INADDR_ANY)}, port))) {
        return -1;
    }
    // Own messages come back, and receivers tell them by host name and process id. That is the
    // system's own default, so a refusal changes nothing.
    static_cast<void>(
        ::setsockopt(descriptor.get(), IPPROTO_IP, IP_MULTICAST_LOOP, &on, sizeof on));
    return join_group(descriptor.get(), group_address) ? descriptor.release() : -1;
}

int multicast_send(int descriptor, const char* message) {
    if (descriptor == -1) return -1;
    char datagram[multicast_message_size];
    const int length = std::snprintf(datagram, sizeof datagram, "%s %d %s\n", names.host,
                                     static_cast<int>(::getpid()), message);
    if (length < 0) return -1;
    const std::size_t kept = std::min(static_cast<std::size_t>(length), sizeof datagram - 1);
    return static_cast<int>(::send(descriptor, datagram, kept, 0));
}

bool multicast_receive(int descriptor, const char* group, ReceivedDatagram& datagram) {
    datagram.sender = {};
    iovec content{datagram.text, sizeof datagram.text};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
    msghdr message{};
    message.msg_name = &datagram.sender;
    message.msg_namelen = sizeof datagram.sender;
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = ::recvmsg(descriptor, &message, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0) return false;
    datagram.length = static_cast<std::size_t>(length);
    datagram.for_us = is_for_us(message, datagram.sender, group);
    return true;
}
