// The form and the resources, on a bare window, and what the window makes of them.

#include <cstddef>
#include <map>
#include <vector>

#include <QApplication>
#include <QFile>
#include <QFont>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QPushButton>
#include <QStatusBar>
#include <QTranslator>

#include "gui/VelantrixServer.h"
#include "gui_test.h"

namespace {

struct Item {
    const char* name;
    const char* className;
    QRect geometry;
    const char* text;
    const char* toolTip;
};

const std::vector<Item> CONTENT = {
    {"pushButtonTest", "QPushButton", {280, 200, 141, 61}, "Open Pulse Audio\nVolume Control", ""},
    {"lineEditClientStatus",
     "QLineEdit",
     {160, 91, 251, 31},
     "Initializing...",
     "Information on connected clients"},
    {"label", "QLabel", {30, 90, 121, 22}, "Status:", ""},
    {"label_2", "QLabel", {30, 40, 121, 22}, "Server Address:", ""},
    {"lineEditServerAddress",
     "QLineEdit",
     {160, 40, 171, 31},
     "",
     "IP address of this server (computer), to enter in app"},
    {"labelAudioStatus", "QLabel", {30, 150, 381, 22}, "", ""},
    {"labelImage", "QLabel", {530, 0, 171, 141}, "Logo Image", ""},
};

struct BareForm {
    BareForm() { form.setupUi(&window); }
    QMainWindow window;
    Ui_VelantrixServerClass form;
};

TEST(Form, ContentHasItsClassesGeometriesTextsAndToolTips) {
    const BareForm bare;
    const QObjectList children = bare.form.centralwidget->children();
    ASSERT_EQ(children.size(), static_cast<int>(CONTENT.size()));
    for (std::size_t i = 0; i < CONTENT.size(); ++i) {
        const Item& item = CONTENT[i];
        const auto* const widget = qobject_cast<QWidget*>(children[static_cast<int>(i)]);
        ASSERT_NE(widget, nullptr) << item.name;
        EXPECT_EQ(widget->objectName(), item.name);
        EXPECT_STREQ(widget->metaObject()->className(), item.className) << item.name;
        EXPECT_EQ(widget->geometry(), item.geometry) << item.name;
        EXPECT_EQ(widget->property("text").toString(), item.text) << item.name;
        EXPECT_EQ(widget->toolTip(), item.toolTip) << item.name;
    }
}

TEST(Form, FieldsStandInOrderAndPointToTheWidgetsOfTheirNames) {
    using Form = Ui_VelantrixServerClass;
    const std::vector<std::pair<std::size_t, const char*>> fields = {
        {offsetof(Form, centralwidget), "centralwidget"},
        {offsetof(Form, pushButtonTest), "pushButtonTest"},
        {offsetof(Form, lineEditClientStatus), "lineEditClientStatus"},
        {offsetof(Form, label), "label"},
        {offsetof(Form, label_2), "label_2"},
        {offsetof(Form, lineEditServerAddress), "lineEditServerAddress"},
        {offsetof(Form, labelAudioStatus), "labelAudioStatus"},
        {offsetof(Form, labelImage), "labelImage"},
        {offsetof(Form, menubar), "menubar"},
        {offsetof(Form, statusbar), "statusbar"}};
    EXPECT_EQ(sizeof(Form), fields.size() * sizeof(void*));
    const BareForm bare;
    const auto* const pointers = reinterpret_cast<QObject* const*>(&bare.form);
    for (std::size_t i = 0; i < fields.size(); ++i) {
        EXPECT_EQ(fields[i].first, i * sizeof(void*)) << fields[i].second;
        EXPECT_EQ(pointers[i]->objectName(), fields[i].second);
    }
}

TEST(Form, WindowHasItsSizeAndDockOptions) {
    const BareForm bare;
    EXPECT_EQ(bare.window.objectName(), "VelantrixServerClass");
    EXPECT_EQ(bare.window.size(), QSize(701, 328));
    EXPECT_EQ(bare.window.windowTitle(), "MainWindow");
    EXPECT_FALSE(bare.window.documentMode());
    EXPECT_FALSE(bare.window.isDockNestingEnabled());
    EXPECT_EQ(static_cast<int>(bare.window.dockOptions()), 5);
    EXPECT_EQ(bare.window.centralWidget(), bare.form.centralwidget);
    EXPECT_EQ(bare.window.menuWidget(), bare.form.menubar);
    EXPECT_EQ(bare.form.menubar->geometry(), QRect(0, 0, 701, 29));
    EXPECT_TRUE(bare.form.menubar->actions().isEmpty());
    EXPECT_EQ(bare.window.findChild<QStatusBar*>(), bare.form.statusbar);
}

TEST(Form, ObjectNameOfTheWindowIsKept) {
    QMainWindow window;
    window.setObjectName("mine");
    Ui_VelantrixServerClass form;
    form.setupUi(&window);
    EXPECT_EQ(window.objectName(), "mine");
}

/// Notes what is translated, and marks it.
class Marker : public QTranslator {
  public:
    [[nodiscard]] bool isEmpty() const override { return false; }
    QString translate(const char* context, const char* source, const char* /*disambiguation*/,
                      int /*n*/) const override {
        if (qstrcmp(context, "VelantrixServerClass") != 0) {
            return {};
        }
        asked << source;
        return QString("*") + source;
    }
    mutable QStringList asked;
};

TEST(Form, EveryTextThatIsNotEmptyIsTranslated) {
    Marker marker;
    QCoreApplication::installTranslator(&marker);
    const BareForm bare;
    QCoreApplication::removeTranslator(&marker);
    EXPECT_EQ(bare.window.windowTitle(), "*MainWindow");
    for (const Item& item : CONTENT) {
        const auto* const widget = bare.window.findChild<QWidget*>(item.name);
        const QString text = item.text;
        EXPECT_EQ(widget->property("text").toString(), text.isEmpty() ? "" : "*" + text);
        const QString tip = item.toolTip;
        EXPECT_EQ(widget->toolTip(), tip.isEmpty() ? "" : "*" + tip);
    }
    EXPECT_EQ(marker.asked.size(), 8);
}

QByteArray resource(const char* name) {
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

TEST(Resources, IconIsA64By64PngWithEightBitRgba) {
    const QByteArray png = resource(":/vx-icon-sm.png");
    ASSERT_EQ(png.mid(1, 3), "PNG");
    EXPECT_EQ(png.mid(16, 10), QByteArray("\0\0\0\x40\0\0\0\x40\x08\x06", 10));
    const QImage image = QImage::fromData(png);
    EXPECT_EQ(image.pixelColor(0, 0).alpha(), 0);
    EXPECT_EQ(image.pixelColor(32, 32).alpha(), 255);
}

TEST(Resources, LogoIsA160By120BitmapWith32BitsPerPixel) {
    const QByteArray bmp = resource(":/win_bitmap.bmp");
    ASSERT_EQ(bmp.left(2), "BM");
    EXPECT_EQ(bmp.mid(18, 12), QByteArray("\xA0\0\0\0\x78\0\0\0\x01\0\x20\0", 12));
    const QImage image = QImage::fromData(bmp);
    EXPECT_EQ(image.size(), QSize(160, 120));
    EXPECT_EQ(image.pixelColor(0, 0).alpha(), 0) << "the window's background must show";
    EXPECT_EQ(image.pixelColor(80, 40).alpha(), 255);
}

TEST(WindowForm, ShowsIconAndLogoUnscaled) {
    const VelantrixServer window(nullptr);
    EXPECT_EQ(window.windowIcon().availableSizes(), QList<QSize>{QSize(64, 64)});
    const auto* const label = window.findChild<QLabel*>("labelImage");
    ASSERT_NE(label->pixmap(Qt::ReturnByValue).toImage(), QImage());
    EXPECT_EQ(label->pixmap(Qt::ReturnByValue).size(), QSize(160, 120));
    EXPECT_FALSE(label->hasScaledContents());
}

class UsersFont : public ::testing::Test {
  protected:
    ~UsersFont() override { QApplication::setFont(usual); }

    static void expectFits(const QWidget& widget, const QString& text) {
        const QSize size = widget.fontMetrics().size(0, text);
        EXPECT_LE(size.width(), widget.width()) << text.toStdString();
        EXPECT_LE(size.height(), widget.height()) << text.toStdString();
    }

    QFont usual = QApplication::font();
};

TEST_F(UsersFont, OfAnySizeLeavesNoTextCutOff) {
    QFont pixels("DejaVu Sans");
    pixels.setPixelSize(40);
    const QFont bold("DejaVu Sans", 9, QFont::Bold);
    for (const QFont& font : {bold, QFont("DejaVu Sans", 30), pixels}) {
        QApplication::setFont(font);
        const VelantrixServer window(nullptr);
        for (const char* const name : {"label", "label_2", "pushButtonTest"}) {
            const auto* const widget = window.findChild<QWidget*>(name);
            expectFits(*widget, widget->property("text").toString());
        }
        expectFits(*window.findChild<QWidget*>("labelAudioStatus"),
                   "Audio capture running at 44.1 kHz");
        expectFits(*window.findChild<QWidget*>("lineEditServerAddress"), "255.255.255.255");
    }
}

TEST_F(UsersFont, KeepsItsFamily) {
    QApplication::setFont(QFont("DejaVu Serif", 10));
    const VelantrixServer window(nullptr);
    EXPECT_EQ(window.findChild<QLabel*>("label_2")->font().family(), "DejaVu Serif");
}

TEST(WindowForm, LinesStayEditableButTakeNoFocus) {
    const VelantrixServer window(nullptr);
    for (const char* name : {"lineEditClientStatus", "lineEditServerAddress"}) {
        const auto* const line = window.findChild<QLineEdit*>(name);
        EXPECT_EQ(line->focusPolicy(), Qt::NoFocus) << name;
        EXPECT_FALSE(line->isReadOnly()) << name;
    }
}

}  // namespace
