#include "app/VelantrixServerNoGUI.h"

void VelantrixServerNoGUI::versionCheckThreadFn() {}

int VelantrixServerNoGUI::checkVersion() {
    return 0;
}
