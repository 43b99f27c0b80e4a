#include "server/intake.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <utility>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/dul.h"

#include "server/answers.h"
#include "server/association_request.h"

namespace tarvo {
namespace {

constexpr std::int64_t accept_pause = 100;  // milliseconds
constexpr int accepts_a_pass = 64;
constexpr int backlog = 512;

std::int64_t now_milliseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

void report(const char* what) { std::fprintf(stderr, "Association request %s\n", what); }

// Any PDU but a request, and but an abort, which nobody answers (PS3.8, 9.2.3, state 2).
bool is_other_pdu(const std::string& received) { return received[0] >= 2 && received[0] <= 6; }

// Answers as the toolkit does what it is not given to see. The header at least is there.
// Who does not take the answer learns the same from the connection's end.
void refuse(int socket, const std::string& received) {
    if (is_other_pdu(received)) {
        static_cast<void>(send_abort(socket, AbortSource::service_user));
    } else if (speaks_other_protocol(bytes_of(received))) {
        static_cast<void>(send_reject(socket, Refusal::other_protocol));
    }
    report("ill-formed: dropped");
}

bool is_bearable_request(const std::string& header) {
    const auto bytes = bytes_of(header);
    return bytes[0] == associate_request &&
           promised_length(bytes) <= dcmAssociatePDUSizeLimit.get();
}

bool is_acceptable(const std::string& request) {
    const auto bytes = bytes_of(request);
    return is_well_formed_request(bytes) && !speaks_other_protocol(bytes);
}

}  // namespace

Intake::Intake(int listen_socket, IntakeLimits limits, int interrupt)
    : listen_socket_(listen_socket), limits_(limits), interrupt_(interrupt) {
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
    } while (now_milliseconds() < end && !interrupted());
    return std::nullopt;
}

bool Intake::interrupted() const {
    pollfd polled{interrupt_, POLLIN, 0};
    return ::poll(&polled, 1, 0) > 0;
}

void Intake::close_all() {
    pending_.clear();
    received_ = 0;
}

std::optional<Caller> Intake::poll_once(std::int64_t end) {
    drop_late();
    std::vector<pollfd> polled = polled_sockets();
    if (::poll(polled.data(), polled.size(), milliseconds_to_wait(end)) <= 0) return std::nullopt;
    std::optional<Caller> caller = read_ready(polled);
    forget_dropped();
    // Not while somebody is through: those inside are served before others come in.
    if (!caller && polled[polled.size() - 2].revents != 0) accept_waiting();
    return caller;
}

// Those inside in their order, then the door and the interrupt.
std::vector<pollfd> Intake::polled_sockets() const {
    std::vector<pollfd> polled;
    polled.reserve(pending_.size() + 2);
    for (const Pending& pending : pending_) polled.push_back({pending.socket.get(), POLLIN, 0});
    const bool is_open = now_milliseconds() >= accept_again_;
    polled.push_back({is_open ? listen_socket_ : -1, POLLIN, 0});
    polled.push_back({interrupt_, POLLIN, 0});
    return polled;
}

// Reads from the oldest to the newest, up to the first whose request is complete.
std::optional<Caller> Intake::read_ready(const std::vector<pollfd>& polled) {
    for (std::size_t i = 0; i < pending_.size(); ++i) {
        Pending& pending = pending_[i];
        if (polled[i].revents == 0 || !pending.socket) continue;
        const Progress progress = read_from(pending);
        if (progress == Progress::complete) return take(pending);
        if (progress == Progress::unusable) drop(pending);
    }
    return std::nullopt;
}

// Reads what is there, up to the end of the request and no further.
Intake::Progress Intake::read_from(Pending& pending) {
    while (pending.received.size() < pending.expected) {
        const Progress progress = read_piece(pending);
        if (progress != Progress::advanced) return progress;
        if (pending.received.size() == pdu_header_length && is_bearable_request(pending.received)) {
            pending.expected += promised_length(bytes_of(pending.received));
        }
    }
    if (is_acceptable(pending.received)) return Progress::complete;
    refuse(pending.socket.get(), pending.received);
    return Progress::unusable;
}

Intake::Progress Intake::read_piece(Pending& pending) {
    char piece[16384];
    const std::size_t wanted = std::min(sizeof piece, pending.expected - pending.received.size());
    const ssize_t got = ::recv(pending.socket.get(), piece, wanted, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return Progress::waiting;
    if (got <= 0) {
        if (!pending.received.empty()) report("broken off");
        return Progress::unusable;
    }
    pending.received.append(piece, static_cast<std::size_t>(got));
    received_ += static_cast<std::size_t>(got);
    make_room_for_bytes();  // this one may have been the oldest
    return pending.socket ? Progress::advanced : Progress::unusable;
}

Caller Intake::take(Pending& pending) {
    received_ -= pending.received.size();
    return {std::move(pending.socket), std::exchange(pending.received, {})};
}

void Intake::accept_waiting() {
    for (int i = 0; i < accepts_a_pass; ++i) {
        UniqueFd socket(::accept4(listen_socket_, nullptr, nullptr, SOCK_CLOEXEC));
        if (socket) {
            admit(std::move(socket));
        } else if (errno != ECONNABORTED) {
            // Without a free descriptor accept fails even when nobody waits: only the first call,
            // for somebody whom poll has seen, tells.
            if (i == 0 && errno != EAGAIN && errno != EINTR) make_room_for_descriptors(errno);
            return;
        }
    }
}

void Intake::admit(UniqueFd socket) {
    if (pending_.size() >= limits_.connections) drop_oldest();
    pending_.push_back({std::move(socket), now_milliseconds(), {}, pdu_header_length});
}

void Intake::make_room_for_bytes() {
    for (Pending& oldest : pending_) {
        if (received_ <= limits_.bytes) return;
        if (oldest.socket) report("dropped to make room");
        drop(oldest);
    }
}

// The door would be found open for ever: rest, unless somebody can go.
void Intake::make_room_for_descriptors(int error) {
    const bool out_of_descriptors = error == EMFILE || error == ENFILE;
    if (out_of_descriptors && !pending_.empty()) {
        drop_oldest();
    } else {
        accept_again_ = now_milliseconds() + accept_pause;
    }
}

void Intake::drop(Pending& pending) {
    received_ -= pending.received.size();
    pending.received = {};
    pending.socket.reset();
}

void Intake::drop_oldest() {
    report("dropped to make room");
    drop(pending_.front());
    pending_.erase(pending_.begin());
}

void Intake::drop_late() {
    const std::int64_t now = now_milliseconds();
    for (Pending& pending : pending_) {
        if (now < deadline_of(pending)) continue;
        report("not received in time");
        drop(pending);
    }
    forget_dropped();
}

void Intake::forget_dropped() {
    std::erase_if(pending_, [](const Pending& pending) { return !pending.socket; });
}

std::int64_t Intake::deadline_of(const Pending& pending) const {
    const bool has_header = pending.received.size() >= pdu_header_length;
    return pending.accepted + (has_header ? limits_.request_time : limits_.header_time);
}

int Intake::milliseconds_to_wait(std::int64_t end) const {
    const std::int64_t now = now_milliseconds();
    std::int64_t until = end;
    if (accept_again_ > now) until = std::min(until, accept_again_);
    for (const Pending& pending : pending_) until = std::min(until, deadline_of(pending));
    return static_cast<int>(std::max<std::int64_t>(until - now, 0));
}

}  // namespace tarvo
