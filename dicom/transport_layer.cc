#include "dicom/transport_layer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "dcmtk/dcmnet/dcmtrans.h"

namespace tarvo {
namespace {

class Connection : public DcmTCPConnection {
  public:
    Connection(DcmNativeSocketType socket, std::string replayed)
        : DcmTCPConnection(socket), replayed_(std::move(replayed)) {
        set_option(TCP_NODELAY);
        set_option(TCP_QUICKACK);
    }

    ssize_t read(void* buffer, size_t length) override {
        if (used_ < replayed_.size()) return read_replayed(buffer, length);
        const ssize_t result = DcmTCPConnection::read(buffer, length);
        set_option(TCP_QUICKACK);  // the system takes it back time and again
        return result;
    }

    OFBool networkDataAvailable(int timeout) override {
        return used_ < replayed_.size() || DcmTCPConnection::networkDataAvailable(timeout);
    }

  private:
    // The toolkit writes the head of a message and its body one after the other. Nagle's algorithm
    // on one side and a delayed acknowledgement on the other would stall each by 44 ms, also with
    // peers that know nothing of it.
    void set_option(int option) {
        const int on = 1;
        // Without it the connection is slower, and works.
        static_cast<void>(::setsockopt(getSocket(), IPPROTO_TCP, option, &on, sizeof on));
    }

    ssize_t read_replayed(void* buffer, size_t length) {
        const size_t count = std::min(length, replayed_.size() - used_);
        std::memcpy(buffer, replayed_.data() + used_, count);
        used_ += count;
        if (used_ == replayed_.size()) {
            std::string().swap(replayed_);
            used_ = 0;
        }
        return static_cast<ssize_t>(count);
    }

    std::string replayed_;
    size_t used_ = 0;
};

}  // namespace

DcmTransportConnection* TransportLayer::createConnection(DcmNativeSocketType socket,
                                                         OFBool useSecureLayer) {
    if (useSecureLayer) return DcmTransportLayer::createConnection(socket, useSecureLayer);
    return new Connection(socket, std::exchange(replayed_, std::string()));
}

}  // namespace tarvo
