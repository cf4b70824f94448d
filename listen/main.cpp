#include "listen/client.h"
#include "listen/command_line.h"
#include "listen/stop_request.h"

int main(int argc, char** argv) {
    const vxlisten::CommandLine commandLine = vxlisten::readCommandLine(argc, argv);
    if (commandLine.status) {
        return *commandLine.status;
    }
    vxlisten::installStopRequest();
    vxlisten::Client client(commandLine.options);
    return client.run();
}
