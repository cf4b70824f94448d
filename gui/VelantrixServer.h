#pragma once

#include <QMainWindow>

#include "app/VelantrixServerNoGUI.h"

/// The main window.
class VelantrixServer : public QMainWindow, public VelantrixServerNoGUI {
  public:
    explicit VelantrixServer(QWidget* parent);
};
