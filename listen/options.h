#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "listen/find_server.h"
#include "listen/network/receiver.h"
#include "listen/playout/schedule.h"

namespace vxlisten {

/// How figures are printed while the program runs.
enum class StatsStyle { Display, Lines, Json };

/// Everything that the command line chooses.
struct Options {
    ServerChoice server;
    StreamChoice choice;
    double seconds = 0;      ///< Time from the connection to the end; 0: until stopped.
    std::string recordPath;  ///< Empty: no recording.
    bool toStdout = false;   ///< Raw samples go to standard output, all text to standard error.
    bool play = true;
    std::string device;  ///< Output device; empty: the default one.
    PlayoutSettings playout;
    bool list = false;         ///< Only list the servers.
    bool listDevices = false;  ///< Only list the output devices.
    bool once = false;         ///< End when the connection is lost; do not reconnect.
    bool quiet = false;
    StatsStyle stats = StatsStyle::Display;
};

}  // namespace vxlisten
