"""How the window of the real program looks on a private screen: its scale and its pictures."""

import contextlib
import os
import re
import subprocess

from support.display import Display
from support.harness import SOURCE, Server, SystemTest, wait_until

SIZE = (701, 328)
# What stands on a plain background: left, top, width, height.
TEXTS = {"address label": (30, 40, 121, 22), "status": (165, 96, 240, 21),
         "sound": (30, 150, 381, 22)}
LOGO = (530, 10, 160, 120)
ICON_SIZE = 64
FACTORS = (1.25, 1.5, 2)
LAYOUT_DELTA = 2.5

display = None


def setUpModule():
    global display
    display = Display.of_module()


class Picture:
    """A picture of a window that shows all its texts."""

    def __init__(self, window, path):
        self.path = path
        wait_until(lambda: self._take(window), "the texts show")

    def _take(self, window):
        """Whether all texts show. ``boxes`` has left, top, width and height of each inside its
        area, in pixels of the layout."""
        display.screenshot(window, self.path)
        self.width, self.height = map(int, convert(self.path, "-format", "%w %h", "info:").split())
        scale = self.width / SIZE[0]
        areas = [["(", "-clone", "0", *crop(area, scale), ")"] for area in TEXTS.values()]
        found = convert(self.path, *sum(areas, []), "-delete", "0", "-fuzz", "25%", "-format",
                        "%@\n", "info:").decode("ascii")
        self.boxes = {name: [int(edge) / scale for edge in re.findall(r"\d+", box)]
                      for name, box in zip(TEXTS, found.splitlines())}
        return all(width for width, *_ in self.boxes.values())


def convert(path, *arguments):
    return subprocess.run(["convert", path, *arguments], check=True, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL).stdout


def crop(area, scale=1):
    left, top, width, height = (round(edge * scale) for edge in area)
    return ["-crop", f"{width}x{height}+{left}+{top}", "+repage"]


def colours(path, *arguments):
    """Red, green, blue and opacity of all pixels."""
    values = convert(path, *arguments, "-depth", "8", "RGBA:-")
    return list(zip(*[iter(values)] * 4))


class Window(SystemTest):
    @contextlib.contextmanager
    def window(self, dpi=96, **variables):
        """The window of a server on a screen of that resolution."""
        display.run("xprop", "-root", "-f", "RESOURCE_MANAGER", "8s", "-set", "RESOURCE_MANAGER",
                    f"Xft.dpi:\t{dpi}\n")
        with Server(gui=True, env={"DISPLAY": display.env["DISPLAY"], **variables}) as server:
            yield display.wait_window(server)

    def picture(self, dpi=96, **variables):
        marks = "-".join(map(str, ["window", dpi, *variables.values()]))
        with self.window(dpi, **variables) as window:
            return Picture(window, f"{os.environ.get('VELANTRIX_PICTURES', self.folder)}/{marks}.png")

    def assert_shows(self, shown, name):
        """Half transparent pixels depend on the background, and on who rounds."""
        image = colours(SOURCE / "gui/images" / name)
        self.assertEqual(len(shown), len(image))
        self.assertEqual(sum(a != b for a, b in zip(shown, image) if b[3] == 255), 0, name)


class Scale(Window):
    """Geometry and texts grow by the same factor, whole or not."""

    def check(self, scaled):
        """`scaled` gives the variables of a factor."""
        usual = self.picture(**scaled(1))
        self.assertEqual((usual.width, usual.height), SIZE)
        for factor in FACTORS:
            with self.subTest(factor):
                picture = self.picture(**scaled(factor))
                self.assertAlmostEqual(picture.width, SIZE[0] * factor, delta=1)
                self.assertAlmostEqual(picture.height, SIZE[1] * factor, delta=1)
                for name, box in usual.boxes.items():
                    for edge, usual_edge in zip(picture.boxes[name], box):
                        self.assertAlmostEqual(edge, usual_edge, delta=LAYOUT_DELTA, msg=name)

    def test_by_the_resolution_of_the_screen(self):
        self.check(lambda factor: {"dpi": round(96 * factor)})

    def test_by_the_users_variable(self):
        self.check(lambda factor: {"QT_SCALE_FACTOR": str(factor)})


class Images(Window):
    """The program was linked with its pictures."""

    def test_window_has_its_icon(self):
        with self.window() as window:
            words = display.run("xprop", "-id", window, "-f", "_NET_WM_ICON", "32c", "-notype",
                                "_NET_WM_ICON")
        width, height, *values = map(int, re.findall(r"\d+", words))
        self.assertEqual((width, height), (ICON_SIZE, ICON_SIZE))
        shown = [((value >> 16) & 255, (value >> 8) & 255, value & 255, value >> 24)
                 for value in values]
        self.assert_shows(shown, "vx-icon-sm.png")

    def test_logo_stands_in_the_window(self):
        self.assert_shows(colours(self.picture().path, *crop(LOGO)), "win_bitmap.bmp")
