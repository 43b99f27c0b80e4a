// The load generator of script/bench: clients, a destination of moves, and the command line. DICOM
// over plain sockets (PS3.8, PS3.7) with messages built beforehand, so that what is measured is the
// server. It shares no code with the server and knows only what it needs: Explicit VR Little
// Endian, one context a class. Anything unexpected ends it with a line on standard error.
#include <malloc.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/basics.h"
#include "bench/bounds.h"
#include "bench/dicom_encoding.h"
#include "bench/peer.h"
#include "bench/test_images.h"

namespace bench {
namespace {

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

// ---- clients ----

// Runs `work` in that many processes at once. Returns the seconds until the last of them ended.
double run_clients(int clients, const std::function<void(int)>& work) {
    const auto start = Clock::now();
    if (clients == 1) {
        work(0);
        return seconds_since(start);
    }
    for (int i = 0; i < clients; ++i) {
        if (::fork() != 0) continue;
        work(i);
        std::_Exit(0);
    }
    for (int i = 0, status = 0; i < clients; ++i) {
        if (::wait(&status) < 0 || status != 0) fail("a client failed");
    }
    return seconds_since(start);
}

void store(Association& association, const Images& images, long number) {
    association.request(ct_image, 0x01,
                        command_number(0x0700, 0) + command_number(0x0800, 1) +
                            command_text(0x1000, uids_of(images, number).image),
                        data_set(images, number));
    const std::size_t status = number_in(association.response(), 0x0900);
    if (status != 0) fail("an image was refused with status " + std::to_string(status));
}

// `at`: the seconds at which each image was stored. All but the first, and parts of a long series.
void print_parts(const std::vector<double>& at) {
    constexpr std::size_t part = 1000;
    std::printf("rest %.6f\n", at.back() - at.front());
    if (at.size() <= 2 * part) return;
    std::printf("first %.6f\nlast %.6f\n", at[part] - at[0], at.back() - at[at.size() - 1 - part]);
}

void store_all(int port, const Images& images, int clients) {
    const double seconds = run_clients(clients, [&](int client) {
        const long share = images.count / clients;
        const long first = images.first + client * share;
        Association association(port, ct_image);
        const auto start = Clock::now();
        std::vector<double> at;
        for (long number = first; number < first + share; ++number) {
            store(association, images, number);
            at.push_back(seconds_since(start));
        }
        association.release();
        if (clients == 1) print_parts(at);
    });
    std::printf("seconds %.6f\n", seconds);
}

void echo_once(int port) {
    Association association(port, verification);
    association.request(verification, 0x30, command_number(0x0800, 0x0101), "");
    if (number_in(association.response(), 0x0900) != 0) fail("the echo failed");
    association.release();
}

void echo(int port, int count, int clients) {
    std::vector<double> taken;
    const double seconds = run_clients(clients, [&](int) {
        for (int i = 0; i < count / clients; ++i) {
            const auto start = Clock::now();
            echo_once(port);
            taken.push_back(seconds_since(start) * 1000);
        }
    });
    std::printf("seconds %.6f\nmedian_ms %.4f\n", seconds, median(taken));
}

// Keeps associations open until standard input ends.
void hold(int port, int count) {
    std::vector<std::unique_ptr<Association>> held;
    held.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        held.push_back(std::make_unique<Association>(port, verification));
    }
    std::printf("held\n");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    for (const auto& association : held) association->release();
}

std::string study_keys(const std::string& key, const std::string& value) {
    std::string keys = element(0x00080052, "CS", "STUDY");
    const struct {
        unsigned number;
        const char* vr;
        const char* name;
    } asked[] = {{0x00080020, "DA", "date"},
                 {0x00100010, "PN", "name"},
                 {0x00100020, "LO", "id"},
                 {0x0020000D, "UI", "uid"}};
    std::string sorted = element(asked[0].number, asked[0].vr, key == asked[0].name ? value : "");
    sorted += keys;
    for (int i = 1; i < 4; ++i) {
        sorted += element(asked[i].number, asked[i].vr, key == asked[i].name ? value : "");
    }
    return sorted;
}

void find(int port, int rounds, long expected, const std::string& key, const std::string& value) {
    Association association(port, study_find);
    std::vector<double> taken;
    for (int round = 0; round < rounds; ++round) {
        const auto start = Clock::now();
        association.request(study_find, 0x20, command_number(0x0700, 0) + command_number(0x0800, 1),
                            study_keys(key, value));
        long matches = 0;
        for (std::size_t status = 0xff00; status == 0xff00 || status == 0xff01; ++matches) {
            status = number_in(association.response(), 0x0900);
        }
        taken.push_back(seconds_since(start) * 1000);
        if (--matches != expected) fail(std::to_string(matches) + " matches");
    }
    association.release();
    std::printf("median_ms %.4f\n", median(taken));
}

void move(int port, const std::string& destination, long expected) {
    Association association(port, study_move);
    const auto start = Clock::now();
    association.request(study_move, 0x21,
                        command_text(0x0600, destination, ' ') + command_number(0x0700, 0) +
                            command_number(0x0800, 1),
                        element(0x00080052, "CS", "STUDY") +
                            element(0x0020000D, "UI", uids_of({0, 1, 2, 0}, 0).study));
    std::string last;
    do last = association.response();
    while (number_in(last, 0x0900) == 0xff00);
    const double seconds = seconds_since(start);
    if (number_in(last, 0x0900) != 0 ||
        number_in(last, 0x1021) != static_cast<std::size_t>(expected)) {
        fail("not every image was moved");
    }
    association.release();
    std::printf("seconds %.6f\n", seconds);
}

// ---- the destination of moves ----

// Accepts every proposed context in the only syntax that the images of the bench are in.
std::string accept_contexts(const std::string& request) {
    std::string contexts;
    for (std::size_t at = 74; at + 4 <= request.size(); at += 4 + read_big(request, at + 2, 2)) {
        if (request[at] != 0x20) continue;
        contexts += item(
            0x21, request.substr(at + 4, 1) + std::string(3, '\0') + item(0x40, explicit_little));
    }
    return contexts;
}

void serve(int socket) {
    Peer peer(socket);
    std::string other(peer.receive());
    if (other.empty() || other[0] != 1) return;
    peer.write(associate(2, accept_contexts(other)));
    for (;;) {
        const std::string request = peer.receive_message(other);
        if (request.empty()) break;
        peer.send_message(peer.context(),
                          command(command_text(0x0002, text_in(request, 0x0002)) +
                                  command_number(0x0100, 0x8001) +
                                  command_number(0x0120, number_in(request, 0x0110)) +
                                  command_number(0x0800, 0x0101) + command_number(0x0900, 0) +
                                  command_text(0x1000, text_in(request, 0x1000))),
                          "", our_pdu);
    }
    if (!other.empty() && other[0] == 5) peer.write(pdu(6, std::string(4, '\0')));
}

// Takes images and throws them away, until it is ended.
void sink(int port) {
    ::signal(SIGCHLD, SIG_IGN);
    const int listener = listen_on(port);
    for (;;) {
        const int socket = ::accept(listener, nullptr, nullptr);
        if (socket < 0) fail("accept");
        if (::fork() == 0) {
            serve(socket);
            std::_Exit(0);
        }
        ::close(socket);
    }
}

// ---- the command line ----

const char* argument(char** arguments, int index) {
    for (int i = 0; i < index; ++i) {
        if (arguments[i] == nullptr) fail("arguments are missing");
    }
    if (arguments[index] == nullptr) fail("arguments are missing");
    return arguments[index];
}

void run(char** arguments) {
    const std::string name = argument(arguments, 1);
    const auto number = [&](int index) { return std::atol(argument(arguments, index)); };
    const auto small = [&](int index) { return static_cast<int>(number(index)); };
    const auto images = [&](int index) {
        return Images{number(index), number(index + 1), number(index + 2), number(index + 3)};
    };
    if (name == "write") return write_files(argument(arguments, 2), images(3));
    if (name == "store") return store_all(small(2), images(3), small(7));
    if (name == "echo") return echo(small(2), small(3), small(4));
    if (name == "hold") return hold(small(2), small(3));
    if (name == "find") {
        return find(small(2), small(3), number(4), argument(arguments, 5), argument(arguments, 6));
    }
    if (name == "move") return move(small(2), argument(arguments, 3), number(4));
    if (name == "sink") return sink(small(2));
    if (name == "bounds") {
        return bounds(argument(arguments, 2), static_cast<std::size_t>(number(3)), small(4));
    }
    fail("no command " + name);
}

}  // namespace
}  // namespace bench

int main(int, char** arguments) {
    // Buffers of images are used again instead of being mapped anew.
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    bench::run(arguments);
    return 0;
}
