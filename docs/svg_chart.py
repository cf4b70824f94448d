"""Line charts as SVG text, readable on light and dark pages, without any library."""

import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 800, 420
LEFT, RIGHT, TOP, BOTTOM = 70, 190, 40, 50
COLOURS = ("#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e", "#8c564b", "#e377c2", "#7f7f7f",
           "#bcbd22", "#17becf")


class Axis:
    """Maps values to pixels, linearly or by powers of ten."""

    def __init__(self, low, high, start, end, logarithmic=False):
        self.low, self.high, self.start, self.end = low, high, start, end
        self.logarithmic = logarithmic
        if logarithmic:
            self.low = 10 ** math.floor(math.log10(low) + 1e-9)
            self.high = 10 ** math.ceil(math.log10(high) - 1e-9)

    def at(self, value):
        if self.logarithmic:
            share = math.log10(max(value, self.low) / self.low) / math.log10(self.high / self.low)
        else:
            share = (value - self.low) / ((self.high - self.low) or 1)
        return self.start + share * (self.end - self.start)

    def ticks(self):
        if self.logarithmic:
            first, last = round(math.log10(self.low)), round(math.log10(self.high))
            return [10.0 ** power for power in range(first, last + 1)]
        step = 10 ** math.floor(math.log10((self.high - self.low) / 4))
        step *= next((m for m in (1, 2, 5, 10) if (self.high - self.low) / (step * m) <= 6), 10)
        count = int((self.high - self.low) / step + 1e-9)
        return [self.low + i * step for i in range(count + 1)]


def number(value):
    return f"{value:g}"


class Chart:
    """Lines, points and marks; `svg()` is the whole picture.

    Each series: {"name", "points": [(x, y)], and optionally "dashed", "dots", "colour"}.
    """

    def __init__(self, title, x_label, y_label, x_log=False, y_log=False, y_from=None):
        self.title, self.x_label, self.y_label = title, x_label, y_label
        self.x_log, self.y_log, self.y_from = x_log, y_log, y_from
        self.series = []
        self.limits = []

    def add(self, name, points, dashed=False, dots=False, colour=None):
        self.series.append({"name": name, "points": points, "dashed": dashed, "dots": dots,
                            "colour": colour or COLOURS[len(self.series) % len(COLOURS)]})

    def limit(self, y, name):
        """A level that is wanted, drawn across."""
        self.limits.append((y, name))

    def axes(self):
        xs = [x for each in self.series for x, _ in each["points"]]
        ys = [y for each in self.series for _, y in each["points"]] + [y for y, _ in self.limits]
        low = self.y_from if self.y_from is not None else (min(ys) if self.y_log else 0)
        return (Axis(min(xs), max(xs), LEFT, WIDTH - RIGHT, self.x_log),
                Axis(low, max(ys) * (1 if self.y_log else 1.05), HEIGHT - BOTTOM, TOP, self.y_log))

    def svg(self):
        x_axis, y_axis = self.axes()
        parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
                 f'font-family="sans-serif" font-size="12">',
                 f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
                 text(LEFT, 22, self.title, 'font-size="15" font-weight="bold"')]
        parts += self._grid(x_axis, y_axis)
        for y, name in self.limits:
            at = y_axis.at(y)
            parts.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{at:.1f}" y2="{at:.1f}" '
                         f'stroke="black" stroke-dasharray="2 4"/>')
            parts.append(text(WIDTH - RIGHT + 8, at + 4, name, 'fill="black"'))
        for each in self.series:
            parts += self._line(each, x_axis, y_axis)
        parts += self._legend()
        return "\n".join([*parts, "</svg>"]) + "\n"

    def _grid(self, x_axis, y_axis):
        bottom, parts = HEIGHT - BOTTOM, []
        for value in x_axis.ticks():
            at = x_axis.at(value)
            parts.append(f'<line x1="{at:.1f}" x2="{at:.1f}" y1="{TOP}" y2="{bottom}" '
                         f'stroke="#e0e0e0"/>')
            parts.append(text(at, bottom + 18, number(value), 'text-anchor="middle"'))
        for value in y_axis.ticks():
            at = y_axis.at(value)
            parts.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{at:.1f}" y2="{at:.1f}" '
                         f'stroke="#e0e0e0"/>')
            parts.append(text(LEFT - 8, at + 4, number(value), 'text-anchor="end"'))
        middle = (LEFT + WIDTH - RIGHT) / 2
        parts.append(text(middle, HEIGHT - 10, self.x_label, 'text-anchor="middle"'))
        height = (TOP + bottom) / 2
        parts.append(text(18, height, self.y_label,
                          f'text-anchor="middle" transform="rotate(-90 18 {height})"'))
        return parts

    @staticmethod
    def _line(each, x_axis, y_axis):
        pixels = [(x_axis.at(x), y_axis.at(y)) for x, y in each["points"]]
        colour = each["colour"]
        if each["dots"]:
            return [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="2.5" fill="{colour}"/>'
                    for x, y in pixels]
        points = " ".join(f"{x:.1f},{y:.1f}" for x, y in pixels)
        dash = ' stroke-dasharray="5 4"' if each["dashed"] else ""
        return [f'<polyline points="{points}" fill="none" stroke="{colour}" '
                f'stroke-width="1.6"{dash}/>']

    def _legend(self):
        parts, left = [], WIDTH - RIGHT + 12
        for index, each in enumerate(self.series):
            at = TOP + 10 + 17 * index
            dash = ' stroke-dasharray="5 4"' if each["dashed"] else ""
            mark = (f'<circle cx="{left + 10}" cy="{at - 4}" r="2.5" fill="{each["colour"]}"/>'
                    if each["dots"] else
                    f'<line x1="{left}" x2="{left + 20}" y1="{at - 4}" y2="{at - 4}" '
                    f'stroke="{each["colour"]}" stroke-width="2"{dash}/>')
            parts += [mark, text(left + 26, at, each["name"])]
        return parts


def text(x, y, words, attributes=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" fill="#222" {attributes}>{escape(words)}</text>'.replace(
        'fill="#222" fill="black"', 'fill="black"')
