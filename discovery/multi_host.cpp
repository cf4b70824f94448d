#include "discovery/multi_host.h"

int multiHost() {
    return 1;
}
