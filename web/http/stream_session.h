#pragma once

#include <memory>

#include "web/channel.h"
#include "web/http/connection.h"
#include "web/upstream/station.h"
#include "web/upstream/worker.h"

namespace vxweb {

/// Sends the channel to a connection after the response's header, with or without the chunks of
/// HTTP/1.1, until one side ends it. The listener's place is reserved. What the client sends is
/// ignored. `station` and `worker` are borrowed.
void startStream(std::shared_ptr<Connection> connection, Station& station, Worker& worker,
                 ChannelId channel, bool chunked);

}  // namespace vxweb
