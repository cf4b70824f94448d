#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "web/channel.h"

namespace vxweb {

/// The target of a request.
struct Route {
    enum class Kind { Asset, Qr, Status, Playlist, Stream, Live, Missing, BadQuery };

    Kind kind = Kind::Missing;
    std::string_view path;  ///< Without the query. Borrowed from the target.
    ChannelId channel = 0;  ///< Stream and Live.
    std::string problem;    ///< BadQuery: one sentence.
};

/// Finds the route of a target, "/path?query". Pure.
Route findRoute(std::string_view target);

/// The value of the first `name` in a query, if any. Not decoded: none of our names and values
/// needs it. Pure.
std::optional<std::string_view> queryValue(std::string_view query, std::string_view name);

}  // namespace vxweb
