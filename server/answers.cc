#include "server/answers.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "support/log.h"
#include "support/server_config.h"

namespace tarvo {

namespace {

constexpr unsigned abort_limit = 10;  // seconds

// What a refusal says and sends.
struct RefusalForm {
    const char* text;
    char result;  // 1 permanent, 2 transient
    char source;  // 2 service provider, ACSE related; 3 presentation related
    char reason;
};

constexpr RefusalForm form_of(Refusal refusal) {
    switch (refusal) {
        case Refusal::too_many_associations:
            return {"too many ongoing associations", 2, 3, 2};  // local limit exceeded
        case Refusal::fork_failure:
            // A permanent result with a temporary reason, congestion: peers know this pair and try
            // again later.
            return {"failure forking worker thread", 1, 3, 1};
        default:
            return {"another version of the protocol", 1, 2, 2};
    }
}

template <std::size_t size>
bool send_pdu(int socket, const char (&pdu)[size], int flags) {
    return ::send(socket, pdu, size, flags | MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool send_abort(int socket, AbortSource source, int flags) {
    return send_pdu(socket, {7, 0, 0, 0, 0, 4, 0, 0, static_cast<char>(source), 0}, flags);
}

}  // namespace

bool send_abort(int socket, AbortSource source) { return send_abort(socket, source, MSG_DONTWAIT); }

bool send_reject(int socket, Refusal refusal) {
    const RefusalForm form = form_of(refusal);
    return send_pdu(socket, {3, 0, 0, 0, 0, 4, 0, form.result, form.source, form.reason},
                    MSG_DONTWAIT);
}

void refuse_association(int socket, Refusal refusal) {
    logprintf(32, server_config.log, "Refusing Association due to %s.\n", form_of(refusal).text);
    if (send_reject(socket, refusal)) return;
    logprintf(8, server_config.log, "Association reject failed:\n");
    std::perror("A-ASSOCIATE-RJ");
}

// A socket that is closed with bytes unread takes the abort back.
void abort_association(int socket) {
    ::alarm(abort_limit);
    // Who does not take it learns the same from the connection's end.
    static_cast<void>(send_abort(socket, AbortSource::service_provider, 0));
    ::shutdown(socket, SHUT_WR);
    char unread[16384];
    while (::recv(socket, unread, sizeof unread, 0) > 0) {
    }
    ::alarm(0);
}

}  // namespace tarvo
