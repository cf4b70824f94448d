#pragma once

#include <memory>

#include "web/channel.h"
#include "web/http/connection.h"
#include "web/upstream/station.h"
#include "web/upstream/worker.h"

namespace vxweb {

/// Sends the channel to a connection whose header has been written, in the chunks of HTTP/1.1 or
/// without, until one side ends it. The listener's place is reserved. What the other side still
/// sends is ignored. `station` and `worker` are borrowed.
void startStream(std::shared_ptr<Connection> connection, Station& station, Worker& worker,
                 ChannelId channel, bool chunked);

}  // namespace vxweb
