#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "listen/audio_output.h"
#include "listen/background.h"
#include "listen/client.h"
#include "listen/command_line.h"
#include "listen/find_server.h"
#include "listen/options.h"
#include "listen/stop_request.h"

namespace {

int listDevices() {
    const std::vector<vxlisten::OutputDevice> devices = vxlisten::AudioOutput::devices();
    for (const vxlisten::OutputDevice& device : devices) {
        std::puts(device.name.c_str());
    }
    if (devices.empty()) {
        std::fputs("velantrix-listen: there is no output device\n", stderr);
    }
    return devices.empty() ? vxlisten::STATUS_FAILURE : vxlisten::STATUS_OK;
}

int listenTo(vxlisten::Options options) {
    if (options.host.empty() && !vxlisten::findServer(options)) {
        return vxlisten::STATUS_FAILURE;
    }
    return vxlisten::Client(options).run();
}

}  // namespace

int main(int argc, char** argv) {
    const vxlisten::CommandLine commandLine = vxlisten::readCommandLine(argc, argv);
    if (commandLine.status) {
        return *commandLine.status;
    }
    vxlisten::installStopRequest();
    if (commandLine.options.listDevices) {
        return listDevices();
    }
    if (commandLine.options.list) {
        return vxlisten::listServers(commandLine.options);
    }
    const int status = listenTo(commandLine.options);
    if (vxlisten::workAbandoned()) {
        // GCOVR_EXCL_START: without exit handlers, which write the counts, too
        std::fflush(nullptr);
        std::_Exit(status);
        // GCOVR_EXCL_STOP
    }
    return status;
}
