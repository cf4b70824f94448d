#include "tests/support/bench_server.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <enet/enet.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/core_pin.h"
#include "stream/client_table.h"
#include "stream/datagram_guard.h"
#include "stream/enet_mtu.h"
#include "stream/opus_bank.h"
#include "stream/service_step.h"

namespace {

constexpr int CONNECT_STEPS = 10000;  // Of 1 ms each.

std::size_t streamingClients() {
    return static_cast<std::size_t>(
        std::count_if(clientConn.begin(), clientConn.end(), isStreaming));
}

}  // namespace

void createBenchServer() {
    if (enet_initialize() != 0) {
        std::abort();
    }
    ENetAddress address = {};
    enet_address_set_host_ip(&address, "127.0.0.1");
    server = enet_host_create(&address, 32, 2, 0, 0);
    if (server == nullptr) {
        std::abort();
    }
    raiseHostMtu(*server);
    guardDatagrams(*server);
    fillOpusBank();
    mainDialog.store(new VelantrixServerNoGUI);
}

void serviceUntilStreaming(std::size_t clients) {
    for (int step = 0; step < CONNECT_STEPS; ++step) {
        if (streamingClients() == clients && connectCount == static_cast<int>(clients)) {
            return;
        }
        serviceHost();
    }
    std::fputs("clients did not come or go in time\n", stderr);
    std::abort();
}
