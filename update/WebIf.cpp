#include "update/WebIf.h"

int WebIf::init() {
    return 1;
}
