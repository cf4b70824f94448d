#include "stream/network_host.h"

#include <array>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "app/base/Thread.h"
#include "app/base/console.h"
#include "app/base/core_pin.h"
#include "app/base/process_exit.h"
#include "app/base/start_values.h"
#include "audio/Audio.h"
#include "common/thread_check.h"
#include "stream/capture_rate.h"
#include "stream/client_table.h"
#include "stream/datagram_guard.h"
#include "stream/datagram_limit.h"
#include "stream/enet_mtu.h"
#include "stream/event_backlog.h"
#include "stream/opus_bank.h"
#include "stream/service_step.h"
#include "stream/vanished_peer.h"
#include "stream/wire_format.h"

namespace {

constexpr std::size_t MAX_PEERS = 32;
constexpr std::size_t CHANNELS = 2;
constexpr int IDLE_STEP_MS = 500;
constexpr std::size_t MESSAGE_ROOM = 512;

void showMessage(const char* text) {
    reportToCore([text](VelantrixServerNoGUI& core) { core.emitShowMessage(text); });
}

[[noreturn]] void failStart(const char* text) {
    showMessage(text);
    ExitProcess(-1);
}

// ENet's default reaction to a failed allocation is abort(). When this returns, only the call
// fails, which loses a packet. Printed once: it may happen for every packet.
void onEnetOutOfMemory() {
    static std::atomic<bool> reported{false};
    if (!reported.exchange(true)) {
        consolePuts("Warning, not enough memory for network communication");
    }
}

void initializeEnet() {
    consolePuts("Initializing server network communication");
    ENetCallbacks callbacks = {};
    callbacks.no_memory = onEnetOutOfMemory;
    if (enet_initialize_with_callbacks(ENET_VERSION, &callbacks) != 0) {
        failStart("An error occurred while initializing network communication");
    }
}

void bindToChosenAddress(ENetAddress& address) {
    const char* const chosen = getCmdBindAddr();
    if (chosen == nullptr || chosen[0] == '\0') {
        return;
    }
    consolePrintf("Binding server to address '%s'\n", chosen);
    if (enet_address_set_host(&address, chosen) == 0) {
        return;
    }
    address.host = ENET_HOST_ANY;
    char text[MESSAGE_ROOM];
    std::snprintf(text, sizeof text,
                  "Warning, could not bind server to address '%.50s' check environment variable "
                  "VELANTRIX_SERVER_BINDADDR and/or command line parameter. Using INADDR_ANY.\n",
                  chosen);
    giveUpCmdBindAddr();  // A later message must not name this address.
    showMessage(text);
}

std::uint16_t choosePort() {
    const auto chosen = static_cast<std::uint16_t>(getCmdPortNum() & 0xFFFF);
    if (chosen != 0) {
        consolePrintf("Binding to port number %d\n", chosen);
        return chosen;
    }
    consolePrintf("Using default port number %d\n", wire::DEFAULT_SERVER_PORT);
    return wire::DEFAULT_SERVER_PORT;
}

[[noreturn]] void failHostCreation(int error) {
    if (error == EADDRINUSE) {
        failStart("Network port busy (another Velantrix Server may already be running)");
    }
    char text[MESSAGE_ROOM] =
        "An error occurred while creating network server host, network port may be busy (try "
        "rebooting)";
    if (getCmdBindAddr()[0] != '\0') {
        const std::size_t length = std::strlen(text);
        std::snprintf(text + length, sizeof text - length,
                      " or could not bind server to address '%.50s' (check environment variable "
                      "VELANTRIX_SERVER_BINDADDR and/or command line parameter)\n",
                      getCmdBindAddr());
    }
    failStart(text);
}

void createHost() {
    ENetAddress address = {};
    address.host = ENET_HOST_ANY;
    bindToChosenAddress(address);
    address.port = choosePort();
    errno = 0;
    server = enet_host_create(&address, MAX_PEERS, CHANNELS, 0, 0);
    if (server == nullptr) {
        failHostCreation(errno);
    }
    // ENet does not check the result, and a blocking socket would hang the audio.
    if (enet_socket_set_option(server->socket, ENET_SOCKOPT_NONBLOCK, 1) != 0) {
        failHostCreation(errno);
    }
    raiseHostMtu(*server);
    if (!limitDatagrams(*server)) {
        consolePrintf("Warning, could not limit the length of datagrams, err = %d\n", errno);
    }
    limitMessages(*server);
    guardDatagrams(*server);
    enlargeSendBuffer(*server);
}

void openAudio() {
    const int result = Audio::Open(0, vxOptionAltRate);
    if (result != 0) {
        consoleError("Error %d opening audio input device\n", result);
    } else {
        consolePuts("Audio input device opened successfully");
    }
}

}  // namespace

void enetHost(VelantrixServerNoGUI* core) {
    assert(!onMainThread() && server == nullptr);
    // After an early quit mainDialog is already the core that is never destroyed.
    VelantrixServerNoGUI* none = nullptr;
    mainDialog.compare_exchange_strong(none, core);
    clientConn.fill(ClientSlot{});
    fillOpusBank();
    initializeEnet();
    createHost();
    openAudio();
    for (;;) {
        Sleep(IDLE_STEP_MS);
    }
}
