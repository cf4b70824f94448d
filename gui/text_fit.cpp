#include "gui/text_fit.h"

#include <QAbstractButton>
#include <QFontMetrics>
#include <QLabel>
#include <QLineEdit>

namespace {

constexpr double SMALLEST_POINTS = 6;
constexpr double STEP_POINTS = 0.5;
constexpr int SMALLEST_PIXELS = 8;

// What the style draws around a text, in pixels on both sides together.
constexpr int BUTTON_FRAME = 12;
constexpr int LINE_FRAME = 10;

bool fits(const QWidget& widget, const QString& text, int frame, const QFont& font) {
    const QSize wanted = QFontMetrics(font).size(0, text);
    return wanted.width() + frame <= widget.width() && wanted.height() <= widget.height();
}

bool allFit(const QWidget& content, const QFont& font) {
    const QString widestAddress = QStringLiteral("255.255.255.255");
    bool fit = true;
    for (const auto* const label : content.findChildren<QLabel*>()) {
        fit = fit && (label->text().isEmpty() || fits(*label, label->text(), 0, font));
    }
    for (const auto* const button : content.findChildren<QAbstractButton*>()) {
        fit = fit && fits(*button, button->text(), BUTTON_FRAME, font);
    }
    for (const auto* const line : content.findChildren<QLineEdit*>()) {
        fit = fit && fits(*line, widestAddress, LINE_FRAME, font);
    }
    return fit;
}

/// False when the font is as small as it may get. A font has its size in points or in pixels.
bool makeSmaller(QFont& font) {
    if (font.pointSizeF() > SMALLEST_POINTS) {
        font.setPointSizeF(font.pointSizeF() - STEP_POINTS);
    } else if (font.pixelSize() > SMALLEST_PIXELS) {
        font.setPixelSize(font.pixelSize() - 1);
    } else {
        return false;
    }
    return true;
}

}  // namespace

void fitFont(QWidget& content) {
    QFont font = content.font();
    while (!allFit(content, font)) {
        if (!makeSmaller(font)) {
            break;
        }
    }
    if (font != content.font()) {
        content.setFont(font);
    }
}
