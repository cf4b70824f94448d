#pragma once

#include <QImage>
#include <QMainWindow>
#include <QMessageBox>
#include <QPalette>
#include <QString>
#include <QTimer>

#include "app/base/VelantrixServerNoGUI.h"
#include "ui_VelantrixServer.h"

/// The main window, which is also the server core: it shows the server's address, whether sound
/// is being captured, and who is connected.
///
/// Worker threads never touch a widget. The signals below are connected to the slots of the same
/// subject with blocking queued connections: the emitting thread waits until the main thread has
/// run the slot. The main thread would wait for itself.
///
/// Built, shown and destroyed on the main thread; during its destruction the slots open no box.
class VelantrixServer : public QMainWindow, public VelantrixServerNoGUI {
    Q_OBJECT

  public:
    /// Builds the window, not yet shown, and starts its timer.
    explicit VelantrixServer(QWidget* parent);

    /// Releases the threads that wait for the window, then stops the sound as the core does.
    ~VelantrixServer() override;

    /// Shows the status line "Connected ..." or "Disconnected" and keeps the name for later reports
    /// without a name. Without `direct` it blocks until the main thread has shown it.
    void SetClientStatus(int clientCount, const char* clientName, bool direct) override;

    /// Shows `message` (Latin-1; null: empty) in a box and blocks until the user has closed it.
    /// Thread: network | version check.
    void emitShowMessage(const char* message) override;

    /// Looks for a newer release and asks the user whether to get it; waits for the answer.
    int checkVersion() override;

    /// Shows the present address of this machine. Thread: main.
    void UpdateState();

  signals:
    /// A message to show in a box.
    void showMessage(QString theMessage);

    /// A question to ask in a box. Returns the button pressed (QMessageBox::StandardButton), 0
    /// when the question could not be asked.
    int showQuestion(QMessageBox::Icon icon, QString title, QString message,
                     QMessageBox::StandardButtons buttons);

    /// A new text for the status line.
    void setClientStatus(QString theMessage);

  public slots:
    /// Starts the PulseAudio volume control through a shell, which ends with the server.
    void handlePAVButtonClicked();

    /// Updates address and audio status; runs every second.
    void handleTimerTimeout();

    void handleShowMessage(QString message);
    int handleShowQuestion(QMessageBox::Icon icon, QString title, QString message,
                           QMessageBox::StandardButtons buttons);
    void handleSetClientStatus(QString message);

  private:
    void connectReports();

    Ui_VelantrixServerClass ui;
    QTimer statusTimer;
    QImage logoImage;
    QPalette connectedPalette;
    QPalette disconnectedPalette;

    friend struct WindowTestAccess;
};
