// Connects, disconnects and control messages in any order and with any content, against the client
// table. An input is a row of operations; a real ENet host lends its peers, nothing is sent.

#include <algorithm>
#include <cstring>
#include <vector>

#include <enet/enet.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/core_pin.h"
#include "stream/client_table.h"
#include "stream/wire_format.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

constexpr std::size_t PEERS = 32;
constexpr std::uint8_t ADDRESSES = 16;

class CheckingCore : public VelantrixServerNoGUI {
  public:
    void SetClientStatus(int count, const char* name, bool direct) override {
        require(count == connectCount, "the reported count is the table's");
        require(!direct, "reports do not come from the main thread");
        require(name == nullptr || std::strlen(name) <= wire::MAX_CLIENT_NAME, "the name fits");
    }
};

ENetHost* host = nullptr;

/// One input's life of the table.
class TableRun {
  public:
    ~TableRun() {
        for (ENetPeer* const peer : live) {
            enet_peer_reset(peer);
        }
        clientConn.fill(ClientSlot{});
        connectCount = 0;
    }

    void connect(FuzzInput& input) {
        ENetAddress address = {};
        enet_address_set_host_ip(&address, "127.0.0.1");
        address.port = static_cast<enet_uint16>(40000 + input.byte() % ADDRESSES);
        const std::uint32_t data = input.number();
        ENetPeer* const peer = enet_host_connect(host, &address, 2, data);
        if (peer == nullptr) {
            return;
        }
        peer->state = ENET_PEER_STATE_CONNECTED;
        live.push_back(peer);
        ENetEvent event = {};
        event.type = ENET_EVENT_TYPE_CONNECT;
        event.peer = peer;
        event.data = data;
        handleConnect(event);
    }

    void disconnect(FuzzInput& input) {
        if (live.empty()) {
            return;
        }
        const auto chosen = live.begin() + input.byte() % static_cast<int>(live.size());
        ENetEvent event = {};
        event.type = ENET_EVENT_TYPE_DISCONNECT;
        event.peer = *chosen;
        enet_peer_reset(*chosen);
        live.erase(chosen);
        handleDisconnect(event);
    }

    void receive(FuzzInput& input) {
        if (live.empty()) {
            return;
        }
        ENetEvent event = {};
        event.type = ENET_EVENT_TYPE_RECEIVE;
        event.peer = live[input.byte() % live.size()];
        const std::size_t low = input.byte();
        const std::size_t length = low + 16U * (input.byte() % 32);
        const std::string message = input.bytes(length);
        event.packet = enet_packet_create(message.data(), message.size(), 0);
        handleReceive(event);
    }

    void check() const {
        require(connectCount == static_cast<int>(live.size()), "every connection is counted");
        for (const ClientSlot& slot : clientConn) {
            const auto holdsIt = [&slot](const ClientSlot& other) {
                return other.peer == slot.peer;
            };
            require(slot.rateCode < wire::RATE_CODE_COUNT, "the rate code has three bits");
            require(slot.peer == nullptr ||
                        std::find(live.begin(), live.end(), slot.peer) != live.end(),
                    "no slot keeps a peer that has gone");
            require(slot.peer == nullptr ||
                        std::count_if(clientConn.begin(), clientConn.end(), holdsIt) == 1,
                    "no peer has two slots");
        }
    }

  private:
    std::vector<ENetPeer*> live;
};

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    silenceStandardOutput();
    require(enet_initialize() == 0, "ENet starts");
    host = enet_host_create(nullptr, PEERS, 2, 0, 0);
    require(host != nullptr, "ENet has a host");
    mainDialog.store(new CheckingCore);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    TableRun run;
    while (!input.empty()) {
        switch (input.byte() % 4) {
            case 0:
                run.connect(input);
                break;
            case 1:
                run.disconnect(input);
                break;
            default:
                run.receive(input);
                break;
        }
        run.check();
    }
    return 0;
}
