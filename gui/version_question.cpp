#include "gui/VelantrixServer.h"

int VelantrixServer::checkVersion() {
    return VelantrixServerNoGUI::checkVersion();
}
