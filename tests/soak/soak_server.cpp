// The headless server on the paced capture, with both sequence counters started close to their
// wrap. Usage: PACED_CAPTURE_TABLE=FILE PACED_CAPTURE_SPEED=0 soak_server PORT
// Ends on SIGTERM with status 0 when every slot is free, no connection is counted and the table was
// never seen wrong, else 1.

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <QCoreApplication>

#include "app/base/command_line.h"
#include "app/base/console.h"
#include "app/base/main_loop.h"
#include "stream/client_table.h"
#include "stream/send_path.h"
#include "tests/soak/checking_core.h"
#include "tests/support/capture_table.h"

namespace {

/// Behind the start and the warm-up, well inside a quarter of an hour.
constexpr std::uint32_t BLOCKS_BEFORE_WRAP = 50000;

bool startCloseToWrap() {
    const char* const path = std::getenv("PACED_CAPTURE_TABLE");
    CaptureTable* const table = path == nullptr ? nullptr : mapCaptureTable(path, TableUse::Make);
    if (table == nullptr) {
        return false;
    }
    seqNum = 0U - BLOCKS_BEFORE_WRAP;
    seqNumComp = 0U - BLOCKS_BEFORE_WRAP;
    table->firstRaw.store(seqNum);
    table->firstCompressed.store(seqNumComp);
    return true;
}

bool everythingIsFree() {
    const auto taken = std::count_if(clientConn.begin(), clientConn.end(),
                                     [](const ClientSlot& slot) { return slot.peer != nullptr; });
    std::fprintf(stderr, "soak_server: %d connections, %d slots taken\n", connectCount,
                 static_cast<int>(taken));
    return connectCount == 0 && taken == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || !startCloseToWrap()) {
        std::fputs("usage: PACED_CAPTURE_TABLE=FILE soak_server PORT\n", stderr);
        return 2;
    }
    consoleStart();
    const char* const words[] = {argv[0], "-p", argv[1]};
    scanArguments(3, words);
    QCoreApplication application(argc, argv);
    installMainLoopRequests();
    long faults = 0;
    {
        CheckingCore core;
        core.init();
        QCoreApplication::exec();
        faults = core.faults();
    }
    removeMainLoopRequests();
    return everythingIsFree() && faults == 0 ? 0 : 1;
}
