#pragma once

#include <cstdint>
#include <string>

#include "listen/receiver.h"
#include "stream/wire_format.h"

namespace vxlisten {

/// How figures are printed while the program runs.
enum class StatsStyle { Display, Lines, Json };

/// Everything that the command line chooses.
struct Options {
    std::string host;  ///< Empty: find a server.
    std::uint16_t port = wire::DEFAULT_SERVER_PORT;
    StreamChoice choice;
    double seconds = 0;      ///< Time from the connection to the end; 0: until stopped.
    std::string recordPath;  ///< Empty: no recording.
    bool play = true;
    bool once = false;  ///< End when the connection ends, instead of connecting again.
    bool quiet = false;
    StatsStyle stats = StatsStyle::Display;
};

}  // namespace vxlisten
