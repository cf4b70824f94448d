#pragma once

#include <memory>

#include "web/channel.h"
#include "web/http/connection.h"
#include "web/http/request_reader.h"
#include "web/upstream/station.h"
#include "web/upstream/worker.h"

namespace vxweb {

/// Makes the connection a WebSocket, as requested, and sends the channel until one side closes it.
/// The client's messages are ignored. `station` and `worker` are borrowed.
void startLive(std::shared_ptr<Connection> connection, Station& station, Worker& worker,
               ChannelId channel, const Request& request);

}  // namespace vxweb
