#include "app/VelantrixServerNoGUI.h"

const char* VelantrixServerNoGUI::GetIPAddress() {
    return "(Unknown)";
}
