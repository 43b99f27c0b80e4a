// Any bytes as an A-ASSOCIATE-RQ. What our check lets through goes to the toolkit's parser in the
// way it does in a worker, up to the A-ASSOCIATE-AC.
#include <sanitizer/lsan_interface.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/assoc.h"
#include "dcmtk/dcmnet/dul.h"
#include "dcmtk/oflog/oflog.h"

#include "dicom/transport_layer.h"
#include "server/association_request.h"
#include "server/negotiation.h"
#include "support/server_config.h"
#include "tests/fuzz/fuzz.h"

namespace {

using tarvo::fuzz::require;

struct Acceptor {
    T_ASC_Network* network = nullptr;
    tarvo::TransportLayer transport;

    Acceptor() {
        OFLog::configure(OFLogger::OFF_LOG_LEVEL);
        server_config.log = nullptr;
        dcmDisableGethostbyaddr.set(OFTrue);
        dcmExternalSocketHandle.set(STDIN_FILENO);  // with any handle there, no port is opened
        require(ASC_initializeNetwork(NET_ACCEPTOR, 0, 1, &network).good(), "an acceptor");
        dcmExternalSocketHandle.set(-1);
        require(ASC_setTransportLayer(network, &transport, 0).good(), "a transport layer");
    }
};

// Null when the toolkit refuses the request.
T_ASC_Association* receive(Acceptor& acceptor, const std::string& request) {
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a pair of sockets");
    ::close(ends[0]);  // nothing follows the request
    acceptor.transport.replay(request);
    dcmExternalSocketHandle.set(ends[1]);  // the association closes it
    T_ASC_Association* association = nullptr;
    const OFCondition condition = ASC_receiveAssociation(acceptor.network, &association, 16384,
                                                         nullptr, nullptr, OFFalse, DUL_BLOCK);
    dcmExternalSocketHandle.set(-1);
    if (condition.good()) return association;
    static_cast<void>(ASC_dropAssociation(association));
    static_cast<void>(ASC_destroyAssociation(&association));
    return nullptr;
}

// Goes as far with a request as a worker does. Returns whether the toolkit took it.
//
// Of a request that it refuses, and of one that it cannot answer because the calling AE title is
// empty, the toolkit loses parts: less than twice its length, and the worker ends. That does not
// count.
bool serve(Acceptor& acceptor, const std::string& request) {
    const __lsan::ScopedDisabler forgiving;
    T_ASC_Association* const association = receive(acceptor, request);
    if (association == nullptr) return false;
    itimerval fuzzer_timer{};
    ::getitimer(ITIMER_REAL, &fuzzer_timer);  // which the watchdogs of a worker cancel
    static_cast<void>(negotiate_and_serve(acceptor.network, association));
    ::setitimer(ITIMER_REAL, &fuzzer_timer, nullptr);
    return true;
}

void check_leaks(Acceptor& acceptor, const std::string& request) {
    T_ASC_Association* association = receive(acceptor, request);
    require(association != nullptr, "what is taken once is taken twice");
    static_cast<void>(ASC_dropAssociation(association));
    static_cast<void>(ASC_destroyAssociation(&association));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Acceptor acceptor;
    const std::span<const std::uint8_t> pdu(data, size);
    const bool other_protocol = tarvo::speaks_other_protocol(pdu);
    if (!tarvo::is_well_formed_request(pdu) || other_protocol) return 0;
    const std::string request(tarvo::fuzz::text_of(data, size));
    const std::string calling = tarvo::calling_title(pdu);
    const std::string called = tarvo::called_title(pdu);
    require(calling.size() <= 16 && called.size() <= 16, "AE titles are bounded");

    if (serve(acceptor, request)) check_leaks(acceptor, request);
    return 0;
}
