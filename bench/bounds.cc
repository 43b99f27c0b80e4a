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

void check(bool good, const std::string& path) {
    if (!good) fail("cannot write " + path);
}

// Seconds to write files, with or without waiting for the disk.
double write_bound(const std::string& folder, const std::string& bytes, int count, bool wait) {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        const std::string path = folder + "/" + std::to_string(wait) + "." + std::to_string(i);
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const ssize_t written = ::write(file, bytes.data(), bytes.size());
        check(written == static_cast<ssize_t>(bytes.size()) && (!wait || ::fsync(file) == 0), path);
        ::close(file);
    }
    return seconds_since(start);
}

// Seconds to make files last: each has its contents on the disk before its name, and a record in an
// index beside it. What can be begun early is.
double durable_bound(const std::string& folder, const std::string& bytes, int count) {
    const std::string record(768, 'x');
    const std::string index_path = folder + "/index";
    const int directory = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    const int index = ::open(index_path.c_str(), O_WRONLY | O_CREAT, 0600);
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        const std::string path = folder + "/durable." + std::to_string(i);
        const std::string unnamed = path + ".tmp";
        check(::write(index, record.data(), record.size()) == 768, index_path);
        ::sync_file_range(index, 0, 0, SYNC_FILE_RANGE_WRITE);
        const int file = ::open(unnamed.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        const ssize_t written = ::write(file, bytes.data(), bytes.size());
        check(written == static_cast<ssize_t>(bytes.size()) && ::fsync(file) == 0, path);
        ::close(file);
        check(::rename(unnamed.c_str(), path.c_str()) == 0, path);
        check(::fdatasync(index) == 0 && ::fsync(directory) == 0, path);
    }
    const double seconds = seconds_since(start);
    ::close(index);
    ::close(directory);
    return seconds;
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
    const auto print = [](const char* name, double seconds) {
        std::printf("%s %.6f\n", name, seconds);
    };
    print("tcp", tcp_bound(bytes, count));
    print("write", write_bound(folder, bytes, count, false));
    print("fsync", write_bound(folder, bytes, count, true));
    print("durable", durable_bound(folder, bytes, count));
    print("fork", fork_bound(count));
}

}  // namespace bench
