#include "stream/service_step.h"

#include <enet/enet.h>

#include "app/console.h"
#include "stream/client_table.h"
#include "stream/network_host.h"

namespace {

constexpr enet_uint32 SERVICE_TIMEOUT_MS = 1;

}  // namespace

int serviceHost() {
    ENetEvent event = {};
    const int result = enet_host_service(server, &event, SERVICE_TIMEOUT_MS);
    if (result < 0) {
        consolePuts("Error returned from service call");
        return result;
    }
    if (result == 0) {
        return 0;
    }
    switch (event.type) {
        case ENET_EVENT_TYPE_CONNECT:
            handleConnect(event);
            return result;
        case ENET_EVENT_TYPE_DISCONNECT:
            handleDisconnect(event);
            return result;
        case ENET_EVENT_TYPE_RECEIVE:
            handleReceive(event);
            return result;
        default:
            return 0;
    }
}
