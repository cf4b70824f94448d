#include "gui/message_box.h"

#include <cassert>

#include <QMessageBox>
#include <QString>

#include "app/base/core_pin.h"
#include "common/thread_check.h"
#include "gui/VelantrixServer.h"

namespace {

/// False once the window is being destroyed: the user has quit.
bool mayOpenBox() {
    return static_cast<bool>(CorePin());
}

/// Runs a box whose closing does not end the program when the main window is hidden.
int runBox(QMessageBox& box) {
    box.setAttribute(Qt::WA_QuitOnClose, false);
    return box.exec();
}

}  // namespace

void VelantrixServer::emitShowMessage(const char* message) {
    assert(!onMainThread());
    emit showMessage(QString::fromLatin1(message));
}

void VelantrixServer::handleShowMessage(QString message) {
    if (!mayOpenBox()) {
        return;
    }
    QMessageBox box;
    box.setText(message);
    runBox(box);
}

int VelantrixServer::handleShowQuestion(QMessageBox::Icon icon, QString title, QString message,
                                        QMessageBox::StandardButtons buttons) {
    if (!mayOpenBox()) {
        return 0;
    }
    QMessageBox box(icon, title, message, buttons, nullptr,
                    Qt::Dialog | Qt::MSWindowsFixedSizeDialogHint);
    if (buttons.testFlag(QMessageBox::Yes)) {
        box.setDefaultButton(QMessageBox::Yes);
    }
    return runBox(box);
}

void AfxMessageBoxInternal(const char* text) {
    assert(onMainThread());
    QMessageBox box;
    box.setText(QString::fromUtf8(text));
    runBox(box);
}
