// The version check in a build without it: nothing is loaded or fetched.

#include "app/base/VelantrixServerNoGUI.h"
#include "update/WebIf.h"

int WebIf::init() {
    return 1;
}

void VelantrixServerNoGUI::versionCheckThreadFn() {}

int VelantrixServerNoGUI::checkVersion() {
    return 0;
}
