#pragma once

class QWidget;

/// Gives `content` the largest font, up to its present one, in which the texts of all its labels
/// and buttons fit their geometries, and an IPv4 address fits its input lines: the layout is
/// fixed, the user's font is not. Changes nothing when all fit. Thread: main.
void fitFont(QWidget& content);
