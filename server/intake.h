// The door of the listening process: accepts connections and reads one association request from
// each, waiting for nobody in particular.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/unique_fd.h"

namespace tarvo {

// A connection whose request has been read to its end.
struct Caller {
    UniqueFd socket;
    std::string request;  // one well-formed A-ASSOCIATE-RQ PDU, nothing more
};

// Keeps at most 256 connections and 32 MB of what they have sent; when there is no room the oldest
// goes. A connection has 20 seconds for its first 6 bytes and 60 for its whole request. One that
// sends anything but a well-formed request of a bearable size is closed, after an A-ABORT when it
// sent another kind of PDU, with a line on the console.
class Intake {
  public:
    // The listening socket is borrowed; it becomes non-blocking.
    explicit Intake(int listen_socket);

    // The next caller; nothing when `seconds` have passed without one.
    [[nodiscard]] std::optional<Caller> wait(int seconds);

    // Lets go of every connection, without a word: in a worker they are the parent's business.
    void close_all();

  private:
    struct Pending {
        UniqueFd socket;
        std::int64_t accepted;  // milliseconds
        std::string received;
        std::size_t expected;  // bytes, as far as known
    };
    enum class Progress { waiting, complete, unusable };

    [[nodiscard]] std::optional<Caller> poll_once(std::int64_t end);
    void accept_waiting();
    void admit(UniqueFd socket);
    void drop(std::size_t index);
    void drop_late();
    void make_room_for_descriptors();
    [[nodiscard]] static std::int64_t deadline_of(const Pending& pending);
    [[nodiscard]] int milliseconds_to_wait(std::int64_t end) const;
    [[nodiscard]] Progress read_from(Pending& pending);

    int listen_socket_;
    std::vector<Pending> pending_;   // oldest first
    std::size_t received_ = 0;       // bytes, of all
    std::int64_t accept_again_ = 0;  // milliseconds; no accepting before
};

}  // namespace tarvo
