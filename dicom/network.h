// The toolkit's network object: the listener of the server or the starting point of outgoing
// associations (PS3.8).
#pragma once

#include <memory>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/assoc.h"

// Opens a listener on TCP port `port` of every IPv4 address; 0 lets the system choose one. With a
// non-zero `acceptorAndRequestor` the network also requests associations. A read that starts or
// ends an association waits at most 20 seconds. Null when the port cannot be opened; the caller
// gives the network back with DCMTK_net_exit.
//
// Two process-wide effects: outgoing connections are given up after 10 seconds, and the toolkit
// ignores SIGPIPE.
[[nodiscard]] T_ASC_Network* DCMTK_net_init_listen(int port, int acceptorAndRequestor);

// A network without a listener, for requesting associations. `timeout` in seconds bounds each
// read that starts or ends an association. Null on failure.
[[nodiscard]] T_ASC_Network* DCMTK_net_init(int timeout);

// Gives the network back and closes its listener; associations made with it stay usable. Returns
// 0, or 1 when the toolkit refuses. A null `network` is success. The caller's pointer dangles
// from here on.
int DCMTK_net_exit(T_ASC_Network* network);

namespace tarvo {

struct NetworkCloser {
    // A network that cannot be closed has been traced; nothing is left to do about it.
    void operator()(T_ASC_Network* network) const { static_cast<void>(DCMTK_net_exit(network)); }
};
using NetworkOwner = std::unique_ptr<T_ASC_Network, NetworkCloser>;

}  // namespace tarvo
