// The wire: sockets on this machine, and what speaks PDUs (PS3.8) and messages (PS3.7) over them.
// Whatever does not go as it should ends the load generator.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace bench {

// Sockets, which become the caller's. Port 0 listens on any free one.
[[nodiscard]] int listen_on(int port);
[[nodiscard]] int connect_to(int port);

// One side of a connection that speaks PDUs. Takes the socket over and closes it.
class Peer {
  public:
    explicit Peer(int socket);
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    Peer(Peer&&) = delete;
    Peer& operator=(Peer&&) = delete;
    ~Peer();

    void write(std::string_view bytes);

    // The next PDU with its header; valid until the next call. Empty when the peer has closed.
    std::string_view receive();

    // Sends a message in PDUs of at most `longest` bytes, all in one piece.
    void send_message(std::size_t context, const std::string& request, const std::string& data,
                      std::size_t longest);

    // The command of the next message; its data set is read and thrown away. Empty on anything
    // that is not P-DATA: then `other` holds it.
    std::string receive_message(std::string& other);

    [[nodiscard]] std::size_t context() const { return context_; }  // of the message that came last

  private:
    [[nodiscard]] std::string_view view() const;
    bool fill(std::size_t wanted);

    int socket_;
    std::string buffer_;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
    std::size_t context_ = 0;
};

// An association that this side has opened with one context.
class Association {
  public:
    Association(int port, const char* sop_class);

    // Sends a request; `rest` are the elements behind the message id.
    void request(const char* sop_class, unsigned field, const std::string& rest,
                 const std::string& data);

    std::string response();

    void release();

  private:
    Peer peer_;
    std::size_t longest_ = 0;
    unsigned message_id_ = 0;
};

}  // namespace bench
