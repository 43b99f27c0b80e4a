// Answers to those whose association the toolkit does not handle: written to the bare socket,
// without memory of their own.
#pragma once

namespace tarvo {

// Of an A-ABORT (PS3.8, 9.3.8): who ends the association, and why.
enum class AbortSource : char { service_user = 0, service_provider = 2 };

// Why an association is rejected (PS3.8, 9.3.4).
enum class Refusal { too_many_associations, fork_failure, other_protocol };

// Sends an A-ABORT or A-ASSOCIATE-RJ without waiting for the peer. False when it does not take all
// of it at once.
[[nodiscard]] bool send_abort(int socket, AbortSource source);
[[nodiscard]] bool send_reject(int socket, Refusal refusal);

// Refuses the association that was requested on `socket`, and logs why.
void refuse_association(int socket, Refusal refusal);

// Ends the association on `socket` and waits for the peer to take note. One that has not after ten
// seconds ends the process through SIGALRM; any alarm() that was pending is cancelled.
void abort_association(int socket);

}  // namespace tarvo
