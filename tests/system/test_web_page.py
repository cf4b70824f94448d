"""The page of velantrix-web in Chromium and Firefox: what leaves the browser is the tone that the
server captures.

VELANTRIX_WEB_SECONDS says how long each one listens, 4 if it is not set.
"""

import array
import os
import pathlib
import re
import subprocess
import time
import urllib.request

from support.browser import Chromium, Firefox, ModuleTests
from support.harness import (PATIENCE, SOURCE, THERE_ADDRESS, OtherNetwork, Server, SoundServer,
                             SystemTest, clean_environment, die_with_parent, wait_until)
from support.web import RATE, Tone, Web, assert_tone

SECONDS = float(os.environ.get("VELANTRIX_WEB_SECONDS", "4"))
PORT = 59080
SINK = "browser"
QUALITIES = ("pcm", "256", "128", "64", "20")
SETTLING = 3  # Seconds that the buffer takes to learn how even the machine is.


class Logic(SystemTest):
    """The modules that need no page, in both browsers."""

    def check(self, browser):
        module = SOURCE / "tests/unit/page/sound_test.js"
        with browser() as running, ModuleTests(module) as tests:
            results = tests.run(running)
        self.assertGreater(len(results), 10)
        self.assertEqual({name: text for name, text in results.items() if text}, {})

    def test_in_chromium(self):
        self.check(Chromium)

    def test_in_firefox(self):
        self.check(Firefox)
