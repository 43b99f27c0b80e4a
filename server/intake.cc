#include "server/intake.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <span>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/dul.h"

#include "server/association_request.h"

namespace tarvo {
namespace {

constexpr std::size_t most_pending = 256;
constexpr std::size_t most_received = std::size_t{32} << 20;  // bytes
constexpr std::int64_t header_limit = 20'000;                 // milliseconds
constexpr std::int64_t request_limit = 60'000;
constexpr std::int64_t descriptor_pause = 100;  // milliseconds without a free descriptor
constexpr int accepts_a_pass = 64;
constexpr int backlog = 512;

std::int64_t now_milliseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

std::span<const std::uint8_t> bytes_of(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// What answers a PDU that has no place before an association (PS3.8, 9.2.3, action AA-1).
void send_abort(int socket) {
    static constexpr char abort[] = "\7\0\0\0\0\4\0\0\0\0";
    // A peer that does not take it learns the same from the connection's end.
    static_cast<void>(::send(socket, abort, sizeof abort - 1, MSG_DONTWAIT | MSG_NOSIGNAL));
}

bool is_other_pdu(const std::string& received) {
    return received.size() >= pdu_header_length && received[0] >= 2 && received[0] <= 7;
}

bool is_bearable_request(const std::string& header) {
    const auto bytes = bytes_of(header);
    return bytes[0] == associate_request &&
           promised_length(bytes) <= dcmAssociatePDUSizeLimit.get();
}

}  // namespace

Intake::Intake(int listen_socket) : listen_socket_(listen_socket) {
    const int flags = ::fcntl(listen_socket_, F_GETFL);
    if (flags < 0 || ::fcntl(listen_socket_, F_SETFL, flags | O_NONBLOCK) < 0 ||
        ::listen(listen_socket_, backlog) < 0) {
        std::perror("listening socket");  // it goes on as the toolkit opened it
    }
}

std::optional<Caller> Intake::wait(int seconds) {
    const std::int64_t end = now_milliseconds() + std::int64_t{seconds} * 1000;
    do {
        if (std::optional<Caller> caller = poll_once(end)) return caller;
    } while (now_milliseconds() < end);
    return std::nullopt;
}

void Intake::close_all() {
    pending_.clear();
    received_ = 0;
}

std::optional<Caller> Intake::poll_once(std::int64_t end) {
    drop_late();
    std::vector<pollfd> polled;
    polled.reserve(pending_.size() + 1);
    for (const Pending& pending : pending_) polled.push_back({pending.socket.get(), POLLIN, 0});
    const bool accepting = now_milliseconds() >= accept_again_;
    polled.push_back({listen_socket_, static_cast<short>(accepting ? POLLIN : 0), 0});
    if (::poll(polled.data(), polled.size(), milliseconds_to_wait(end)) <= 0) return std::nullopt;
    // From the newest back: dropping one leaves the numbers of those still to come.
    for (std::size_t i = pending_.size(); i-- > 0;) {
        if (polled[i].revents == 0) continue;
        const Progress progress = read_from(pending_[i]);
        if (progress == Progress::waiting) continue;
        Caller caller{std::move(pending_[i].socket), pending_[i].received};
        drop(i);
        if (progress == Progress::complete) return caller;
    }
    if (polled.back().revents != 0) accept_waiting();
    return std::nullopt;
}

void Intake::accept_waiting() {
    for (int i = 0; i < accepts_a_pass; ++i) {
        UniqueFd socket(::accept4(listen_socket_, nullptr, nullptr, SOCK_CLOEXEC));
        if (socket) {
            admit(std::move(socket));
        } else {
            if (errno == EMFILE || errno == ENFILE) make_room_for_descriptors();
            return;
        }
    }
}

void Intake::admit(UniqueFd socket) {
    while (pending_.size() >= most_pending || (received_ > most_received && !pending_.empty())) {
        drop(0);
    }
    pending_.push_back({std::move(socket), now_milliseconds(), {}, pdu_header_length});
}

void Intake::drop(std::size_t index) {
    received_ -= pending_[index].received.size();
    pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(index));
}

std::int64_t Intake::deadline_of(const Pending& pending) {
    const bool has_header = pending.received.size() >= pdu_header_length;
    return pending.accepted + (has_header ? request_limit : header_limit);
}

void Intake::drop_late() {
    const std::int64_t now = now_milliseconds();
    for (std::size_t i = pending_.size(); i-- > 0;) {
        if (now < deadline_of(pending_[i])) continue;
        std::fprintf(stderr, "Association request not received in time\n");
        drop(i);
    }
}

// The listener would be readable for ever: rest, unless somebody can go.
void Intake::make_room_for_descriptors() {
    if (!pending_.empty()) {
        drop(0);
    } else {
        accept_again_ = now_milliseconds() + descriptor_pause;
    }
}

int Intake::milliseconds_to_wait(std::int64_t end) const {
    const std::int64_t now = now_milliseconds();
    std::int64_t until = end;
    if (accept_again_ > now) until = std::min(until, accept_again_);
    for (const Pending& pending : pending_) {
        until = std::min(until, deadline_of(pending));
    }
    return static_cast<int>(std::max<std::int64_t>(until - now, 0));
}

// Reads what is there, up to the end of the request and no further.
Intake::Progress Intake::read_from(Pending& pending) {
    for (;;) {
        char piece[16384];
        const std::size_t wanted =
            std::min(sizeof piece, pending.expected - pending.received.size());
        const ssize_t got = ::recv(pending.socket.get(), piece, wanted, MSG_DONTWAIT);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && errno == EAGAIN) return Progress::waiting;
        if (got <= 0) return Progress::unusable;
        pending.received.append(piece, static_cast<std::size_t>(got));
        received_ += static_cast<std::size_t>(got);
        if (pending.received.size() < pending.expected) continue;
        if (pending.expected > pdu_header_length) break;
        if (!is_bearable_request(pending.received)) break;
        pending.expected += promised_length(bytes_of(pending.received));
        if (pending.expected == pdu_header_length) break;
    }
    if (is_well_formed_request(bytes_of(pending.received))) return Progress::complete;
    if (is_other_pdu(pending.received)) send_abort(pending.socket.get());
    std::fprintf(stderr, "Ill-formed association request dropped\n");
    return Progress::unusable;
}

}  // namespace tarvo
