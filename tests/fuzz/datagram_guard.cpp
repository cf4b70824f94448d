// What strangers send, over the loopback interface, against the whole streaming side: any row of
// datagrams, acknowledgements and pauses. An input is a row of operations, each of one of four
// strangers. ENet's time is the target's own.

#include "stream/datagram_guard.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>
#include <vector>

#include <enet/enet.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/core_pin.h"
#include "stream/client_table.h"
#include "stream/command_cost.h"
#include "stream/enet_clock.h"
#include "stream/event_backlog.h"
#include "stream/network_host.h"
#include "stream/send_path.h"
#include "stream/service_step.h"
#include "stream/wire_format.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/enet_commands.h"
#include "tests/support/enet_memory.h"

namespace {

constexpr std::size_t PEERS = 6;  // Soon all taken.
constexpr std::size_t STRANGERS = 4;
constexpr std::size_t MAX_BYTES = ENET_PROTOCOL_MAXIMUM_MTU;
constexpr enet_uint32 PAUSE_UNIT_MS = 40;
constexpr enet_uint32 END_MS = 50000;  // After this time all are gone.
constexpr enet_uint32 END_STEP_MS = 250;
constexpr std::size_t MAX_MEMORY = std::size_t{8} * 1024 * 1024;

enet_uint32 now = 1000000;

class Stranger {
  public:
    Stranger() : socket(enet_socket_create(ENET_SOCKET_TYPE_DATAGRAM)) {
        enet_socket_set_option(socket, ENET_SOCKOPT_NONBLOCK, 1);
    }

    /// Forgets another input's server.
    void meet(const ENetAddress& server) {
        hear();
        address = server;
        peerWord = 0;
        unanswered.clear();
    }

    void send(const Bytes& datagram) const {
        ENetBuffer buffer = {};
        Bytes copy = datagram;
        buffer.data = copy.data();
        buffer.dataLength = std::min(copy.size(), MAX_BYTES);
        enet_socket_send(socket, &address, &buffer, 1);
    }

    void sendToPeer(const Bytes& commands, bool withTime) const {
        send((withTime ? u16(peerWord | ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) + u16(now)
                       : u16(peerWord)) +
             commands);
    }

    void connect(FuzzInput& input) const {
        const std::uint32_t connectId = input.byte();
        const std::uint32_t data = input.byte() * 0x01000001U;
        send(u16(ENET_PROTOCOL_MAXIMUM_PEER_ID | ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) + u16(0) +
             connectCommand(data, 0, connectId) + input.exactBytes(input.byte()));
    }

    void hear() {
        std::array<unsigned char, MAX_BYTES> room;
        ENetBuffer buffer = {};
        buffer.data = room.data();
        buffer.dataLength = room.size();
        ENetAddress from = {};
        for (int got = 0; (got = enet_socket_receive(socket, &from, &buffer, 1)) > 0;) {
            note(Bytes(room.begin(), room.begin() + got));
        }
    }

    /// Acknowledges the first command of each datagram that was heard, as if it had come so many
    /// milliseconds earlier.
    void acknowledge(unsigned earlier) {
        Bytes commands;
        for (const Bytes& head : unanswered) {
            commands = std::move(commands) +
                       acknowledgement(head[5], read16(&head[6]),
                                       static_cast<std::uint16_t>(read16(&head[2]) - earlier));
        }
        unanswered.clear();
        sendToPeer(commands, true);
    }

  private:
    void note(const Bytes& datagram) {
        constexpr unsigned MAX_UNANSWERED = 40;
        if (datagram.size() < 8 || (datagram[0] & 0x80U) == 0) {
            return;
        }
        const unsigned type = datagram[4] & ENET_PROTOCOL_COMMAND_MASK;
        if (type == ENET_PROTOCOL_COMMAND_VERIFY_CONNECT && datagram.size() >= 12) {
            peerWord = read16(&datagram[8]) + datagram[11] * 4096U;
        }
        if ((datagram[4] & ENET_PROTOCOL_COMMAND_FLAG_ACKNOWLEDGE) != 0 &&
            unanswered.size() < MAX_UNANSWERED) {
            unanswered.emplace_back(datagram.begin(), datagram.begin() + 8);
        }
    }

    ENetSocket socket;
    ENetAddress address = {};
    unsigned peerWord = 0;
    std::vector<Bytes> unanswered;
};

/// A private network has no others.
void raiseLoopback() {
    require(std::system("ip link show lo up | grep -q lo || ip link set lo up") == 0,
            "the loopback interface can be raised");
}

class CheckingCore : public VelantrixServerNoGUI {
  public:
    void SetAudioCaptureActive() override {}
    void SetClientStatus(int count, const char* /*name*/, bool /*direct*/) override {
        require(count == connectCount && count >= 0, "the reported count is the table's");
    }
};

/// One input's life of the server.
class Run {
  public:
    explicit Run(std::array<Stranger, STRANGERS>& all) : strangers(all) {
        ENetAddress address = {};
        enet_address_set_host_ip(&address, "127.0.0.1");
        server = enet_host_create(&address, PEERS, 2, 0, 0);
        require(server != nullptr, "ENet has a host");
        limitMessages(*server);
        guardDatagrams(*server);
        enet_socket_get_address(server->socket, &address);
        for (Stranger& stranger : strangers) {
            stranger.meet(address);
        }
    }

    ~Run() {
        enet_host_destroy(server);
        server = nullptr;
        require(enetBytes() == 0, "ENet has given all memory back");
    }

    void act(FuzzInput& input) {
        const unsigned operation = input.byte();
        Stranger& stranger = strangers.at(operation / 64);
        switch (operation % 8) {
            case 0:
                stranger.send(bytesOf(input));
                break;
            case 1:
            case 2:
                stranger.sendToPeer(bytesOf(input), operation % 8 == 1);
                break;
            case 3:
                stranger.connect(input);
                break;
            case 4:
                stranger.acknowledge(input.byte() * 256U);
                break;
            case 5:
                now += PAUSE_UNIT_MS * input.byte();
                break;
            default:
                step(true);
                return;
        }
        step(false);
    }

    /// All become silent.
    void end() {
        for (enet_uint32 passed = 0; passed < END_MS; passed += END_STEP_MS) {
            now += END_STEP_MS;
            step(false);
        }
        require(connectCount == 0, "nobody is counted who has gone");
        for (std::size_t i = 0; i < PEERS; ++i) {
            require(server->peers[i].state == ENET_PEER_STATE_DISCONNECTED, "all places are free");
        }
    }

  private:
    static Bytes bytesOf(FuzzInput& input) {
        const std::size_t low = input.byte();
        return input.exactBytes(low + 256U * (input.byte() % 16));
    }

    void step(bool withSound) {
        if (withSound) {
            std::array<char, wire::RAW_BUFFER_LENGTH> block = {};
            processBuffer(block.data(), static_cast<int>(block.size()), true);
        } else {
            serviceHost();
        }
        for (Stranger& stranger : strangers) {
            stranger.hear();
        }
        check();
    }

    static void check() {
        const auto counted = std::count_if(
            server->peers, server->peers + PEERS,
            [](const ENetPeer& peer) { return peer.state >= ENET_PEER_STATE_CONNECTED; });
        require(connectCount == counted, "every connection is counted, once");
        std::size_t linked = 0;
        for (ENetListNode* node = enet_list_begin(&server->dispatchQueue);
             node != enet_list_end(&server->dispatchQueue); node = enet_list_next(node)) {
            // A list node is the first member of its peer.
            require(reinterpret_cast<ENetPeer*>(node)->state != ENET_PEER_STATE_DISCONNECTED,
                    "nobody who has gone has an event");
            require(++linked <= PEERS, "no peer is linked twice");
        }
        require(enetBytes() <= MAX_MEMORY, "what ENet holds is bounded");
        for (std::size_t i = 0; i < PEERS; ++i) {
            checkPeer(server->peers[i]);
        }
        for (const ClientSlot& slot : clientConn) {
            require(slot.peer == nullptr || slot.peer->state >= ENET_PEER_STATE_CONNECTED,
                    "no slot keeps a peer that has gone");
        }
    }

    static void checkPeer(ENetPeer& peer) {
        for (std::size_t i = 0; i < peer.channelCount; ++i) {
            ENetChannel& channel = peer.channels[i];
            require(enet_list_size(&channel.incomingReliableCommands) <= MAX_EARLY_RELIABLE &&
                        enet_list_size(&channel.incomingUnreliableCommands) <=
                            MAX_EARLY_UNRELIABLE + MAX_DATAGRAM_COMMANDS,
                    "few commands wait");
        }
        require(peer.totalWaitingData <= MAX_WAITING_BYTES + MAX_MESSAGE_BYTES ||
                    peer.totalWaitingData > SIZE_MAX / 2,
                "few bytes wait");
    }

    std::array<Stranger, STRANGERS>& strangers;
};

}  // namespace

// These take the place of the program's own, which read the machine's clock. A step waits for
// nothing, since the time passes whenever it is asked for.
extern "C" __attribute__((visibility("default"))) enet_uint32 enet_time_get() {
    return ++now;
}

void steadyEnetClock() {
    enet_time_set(now);
}

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    silenceStandardOutput();
    raiseLoopback();
    watchEnetMemory();
    mainDialog.store(new CheckingCore);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::array<Stranger, STRANGERS> strangers;
    FuzzInput input(data, size);
    Run run(strangers);
    while (!input.empty()) {
        run.act(input);
    }
    run.end();
    return 0;
}
