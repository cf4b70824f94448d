#include "gui/Settings.h"

void Settings::loadSettings() {}
