// The user's font and the fixed layout.

#include "gui/text_fit.h"

#include <QApplication>
#include <QFontMetrics>
#include <QLabel>
#include <QPushButton>

#include "gui/VelantrixServer.h"
#include "gui_test.h"

namespace {

class TextFit : public ::testing::Test {
  protected:
    ~TextFit() override { QApplication::setFont(usual); }

    static void expectFits(const QWidget& widget, const QString& text) {
        const QSize size = widget.fontMetrics().size(0, text);
        EXPECT_LE(size.width(), widget.width()) << text.toStdString();
        EXPECT_LE(size.height(), widget.height()) << text.toStdString();
    }

    QFont usual = QApplication::font();
};

TEST_F(TextFit, LargeFontIsReducedUntilNothingIsCutOff) {
    for (const int points : {9, 12, 16, 30}) {
        QApplication::setFont(QFont("DejaVu Sans", points));
        const VelantrixServer window(nullptr);
        for (const char* name : {"label", "label_2"}) {
            const auto* const label = window.findChild<QLabel*>(name);
            expectFits(*label, label->text());
        }
        const auto* const button = window.findChild<QPushButton*>();
        expectFits(*button, button->text());
        expectFits(*window.findChild<QLabel*>("labelAudioStatus"),
                   "Audio capture running at 44.1 kHz");
        expectFits(*window.findChild<QWidget*>("lineEditServerAddress"), "255.255.255.255");
    }
}

TEST_F(TextFit, FontInPixelsIsReducedToo) {
    QFont font("DejaVu Sans");
    font.setPixelSize(40);
    QApplication::setFont(font);
    const VelantrixServer window(nullptr);
    const auto* const label = window.findChild<QLabel*>("label_2");
    expectFits(*label, label->text());
}

TEST_F(TextFit, FontThatFitsIsLeftAlone) {
    QApplication::setFont(QFont("DejaVu Sans", 8));
    const VelantrixServer window(nullptr);
    EXPECT_EQ(window.findChild<QLabel*>("label_2")->font().pointSizeF(), 8);
}

TEST_F(TextFit, TextThatNoFontFitsIsLeftAtTheSmallestOne) {
    QWidget content;
    content.setFont(QFont("DejaVu Sans", 10));
    QLabel label("far too long for this", &content);
    label.setFixedSize(2, 2);
    fitFont(content);
    EXPECT_LT(content.font().pointSizeF(), 10);
    EXPECT_GT(content.font().pointSizeF(), 0);
}

TEST_F(TextFit, FontIsTheSameForAllOfTheContent) {
    QApplication::setFont(QFont("DejaVu Sans", 30));
    const VelantrixServer window(nullptr);
    const QWidget* const content = window.centralWidget();
    for (const auto* const widget : content->findChildren<QWidget*>()) {
        EXPECT_EQ(widget->font().pointSizeF(), content->font().pointSizeF());
    }
    EXPECT_LT(content->font().pointSizeF(), 30);
}

}  // namespace
