#include "gui/VelantrixServer.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <QCoreApplication>
#include <QEvent>
#include <QFont>
#include <QIcon>
#include <QPixmap>

#include "app/core_life.h"
#include "common/thread_check.h"
#include "stream/capture_rate.h"

namespace {

constexpr int FONT_PIXELS = 13;

constexpr int TICK_MS = 1000;
constexpr std::uint32_t TITLE_TICK = 1;  // Ticks before the one that shortens the title.
constexpr std::uint32_t TICKS_PER_ADDRESS = 10;

constexpr double RATE_48K_KHZ = 48;
constexpr double RATE_44K1_KHZ = 44.1;

constexpr std::size_t NAME_ROOM = 256;
constexpr std::size_t COUNT_ROOM = 16;
constexpr std::size_t STATUS_ROOM = 640;

const QColor CONNECTED_COLOR(0, 160, 0);
const QColor DISCONNECTED_COLOR(255, 64, 0);

/// Runs the slots that worker threads wait for. `window` is the VelantrixServer being closed.
void serveReports(void* window) {
    QCoreApplication::sendPostedEvents(static_cast<VelantrixServer*>(window), QEvent::MetaCall);
}

QString audioStatusText(bool active) {
    if (!active) {
        return QStringLiteral("<font color=#FF4000>Audio capture failed</font>");
    }
    const double rate = getVxOptionAltRate() ? RATE_48K_KHZ : RATE_44K1_KHZ;
    return QStringLiteral("<font color=#00A000>Audio capture running at ") +
           QString().setNum(rate, 'g', 6) + QStringLiteral(" kHz</font>");
}

/// The layout is in pixels, so the size of the font is, too; the user chooses its family.
void fixFontSize(QWidget& content) {
    QFont font;
    font.setPixelSize(FONT_PIXELS);
    content.setFont(font);
}

/// Copies at most 255 bytes.
void copyName(char (&kept)[NAME_ROOM], const char* name) {
    const std::size_t length = std::min(std::strlen(name), NAME_ROOM - 1);
    std::memcpy(kept, name, length);
    kept[length] = '\0';
}

}  // namespace

// The linker drops the resources of a static library unless they are named.
static void keepResources() {
    Q_INIT_RESOURCE(VelantrixServer);
}

VelantrixServer::VelantrixServer(QWidget* parent) : QMainWindow(parent) {
    keepResources();
    ui.setupUi(this);
    fixFontSize(*ui.centralwidget);
    setWindowTitle("Velantrix Server  v" VELANTRIX_VERSION "    ");
    setWindowIcon(QIcon(":/vx-icon-sm.png"));
    logoImage.load(":/win_bitmap.bmp");
    ui.labelImage->setPixmap(QPixmap::fromImage(logoImage));
    connectedPalette.setColor(QPalette::Text, CONNECTED_COLOR);
    disconnectedPalette.setColor(QPalette::Text, DISCONNECTED_COLOR);

    connect(&statusTimer, SIGNAL(timeout()), this, SLOT(handleTimerTimeout()));
    statusTimer.start(TICK_MS);
    connect(ui.pushButtonTest, SIGNAL(clicked()), this, SLOT(handlePAVButtonClicked()));
    connectReports();

    ui.lineEditClientStatus->setFocusPolicy(Qt::NoFocus);
    ui.lineEditServerAddress->setFocusPolicy(Qt::NoFocus);
    UpdateState();
    VelantrixServer::SetClientStatus(0, "", true);
}

VelantrixServer::~VelantrixServer() {
    assert(onMainThread());
    closeCore(serveReports, this);
}

void VelantrixServer::connectReports() {
    qRegisterMetaType<QMessageBox::Icon>("QMessageBox::Icon");
    qRegisterMetaType<QMessageBox::StandardButtons>("QMessageBox::StandardButtons");
    connect(this, SIGNAL(showMessage(QString)), this, SLOT(handleShowMessage(QString)),
            Qt::BlockingQueuedConnection);
    connect(
        this,
        SIGNAL(showQuestion(QMessageBox::Icon, QString, QString, QMessageBox::StandardButtons)),
        this,
        SLOT(handleShowQuestion(QMessageBox::Icon, QString, QString, QMessageBox::StandardButtons)),
        Qt::BlockingQueuedConnection);
    connect(this, SIGNAL(setClientStatus(QString)), this, SLOT(handleSetClientStatus(QString)),
            Qt::BlockingQueuedConnection);
}

void VelantrixServer::UpdateState() {
    assert(onMainThread());
    ui.lineEditServerAddress->setText(QString::fromUtf8(GetIPAddress()));
}

void VelantrixServer::handleTimerTimeout() {
    static bool firstTime = true;
    static std::uint32_t div10 = 0;
    static bool lastAudioCaptureActive = false;

    const bool active = audioCaptureActive.exchange(false, std::memory_order_relaxed);
    if (div10 == TITLE_TICK) {
        setWindowTitle("Velantrix Server");
    }
    if (active != lastAudioCaptureActive || firstTime) {
        ui.labelAudioStatus->setText(audioStatusText(active));
    }
    if (div10++ % TICKS_PER_ADDRESS == 0) {
        UpdateState();
    }
    firstTime = false;
    lastAudioCaptureActive = active;
}

void VelantrixServer::SetClientStatus(int clientCount, const char* clientName, bool direct) {
    assert(direct == onMainThread());
    static char o_name[NAME_ROOM] = "";  // Touched by the capture thread only, once it runs.

    char text[STATUS_ROOM] = "Disconnected";
    const char* const name = clientName != nullptr ? clientName : o_name;
    if (clientCount > 0) {
        char count[COUNT_ROOM] = "";
        if (clientCount != 1) {
            std::snprintf(count, sizeof count, " (%d)", clientCount);
        }
        if (name[0] != '\0') {
            std::snprintf(text, sizeof text, "Connected to %s%s", name, count);
        } else {
            std::snprintf(text, sizeof text, "Connected%s", count);
        }
    }
    const QString message = QString::fromUtf8(text);
    if (direct) {
        handleSetClientStatus(message);
    } else {
        emit setClientStatus(message);
    }
    // The window may be gone now: nothing of it may be used after this.
    if (clientCount <= 0) {
        o_name[0] = '\0';
    } else if (name != o_name) {
        copyName(o_name, name);
    }
}

void VelantrixServer::handleSetClientStatus(QString message) {
    ui.lineEditClientStatus->setText(message);
    ui.lineEditClientStatus->setCursorPosition(0);  // A long name shows its beginning.
    ui.lineEditClientStatus->setPalette(
        message == QLatin1String("Disconnected") ? disconnectedPalette : connectedPalette);
}
