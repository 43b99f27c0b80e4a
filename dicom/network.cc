#include "dicom/network.h"

#include <fcntl.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/dul.h"

#include "dicom/toolkit_trace.h"

namespace {

constexpr int connection_timeout_seconds = 10;
constexpr int listener_timeout_seconds = 20;

// The toolkit opens its sockets without close-on-exec.
void close_listener_on_exec(const T_ASC_Network& network) {
    const int listener = DUL_networkSocket(network.network);
    // Without effect on the work of the server, which never runs another program.
    static_cast<void>(::fcntl(listener, F_SETFD, FD_CLOEXEC));
}

}  // namespace

T_ASC_Network* DCMTK_net_init_listen(int port, int acceptorAndRequestor) {
    dcmConnectionTimeout.set(connection_timeout_seconds);
    const T_ASC_NetworkRole role = acceptorAndRequestor != 0 ? NET_ACCEPTORREQUESTOR : NET_ACCEPTOR;
    T_ASC_Network* network = nullptr;
    if (ASC_initializeNetwork(role, port, listener_timeout_seconds, &network).bad()) {
        tarvo::trace_toolkit_failure("DCMTK_net_init_listen: Failed.\n");
        return nullptr;
    }
    close_listener_on_exec(*network);
    return network;
}

T_ASC_Network* DCMTK_net_init(int timeout) {
    T_ASC_Network* network = nullptr;
    if (ASC_initializeNetwork(NET_REQUESTOR, 0, timeout, &network).bad()) {
        tarvo::trace_toolkit_failure("DCMTK_net_init: Failed.\n");
        return nullptr;
    }
    return network;
}

int DCMTK_net_exit(T_ASC_Network* network) {
    if (ASC_dropNetwork(&network).bad()) {
        tarvo::trace_toolkit_failure("DCMTK_net_exit: Failed.\n");
        return 1;
    }
    return 0;
}
