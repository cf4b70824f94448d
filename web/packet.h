#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vxweb {

/// Bytes for all listeners of a channel, framed once, then never copied or changed.
struct Packet {
    std::string bytes;           ///< With their frame: of a WebSocket, or of a chunk of HTTP/1.1.
    std::size_t bodyBegin = 0;   ///< Where the frame's content begins,
    std::size_t bodyLength = 0;  ///< and how long it is.
    std::int64_t time = 0;       ///< Time of arrival, in microseconds of steadyNow().
    bool sound = true;           ///< May be dropped for a listener that does not read.

    /// The bytes for a listener: all, or for HTTP/1.0 the frame's content.
    [[nodiscard]] std::string_view view(bool framed) const {
        const std::string_view whole = bytes;
        return framed ? whole : whole.substr(bodyBegin, bodyLength);
    }
};

using PacketPtr = std::shared_ptr<const Packet>;

}  // namespace vxweb
