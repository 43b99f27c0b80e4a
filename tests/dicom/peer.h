// The other end of an association: an acceptor in a process of its own on a free port, and a
// requestor for it. Nothing waits longer than 20 seconds.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/dul.h"

#include "dicom/association.h"
#include "dicom/network.h"
#include "dicom/presentation_contexts.h"

// How the acceptor's association ended: the exit code of its process.
enum PeerSaw { peer_done, peer_saw_release, peer_saw_abort, peer_saw_close, peer_failed };

// A record that processes forked later share with this one, to its end.
template <typename T>
T& shared_with_peers() {
    return *new (
        ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T{};
}

inline std::string address_of(const T_ASC_Network& listener) {
    sockaddr_in bound{};
    socklen_t size = sizeof(bound);
    ::getsockname(DUL_networkSocket(listener.network), reinterpret_cast<sockaddr*>(&bound), &size);
    return "127.0.0.1:" + std::to_string(ntohs(bound.sin_port));
}

class Acceptor {
  public:
    // `behave` gets the received, not yet answered association; its result is the exit code.
    using Behaviour = std::function<PeerSaw(T_ASC_Association*)>;

    explicit Acceptor(const Behaviour& behave) {
        const tarvo::NetworkOwner network(DCMTK_net_init_listen(0, 0));
        address = address_of(*network);
        process_ = ::fork();
        if (process_ == 0) ::_exit(run(network.get(), behave));
    }
    Acceptor(const Acceptor&) = delete;
    Acceptor(Acceptor&&) = delete;
    Acceptor& operator=(const Acceptor&) = delete;
    Acceptor& operator=(Acceptor&&) = delete;
    ~Acceptor() { end(); }

    void end() {
        if (process_ <= 0) return;
        ::kill(process_, SIGKILL);
        static_cast<void>(wait());
    }

    // What it saw, or the negative number of the signal that ended it.
    int wait() {
        int status = 0;
        if (::waitpid(std::exchange(process_, -1), &status, 0) < 0) return peer_failed;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    std::string address;

  private:
    static PeerSaw run(T_ASC_Network* network, const Behaviour& behave) {
        ::alarm(20);
        T_ASC_Association* association = nullptr;
        const OFCondition received = ASC_receiveAssociation(network, &association, 16384, nullptr,
                                                            nullptr, OFFalse, DUL_NOBLOCK, 10);
        return received.good() ? behave(association) : peer_failed;
    }

    pid_t process_ = -1;
};

// Parameters that propose each SOP class with the standard list, ids 1, 3, 5...
inline tarvo::ParametersOwner propose(const std::string& address,
                                      const std::vector<const char*>& sop_classes) {
    tarvo::ParametersOwner params(
        DCMTK_params_init("USER", nullptr, "PROVIDER", address.c_str(), false, 16384));
    unsigned long id = 1;
    for (const char* sop_class : sop_classes) {
        EXPECT_TRUE(DCMTK_params_add_std_PC(params.get(), id, sop_class).good());
        id += 2;
    }
    return params;
}
