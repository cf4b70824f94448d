#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "listen/background.h"
#include "listen/client.h"
#include "listen/command_line.h"
#include "listen/device/audio_output.h"
#include "listen/find_server.h"
#include "listen/network/discovery_client.h"
#include "listen/options.h"
#include "listen/stop_request.h"

namespace {

int printDevices() {
    const std::vector<vxlisten::OutputDevice> devices = vxlisten::AudioOutput::devices();
    for (const vxlisten::OutputDevice& device : devices) {
        std::puts(device.name.c_str());
    }
    if (devices.empty()) {
        std::fputs("velantrix-listen: there is no output device\n", stderr);
    }
    return devices.empty() ? vxlisten::STATUS_FAILURE : vxlisten::STATUS_OK;
}

void print(std::FILE* target, const std::vector<vxlisten::FoundServer>& servers) {
    for (const vxlisten::FoundServer& server : servers) {
        std::fprintf(target, "%s\t%.1f ms\n", server.address.c_str(), server.responseMs);
    }
}

/// False, after a message, when no server has answered.
bool hasAnswer(const vxlisten::DiscoveryResult& result) {
    if (!result.error.empty()) {
        std::fprintf(stderr, "velantrix-listen: cannot look for servers: %s\n",
                     result.error.c_str());
    } else if (result.servers.empty()) {
        std::fputs("velantrix-listen: no server has answered\n", stderr);
    }
    return !result.servers.empty();
}

/// One server a line: address and response time, separated by a tab.
int printServers(const vxlisten::ServerChoice& choice) {
    const vxlisten::DiscoveryResult result = vxlisten::listServers(choice);
    print(stdout, result.servers);
    return hasAnswer(result) ? vxlisten::STATUS_OK : vxlisten::STATUS_FAILURE;
}

bool chooseServer(vxlisten::Options& options) {
    const vxlisten::DiscoveryResult result = vxlisten::findServer(options.server);
    if (result.servers.size() > 1 && !options.quiet) {
        std::fputs("velantrix-listen: several servers have answered, using the first\n", stderr);
        print(stderr, result.servers);
    }
    return hasAnswer(result);
}

int listenTo(vxlisten::Options options) {
    if (options.server.host.empty() && !chooseServer(options)) {
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
        return printDevices();
    }
    if (commandLine.options.list) {
        return printServers(commandLine.options.server);
    }
    const int status = listenTo(commandLine.options);
    if (vxlisten::workAbandoned()) {
        // GCOVR_EXCL_START: exit handlers would write the counts
        std::fflush(nullptr);
        std::_Exit(status);
        // GCOVR_EXCL_STOP
    }
    return status;
}
