#include <cstdio>
#include <cstdlib>
#include <optional>

#include "listen/background.h"
#include "web/command_line.h"
#include "web/program.h"

int main(int argc, char** argv) {
    const vxweb::CommandLine commandLine = vxweb::readCommandLine(argc, argv);
    const int status = commandLine.status.value_or(vxweb::STATUS_OK);
    if (commandLine.status) {
        return status;
    }
    const int result = vxweb::run(commandLine.options);
    if (vxlisten::workAbandoned()) {
        // GCOVR_EXCL_START: exit handlers would write the counts
        std::fflush(nullptr);
        std::_Exit(result);
        // GCOVR_EXCL_STOP
    }
    return result;
}
