#include "dicom/transport_layer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "dcmtk/dcmnet/dcmtrans.h"

namespace tarvo {
namespace {

// How much is read beyond what the toolkit asks for: it reads a PDU's head of 6 bytes first and
// then the rest. A short message comes whole with its head, and a long one is hardly copied.
constexpr std::size_t read_ahead = 512;

// Up to so much is kept back until the peer's turn to speak.
constexpr std::size_t write_behind = 16384;

// The toolkit writes the head of a PDU, its body, and the command and data set of a message one
// after the other. Here they leave together, when the toolkit wants to hear from the peer.
class Connection : public DcmTCPConnection {
  public:
    Connection(DcmNativeSocketType socket, std::string replayed)
        : DcmTCPConnection(socket), received_(std::move(replayed)) {
        set_option(TCP_NODELAY);
        set_option(TCP_QUICKACK);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    Connection(Connection&&) = delete;
    Connection& operator=(Connection&&) = delete;
    ~Connection() override { Connection::close(); }

    ssize_t read(void* buffer, size_t length) override {
        if (!flush()) return -1;
        return received_.empty() ? receive(buffer, length) : hand_out(buffer, length);
    }

    ssize_t write(void* buffer, size_t length) override {
        const std::string_view bytes(static_cast<const char*>(buffer), length);
        if (unsent_.size() + length <= write_behind) {
            unsent_ += bytes;
            return static_cast<ssize_t>(length);
        }
        return send(bytes) ? static_cast<ssize_t>(length) : -1;
    }

    void close() override {
        // The peer is gone when this fails: there is nobody left to tell.
        static_cast<void>(flush());
        DcmTCPConnection::close();
    }

    OFBool networkDataAvailable(int timeout) override {
        // A failure shows in what is written next.
        return !flush() || !received_.empty() || DcmTCPConnection::networkDataAvailable(timeout);
    }

    // Not to be judged by its socket: what has been received may be in here.
    OFBool isTransparentConnection() override { return OFFalse; }

  private:
    // Nagle's algorithm on one side and a delayed acknowledgement on the other would stall each
    // message by 44 ms, also with peers that know nothing of it.
    void set_option(int option) {
        const int on = 1;
        // Without it the connection is slower, and works.
        static_cast<void>(::setsockopt(getSocket(), IPPROTO_TCP, option, &on, sizeof on));
    }

    ssize_t receive(void* buffer, size_t length) {
        char ahead[read_ahead];
        const iovec parts[] = {{buffer, length}, {ahead, sizeof ahead}};
        const ssize_t got = ::readv(getSocket(), parts, 2);
        set_option(TCP_QUICKACK);  // the system takes it back time and again
        if (got <= static_cast<ssize_t>(length)) return got;
        received_.assign(ahead, static_cast<std::size_t>(got) - length);
        used_ = 0;
        return static_cast<ssize_t>(length);
    }

    ssize_t hand_out(void* buffer, size_t length) {
        const size_t count = received_.copy(static_cast<char*>(buffer), length, used_);
        used_ += count;
        if (used_ == received_.size()) std::string().swap(received_);
        return static_cast<ssize_t>(count);
    }

    [[nodiscard]] bool flush() { return unsent_.empty() || send({}); }

    // Sends what is kept back, then `bytes`. Nothing is kept back afterwards, whatever happens.
    [[nodiscard]] bool send(std::string_view bytes) {
        const std::string first = std::exchange(unsent_, {});
        iovec parts[] = {{const_cast<char*>(first.data()), first.size()},
                         {const_cast<char*>(bytes.data()), bytes.size()}};
        while (parts[0].iov_len + parts[1].iov_len > 0) {
            const ssize_t sent = ::writev(getSocket(), parts, 2);
            if (sent < 0 && errno == EINTR) continue;
            if (sent < 0) {
                // Whatever came next the peer would take for the rest of this: it sees an end.
                static_cast<void>(::shutdown(getSocket(), SHUT_WR));
                return false;
            }
            auto left = static_cast<std::size_t>(sent);
            for (iovec& part : parts) left -= skip(part, left);
        }
        return true;
    }

    static std::size_t skip(iovec& part, std::size_t most) {
        const std::size_t count = std::min(part.iov_len, most);
        part.iov_base = static_cast<char*>(part.iov_base) + count;
        part.iov_len -= count;
        return count;
    }

    std::string received_;  // and not handed out, from used_ on
    std::size_t used_ = 0;
    std::string unsent_;
};

}  // namespace

DcmTransportConnection* TransportLayer::createConnection(DcmNativeSocketType socket,
                                                         OFBool useSecureLayer) {
    if (useSecureLayer) return DcmTransportLayer::createConnection(socket, useSecureLayer);
    return new Connection(socket, std::exchange(replayed_, std::string()));
}

}  // namespace tarvo
