#include "gui/VelantrixServer.h"

VelantrixServer::VelantrixServer(QWidget* parent) : QMainWindow(parent) {}
