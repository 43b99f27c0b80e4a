#include "bench/peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "bench/basics.h"
#include "bench/dicom_encoding.h"

namespace bench {
namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void append_fragments(std::string& out, std::size_t context, std::string_view bytes, int is_command,
                      std::size_t longest) {
    while (!bytes.empty()) {
        const std::size_t count = std::min(bytes.size(), longest - 6);
        const int flags = is_command | (count == bytes.size() ? 2 : 0);
        out += big(0x0400, 2) + big(count + 6, 4) + big(count + 2, 4) + big(context, 1);
        out += static_cast<char>(flags);
        out += bytes.substr(0, count);
        bytes.remove_prefix(count);
    }
}

}  // namespace

int listen_on(int port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = loopback(port);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 64) != 0) {
        fail("cannot listen");
    }
    return listener;
}

int connect_to(int port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("nobody listens on port " + std::to_string(port));
    }
    return socket;
}

Peer::Peer(int socket) : socket_(socket), buffer_(1 << 18, '\0') {
    const int on = 1;
    ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

Peer::~Peer() { ::close(socket_); }

void Peer::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (written <= 0) fail("the peer does not take what is sent");
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

std::string_view Peer::view() const {
    return std::string_view(buffer_).substr(start_, end_ - start_);
}

bool Peer::fill(std::size_t wanted) {
    if (end_ - start_ >= wanted) return true;
    std::memmove(buffer_.data(), buffer_.data() + start_, end_ - start_);
    end_ -= start_;
    start_ = 0;
    while (end_ < wanted) {
        const ssize_t got = ::recv(socket_, buffer_.data() + end_, buffer_.size() - end_, 0);
        if (got <= 0) return false;
        end_ += static_cast<std::size_t>(got);
    }
    return true;
}

std::string_view Peer::receive() {
    if (!fill(6)) return {};
    const std::size_t length = 6 + read_big(view(), 2, 4);
    if (length > buffer_.size()) fail("a PDU is longer than agreed");
    if (!fill(length)) return {};
    const std::string_view found = view().substr(0, length);
    start_ += length;
    return found;
}

void Peer::send_message(std::size_t context, const std::string& request, const std::string& data,
                        std::size_t longest) {
    std::string out;
    out.reserve(request.size() + data.size() + 12 * (2 + data.size() / longest));
    append_fragments(out, context, request, 1, longest);
    append_fragments(out, context, data, 0, longest);
    write(out);
}

std::string Peer::receive_message(std::string& other) {
    std::string received;
    for (bool has_data = false, at_end = false; !at_end;) {
        const std::string_view next = receive();
        if (next.empty() || next[0] != 4) return other = std::string(next), std::string();
        for (std::size_t at = 6; at < next.size(); at += 4 + read_big(next, at, 4)) {
            const char flags = next.at(at + 5);
            if ((flags & 1) != 0) {
                received += next.substr(at + 6, read_big(next, at, 4) - 2);
                context_ = static_cast<unsigned char>(next[at + 4]);
                if ((flags & 2) != 0) has_data = number_in(received, 0x0800) != 0x0101;
            }
            at_end = (flags & 2) != 0 && ((flags & 1) == 0 || !has_data);
        }
    }
    return received;
}

Association::Association(int port, const char* sop_class) : peer_(connect_to(port)) {
    peer_.write(associate(1, item(0x20, big(1, 1) + std::string(3, '\0') + item(0x30, sop_class) +
                                            item(0x40, explicit_little))));
    const std::string answer(peer_.receive());
    if (answer.empty() || answer[0] != 2) fail("the association was refused");
    const std::size_t length = answer.find(std::string("\x51\x00\x00\x04", 4));
    if (length != std::string::npos) longest_ = read_big(answer, length + 4, 4);
    if (longest_ == 0 || longest_ > our_pdu) longest_ = our_pdu;
    longest_ -= 6;  // some count the header, some do not
}

void Association::request(const char* sop_class, unsigned field, const std::string& rest,
                          const std::string& data) {
    const std::string elements = command_text(0x0002, sop_class) + command_number(0x0100, field) +
                                 command_number(0x0110, ++message_id_) + rest;
    peer_.send_message(1, command(elements), data, longest_);
}

std::string Association::response() {
    std::string other;
    std::string received = peer_.receive_message(other);
    if (received.empty()) fail("the association broke");
    return received;
}

void Association::release() {
    peer_.write(pdu(5, std::string(4, '\0')));
    if (peer_.receive().substr(0, 1) != "\x06") fail("the release was not answered");
}

}  // namespace bench
