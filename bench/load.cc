// The clients, the destination and the measures of the machine itself for script/bench: DICOM over
// plain sockets (PS3.8, PS3.7) with messages built beforehand, so that what is measured is the
// server. It shares no code with the server and knows only what it needs: Explicit VR Little
// Endian, one context a class. Anything unexpected ends it with a line on standard error.
#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr char verification[] = "1.2.840.10008.1.1";
constexpr char ct_image[] = "1.2.840.10008.5.1.4.1.1.2";
constexpr char study_find[] = "1.2.840.10008.5.1.4.1.2.2.1";
constexpr char study_move[] = "1.2.840.10008.5.1.4.1.2.2.2";
constexpr char explicit_little[] = "1.2.840.10008.1.2.1";
constexpr char root[] = "1.2.826.0.1.3680043.10.999";
constexpr char called_title[] = "ARCHIVE";

constexpr std::size_t our_pdu = 131072;  // the longest that we take

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "load: %s\n", what.c_str());
    std::_Exit(1);
}

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

// ---- encoding ----

std::string big(std::size_t value, int width) {
    std::string bytes;
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xff);
    }
    return bytes;
}

std::string little(std::size_t value, int width) {
    const std::string bytes = big(value, width);
    return {bytes.rbegin(), bytes.rend()};
}

std::size_t read_big(std::string_view bytes, std::size_t at, int width) {
    std::size_t value = 0;
    for (int i = 0; i < width; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
    return value;
}

std::string tag(unsigned number) { return little(number >> 16, 2) + little(number & 0xffff, 2); }

std::string even(std::string value, char padding) {
    if (value.size() % 2 != 0) value += padding;
    return value;
}

// An element of a data set: `number` is group and element in one.
std::string element(unsigned number, const char* vr, const std::string& text) {
    const bool is_binary = std::strcmp(vr, "OW") == 0 || std::strcmp(vr, "OB") == 0;
    const std::string value = even(text, std::strcmp(vr, "UI") == 0 || is_binary ? '\0' : ' ');
    const std::string length =
        is_binary ? std::string(2, '\0') + little(value.size(), 4) : little(value.size(), 2);
    return tag(number) + vr + length + value;
}

// Elements of a command, which is in Implicit VR Little Endian always.
std::string command_text(unsigned number, std::string_view text, char padding = '\0') {
    const std::string value = even(std::string(text), padding);
    return tag(number) + little(value.size(), 4) + value;
}

std::string command_number(unsigned number, std::size_t value) {
    return command_text(number, little(value, 2));
}

std::string command(const std::string& elements) {
    return command_text(0x00000000, little(elements.size(), 4)) + elements;
}

std::size_t read_little(std::string_view bytes, std::size_t at, int width) {
    const std::string_view part = bytes.substr(at, width);
    return read_big(std::string(part.rbegin(), part.rend()), 0, width);
}

// The value of a command's element.
std::string_view text_in(std::string_view message, unsigned wanted) {
    for (std::size_t at = 0; at + 8 <= message.size(); at += 8 + read_little(message, at + 4, 4)) {
        if (read_little(message, at + 2, 2) != wanted) continue;
        return message.substr(at + 8, read_little(message, at + 4, 4));
    }
    fail("a message lacks an element");
}

std::size_t number_in(std::string_view message, unsigned wanted) {
    return read_little(text_in(message, wanted), 0, 2);
}

std::string item(int type, const std::string& content) {
    return big(static_cast<std::size_t>(type), 1) + '\0' + big(content.size(), 2) + content;
}

std::string pdu(int type, const std::string& content) {
    return big(static_cast<std::size_t>(type), 1) + '\0' + big(content.size(), 4) + content;
}

std::string title(std::string text) {
    text.resize(16, ' ');
    return text;
}

std::string user_information() {
    return item(0x50, item(0x51, big(our_pdu, 4)) + item(0x52, std::string(root) + ".0"));
}

// An association request or its acceptance: everything but the presentation contexts is the same.
std::string associate(int type, const std::string& contexts) {
    return pdu(type, big(1, 2) + std::string(2, '\0') + title(called_title) + title("BENCH") +
                         std::string(32, '\0') + item(0x10, "1.2.840.10008.3.1.1.1") + contexts +
                         user_information());
}

// ---- sockets ----

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int listen_on(int port) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = loopback(port);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 64) != 0) {
        fail("cannot listen");
    }
    return listener;
}

// One side of a connection that speaks PDUs.
class Peer {
  public:
    explicit Peer(int socket) : socket_(socket), buffer_(1 << 18, '\0') {
        const int on = 1;
        ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    Peer(Peer&&) = delete;
    Peer& operator=(Peer&&) = delete;
    ~Peer() { ::close(socket_); }

    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (written <= 0) fail("the peer does not take what is sent");
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    // The next PDU with its header; valid until the next call. Empty when the peer has closed.
    std::string_view receive() {
        if (!fill(6)) return {};
        const std::size_t length = 6 + read_big(view(), 2, 4);
        if (length > buffer_.size()) fail("a PDU is longer than agreed");
        if (!fill(length)) return {};
        const std::string_view found = view().substr(0, length);
        start_ += length;
        return found;
    }

    // Sends a message in PDUs of at most `longest` bytes, all in one piece.
    void send_message(std::size_t context, const std::string& request, const std::string& data,
                      std::size_t longest) {
        std::string out;
        out.reserve(request.size() + data.size() + 12 * (2 + data.size() / longest));
        append_fragments(out, context, request, 1, longest);
        append_fragments(out, context, data, 0, longest);
        write(out);
    }

    // The command of the next message; its data set is read and thrown away. Empty on anything
    // that is not P-DATA: then `other` holds it.
    std::string receive_message(std::string& other) {
        std::string received;
        for (bool has_data = false, at_end = false; !at_end;) {
            const std::string_view next = receive();
            if (next.empty() || next[0] != 4) return other = std::string(next), std::string();
            for (std::size_t at = 6; at < next.size(); at += 4 + read_big(next, at, 4)) {
                const char flags = next.at(at + 5);
                if ((flags & 1) != 0) {
                    received += next.substr(at + 6, read_big(next, at, 4) - 2);
                    context_ = static_cast<unsigned char>(next[at + 4]);
                    if ((flags & 2) != 0) has_data = number_in(received, 0x0800) != 0x0101;
                }
                at_end = (flags & 2) != 0 && ((flags & 1) == 0 || !has_data);
            }
        }
        return received;
    }

    [[nodiscard]] std::size_t context() const { return context_; }  // of the message that came last

  private:
    static void append_fragments(std::string& out, std::size_t context, std::string_view bytes,
                                 int is_command, std::size_t longest) {
        while (!bytes.empty()) {
            const std::size_t count = std::min(bytes.size(), longest - 6);
            const int flags = is_command | (count == bytes.size() ? 2 : 0);
            out += big(0x0400, 2) + big(count + 6, 4) + big(count + 2, 4) + big(context, 1);
            out += static_cast<char>(flags);
            out += bytes.substr(0, count);
            bytes.remove_prefix(count);
        }
    }

    [[nodiscard]] std::string_view view() const {
        return std::string_view(buffer_).substr(start_, end_ - start_);
    }

    bool fill(std::size_t wanted) {
        if (end_ - start_ >= wanted) return true;
        std::memmove(buffer_.data(), buffer_.data() + start_, end_ - start_);
        end_ -= start_;
        start_ = 0;
        while (end_ < wanted) {
            const ssize_t got = ::recv(socket_, buffer_.data() + end_, buffer_.size() - end_, 0);
            if (got <= 0) return false;
            end_ += static_cast<std::size_t>(got);
        }
        return true;
    }

    int socket_;
    std::string buffer_;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
    std::size_t context_ = 0;
};

int connect_to(int port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("nobody listens on port " + std::to_string(port));
    }
    return socket;
}

// An association that this side has opened with one context.
class Association {
  public:
    Association(int port, const char* sop_class) : peer_(connect_to(port)) {
        peer_.write(
            associate(1, item(0x20, big(1, 1) + std::string(3, '\0') + item(0x30, sop_class) +
                                        item(0x40, explicit_little))));
        const std::string answer(peer_.receive());
        if (answer.empty() || answer[0] != 2) fail("the association was refused");
        const std::size_t length = answer.find(std::string("\x51\x00\x00\x04", 4));
        if (length != std::string::npos) longest_ = read_big(answer, length + 4, 4);
        if (longest_ == 0 || longest_ > our_pdu) longest_ = our_pdu;
        longest_ -= 6;  // some count the header, some do not
    }

    // Sends a request; `rest` are the elements behind the message id.
    void request(const char* sop_class, unsigned field, const std::string& rest,
                 const std::string& data) {
        const std::string elements = command_text(0x0002, sop_class) +
                                     command_number(0x0100, field) +
                                     command_number(0x0110, ++message_id_) + rest;
        peer_.send_message(1, command(elements), data, longest_);
    }

    std::string response() {
        std::string other;
        std::string received = peer_.receive_message(other);
        if (received.empty()) fail("the association broke");
        return received;
    }

    void release() {
        peer_.write(pdu(5, std::string(4, '\0')));
        if (peer_.receive().substr(0, 1) != "\x06") fail("the release was not answered");
    }

  private:
    Peer peer_;
    std::size_t longest_ = 0;
    unsigned message_id_ = 0;
};

// ---- images ----

// Which images a command is about: numbers first to first + count - 1.
struct Images {
    long first;
    long count;
    long pixels;     // bytes of each
    long per_study;  // all of them in one series; 0: all images in a single study
};

struct Uids {
    std::string study, series, image;
};

Uids uids_of(const Images& images, long number) {
    const long study = images.per_study > 0 ? number / images.per_study + 1 : 0;
    const std::string study_uid = std::string(root) + ".1." + std::to_string(study);
    return {study_uid, study_uid + ".1", study_uid + ".1." + std::to_string(number)};
}

// The pixels are the same in all: made once.
const std::string& pixel_data(const Images& images) {
    static const std::string pixels =
        element(0x7FE00010, "OW", std::string(static_cast<std::size_t>(images.pixels), 'x'));
    return pixels;
}

std::string data_set(const Images& images, long number) {
    const Uids uids = uids_of(images, number);
    const long study = images.per_study > 0 ? number / images.per_study : 0;
    // One patient in a hundred is a Smith, one study in a hundred of the second of January.
    const bool selected = study % 100 == 0;
    const std::string id = std::to_string(study);
    const long columns = std::min(images.pixels / 2, 128L);
    const long rows = images.pixels / 2 / columns;
    return element(0x00080016, "UI", ct_image) + element(0x00080018, "UI", uids.image) +
           element(0x00080020, "DA", selected ? "20260102" : "20250607") +
           element(0x00080030, "TM", "101112") + element(0x00080050, "SH", "A" + id) +
           element(0x00080060, "CS", "CT") + element(0x00081030, "LO", "Bench study") +
           element(0x00100010, "PN", (selected ? "SMITH^P" : "PERSON^P") + id) +
           element(0x00100020, "LO", "P" + id) + element(0x0020000D, "UI", uids.study) +
           element(0x0020000E, "UI", uids.series) + element(0x00200010, "SH", "S" + id) +
           element(0x00200013, "IS", std::to_string(number + 1)) +
           element(0x00280002, "US", little(1, 2)) + element(0x00280004, "CS", "MONOCHROME2") +
           element(0x00280010, "US", little(static_cast<std::size_t>(rows), 2)) +
           element(0x00280011, "US", little(static_cast<std::size_t>(columns), 2)) +
           element(0x00280100, "US", little(16, 2)) + element(0x00280101, "US", little(16, 2)) +
           element(0x00280102, "US", little(15, 2)) + element(0x00280103, "US", little(0, 2)) +
           pixel_data(images);
}

std::string file_of(const Images& images, long number) {
    const std::string meta = element(0x00020001, "OB", std::string("\0\1", 2)) +
                             element(0x00020002, "UI", ct_image) +
                             element(0x00020003, "UI", uids_of(images, number).image) +
                             element(0x00020010, "UI", explicit_little) +
                             element(0x00020012, "UI", std::string(root) + ".0");
    return std::string(128, '\0') + "DICM" + element(0x00020000, "UL", little(meta.size(), 4)) +
           meta + data_set(images, number);
}

void write_files(const std::string& folder, const Images& images) {
    for (long number = images.first; number < images.first + images.count; ++number) {
        std::ofstream(folder + "/" + std::to_string(number) + ".dcm") << file_of(images, number);
    }
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

// ---- what the machine can do ----

// Seconds to write files, with or without waiting for the disk.
double write_bound(const std::string& folder, const std::string& bytes, int count, bool wait) {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        const std::string path = folder + "/" + std::to_string(wait) + "." + std::to_string(i);
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (::write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
            (wait && ::fsync(file) != 0)) {
            fail("cannot write " + path);
        }
        ::close(file);
    }
    return seconds_since(start);
}

// Seconds to hand that many pieces to another process over TCP, each acknowledged by a byte.
double tcp_bound(const std::string& bytes, int count) {
    const int listener = listen_on(0);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    const pid_t receiver = ::fork();
    if (receiver == 0) {
        const int socket = ::accept(listener, nullptr, nullptr);
        std::string buffer(bytes.size(), '\0');
        while (::recv(socket, buffer.data(), buffer.size(), MSG_WAITALL) > 0) {
            if (::send(socket, "", 1, MSG_NOSIGNAL) != 1) break;
        }
        std::_Exit(0);
    }
    const auto start = Clock::now();
    {
        const int socket = connect_to(ntohs(address.sin_port));
        Peer peer(socket);
        char answer = 0;
        for (int i = 0; i < count; ++i) {
            peer.write(bytes);
            if (::recv(socket, &answer, 1, 0) != 1) fail("no answer over TCP");
        }
    }
    ::close(listener);
    ::waitpid(receiver, nullptr, 0);
    return seconds_since(start);
}

double fork_bound(int count) {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        const pid_t child = ::fork();
        if (child == 0) std::_Exit(0);
        ::waitpid(child, nullptr, 0);
    }
    return seconds_since(start);
}

void bounds(const std::string& folder, std::size_t size, int count) {
    const std::string bytes(size, 'x');
    std::printf("tcp %.6f\nwrite %.6f\nfsync %.6f\nfork %.6f\n", tcp_bound(bytes, count),
                write_bound(folder, bytes, count, false), write_bound(folder, bytes, count, true),
                fork_bound(count));
}

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

int main(int, char** arguments) {
    // Buffers of images are used again instead of being mapped anew.
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    run(arguments);
    return 0;
}
