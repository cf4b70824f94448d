#pragma once

#include <memory>

#include "web/channel.h"
#include "web/http/connection.h"
#include "web/http/request_reader.h"
#include "web/upstream/station.h"
#include "web/upstream/worker.h"

namespace vxweb {

/// Lets the connection become a WebSocket, as the request asks, on which the channel is heard until
/// one side ends it. The other side's messages are ignored. `station` and `worker` are borrowed.
void startLive(std::shared_ptr<Connection> connection, Station& station, Worker& worker,
               ChannelId channel, const Request& request);

}  // namespace vxweb
