#include "bench/bounds.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "bench/basics.h"
#include "bench/peer.h"

namespace bench {
namespace {

// Seconds to write files, with or without waiting for the disk.
double write_bound(const std::string& folder, const std::string& bytes, int count, bool wait) {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        const std::string path = folder + "/" + std::to_string(wait) + "." + std::to_string(i);
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (::write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
            (wait && ::fsync(file) != 0)) {
            fail("cannot write " + path);
        }
        ::close(file);
    }
    return seconds_since(start);
}

// Takes pieces of `size` bytes from whoever connects, until he closes.
void acknowledge_pieces(int listener, std::size_t size) {
    const int socket = ::accept(listener, nullptr, nullptr);
    std::string buffer(size, '\0');
    while (::recv(socket, buffer.data(), buffer.size(), MSG_WAITALL) > 0) {
        if (::send(socket, "", 1, MSG_NOSIGNAL) != 1) break;
    }
}

// Seconds to hand that many pieces to another process over TCP, each acknowledged by a byte.
double tcp_bound(const std::string& bytes, int count) {
    const int listener = listen_on(0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const pid_t receiver = ::fork();
    if (receiver == 0) {
        acknowledge_pieces(listener, bytes.size());
        std::_Exit(0);
    }
    const auto start = Clock::now();
    {
        const int socket = connect_to(ntohs(address.sin_port));
        Peer peer(socket);
        char answer = 0;
        for (int i = 0; i < count; ++i) {
            peer.write(bytes);
            if (::recv(socket, &answer, 1, 0) != 1) fail("no answer over TCP");
        }
    }
    ::close(listener);
    ::waitpid(receiver, nullptr, 0);
    return seconds_since(start);
}

double fork_bound(int count) {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        const pid_t child = ::fork();
        if (child == 0) std::_Exit(0);
        ::waitpid(child, nullptr, 0);
    }
    return seconds_since(start);
}

}  // namespace

void bounds(const std::string& folder, std::size_t size, int count) {
    const std::string bytes(size, 'x');
    std::printf("tcp %.6f\nwrite %.6f\nfsync %.6f\nfork %.6f\n", tcp_bound(bytes, count),
                write_bound(folder, bytes, count, false), write_bound(folder, bytes, count, true),
                fork_bound(count));
}

}  // namespace bench
