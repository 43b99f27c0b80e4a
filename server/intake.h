// The door of the listening process: accepts connections and reads one association request from
// each, waiting for nobody in particular.
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/unique_fd.h"

namespace tarvo {

[[nodiscard]] inline std::span<const std::uint8_t> bytes_of(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// A connection whose request has been read to its end.
struct Caller {
    UniqueFd socket;
    std::string request;  // one well-formed A-ASSOCIATE-RQ PDU, nothing more

    [[nodiscard]] std::span<const std::uint8_t> bytes() const { return bytes_of(request); }
};

// How much is kept of those who have not finished their request, and for how long.
struct IntakeLimits {
    std::size_t connections = 256;
    std::size_t bytes = std::size_t{32} << 20;  // received, of all
    std::int64_t header_time = 20'000;          // milliseconds for the first 6 bytes
    std::int64_t request_time = 60'000;         // milliseconds for the whole request
};

// Accepts connections and gives out those that have sent a request, in the order in which they
// came. When a limit is reached the oldest goes. A connection that sends anything but a well-formed
// request of a bearable size is closed with a line on the console: after an A-ABORT when it was
// another PDU, after an A-ASSOCIATE-RJ when it was for another version of the protocol
// (PS3.8, 9.3). One that closes without having sent anything leaves no trace.
class Intake {
  public:
    // The listening socket is borrowed; it becomes non-blocking. Any wait ends early while
    // `interrupt` is readable; it is borrowed too, -1 for none.
    explicit Intake(int listen_socket, IntakeLimits limits = {}, int interrupt = -1);

    // The next caller; nothing when `seconds` have passed without one, or at an interrupt.
    [[nodiscard]] std::optional<Caller> wait(int seconds);

    // Lets go of every connection, without a word: in a worker they are the parent's business.
    void close_all();

  private:
    struct Pending {
        UniqueFd socket;        // closed: to be forgotten
        std::int64_t accepted;  // milliseconds
        std::string received;
        std::size_t expected;  // bytes, as far as known
    };
    enum class Progress { waiting, advanced, complete, unusable };

    [[nodiscard]] std::optional<Caller> poll_once(std::int64_t end);
    [[nodiscard]] bool interrupted() const;
    [[nodiscard]] std::vector<pollfd> polled_sockets() const;
    [[nodiscard]] std::optional<Caller> read_ready(const std::vector<pollfd>& polled);
    [[nodiscard]] Progress read_from(Pending& pending);
    [[nodiscard]] Progress read_piece(Pending& pending);
    [[nodiscard]] Caller take(Pending& pending);

    void accept_waiting();
    void admit(UniqueFd socket);
    void make_room_for_bytes();
    void make_room_for_descriptors(int error);

    void drop(Pending& pending);
    void drop_oldest();
    void drop_late();
    void forget_dropped();
    [[nodiscard]] std::int64_t deadline_of(const Pending& pending) const;
    [[nodiscard]] int milliseconds_to_wait(std::int64_t end) const;

    int listen_socket_;
    IntakeLimits limits_;
    int interrupt_;
    std::vector<Pending> pending_;   // oldest first
    std::size_t received_ = 0;       // bytes, of all
    std::int64_t accept_again_ = 0;  // milliseconds; no accepting before
};

}  // namespace tarvo
