#include "monitor/serverstate.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "monitor/aetitle_map.h"
#include "monitor/monitor_message.h"
#include "monitor/multicast.h"
#include "support/log.h"
#include "support/server_config.h"

namespace {

constexpr int messages_a_pass = 256;

std::uint16_t monitor_port() { return static_cast<std::uint16_t>(server_config.monitor_port); }

// Handles one datagram; true when the map is to be saved.
bool handle(const ReceivedDatagram& datagram) {
    // Whoever can reach this host, and not its group, has no say here.
    if (!datagram.for_us) return false;
    // One that is cut: its last field cannot be trusted.
    if (datagram.length > sizeof datagram.text) return false;
    // The last byte of a full datagram is lost to the terminator of the text.
    const std::string_view text(datagram.text, std::min(datagram.length, sizeof datagram.text - 1));
    const auto message = tarvo::decode_monitor_message(text);
    return message &&
           tarvo::apply_monitor_message(*message, datagram.sender, aetitle_map, server_config.log);
}

void save_map() {
    if (server_config.aetmap_fd == -1) return;
    if (AETitleMap_Save_fd(aetitle_map, server_config.aetmap_fd) != 0) {
        logprintf(8, server_config.log, "Cannot save the AE title map.\n");
    }
}

}  // namespace

void serverstate::init() {
    multicast_init();
    check_connect();
}

void serverstate::check_connect() {
    if (!send_socket_) {
        send_socket_.reset(multicast_sendsocket(monitor_port(), server_config.multicast_group));
    }
    if (!listen_socket_) {
        listen_socket_.reset(multicast_listen_udp(monitor_port(), server_config.multicast_group));
    }
}

int serverstate::announce(const char* text) {
    char message[multicast_message_size];
    const int length = std::snprintf(message, sizeof message, "STORAGE %s", text);
    return send_socket_ ? multicast_send(send_socket_.get(), message) : length;
}

int serverstate::change(serverstate_currop operation, int number) {
    char text[256];
    std::snprintf(text, sizeof text, "%s %d",
                  serverstate_message[static_cast<std::size_t>(operation)], number);
    return announce(text);
}

void serverstate::change_verbose(const char* text) { static_cast<void>(announce(text)); }

bool serverstate::checklisten() {
    check_connect();
    if (!listen_socket_) return false;
    ReceivedDatagram datagram{};
    bool learned = false;
    for (int count = 0; count < messages_a_pass; ++count) {
        if (!multicast_receive(listen_socket_.get(), server_config.multicast_group, datagram))
            break;
        learned |= handle(datagram);
    }
    if (learned) save_map();
    return true;
}
