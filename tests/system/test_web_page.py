"""The page of velantrix-web in Chromium and Firefox: what leaves the browser is the tone that the
server captures.

VELANTRIX_WEB_SECONDS says how long each one listens, 4 if it is not set; then not every browser
tries everything.
"""

import array
import os
import pathlib
import re
import ssl
import statistics
import subprocess
import time
import urllib.request

from support.browser import Chromium, Firefox, ModuleTests
from support.harness import (PATIENCE, SOURCE, THERE_ADDRESS, OtherNetwork, Process, Server,
                             SoundServer, SystemTest, clean_environment, die_with_parent,
                             listen_command, wait_until)
from support.network import ip
from support.processes import prefer
from support.web import RATE, Clicks, Tone, Web, assert_tone

SECONDS = float(os.environ.get("VELANTRIX_WEB_SECONDS", "4"))
PORT = 59080
SINK = "browser"
IN_FULL = "VELANTRIX_WEB_SECONDS" in os.environ
QUALITIES = ("pcm", "256", "128", "64", "20")
SETTLING = 2  # Seconds that the buffer takes to learn how even the machine is.


class Logic(SystemTest):
    """The modules that need no page, in both browsers."""

    def check(self, browser):
        module = SOURCE / "tests/unit/web/page/sound_test.js"
        with browser() as running, ModuleTests(module) as tests:
            results = tests.run(running)
        self.assertGreater(len(results), 10)
        self.assertEqual({name: text for name, text in results.items() if text}, {})

    def test_in_chromium(self):
        self.check(Chromium)

    def test_in_firefox(self):
        self.check(Firefox)


class PageTest(SystemTest):
    """A server that captures a tone and velantrix-web, both at the other end of a cable; a browser
    here, whose sound goes to a null sink of its own."""

    scheme = "http"
    host = THERE_ADDRESS
    source = Tone
    rate = RATE  # Of the server's capture.

    def setUp(self):
        super().setUp()
        self.there = self.enterContext(OtherNetwork())
        self.sound = self.enterContext(SoundServer())
        self.make_sinks()
        self.server = self.start_server()
        self.player = self.enterContext(self.source(self.sound)).player
        self.web = self.start_web()

    def make_sinks(self):
        self.sound.control("load-module", "module-null-sink", f"sink_name={SINK}", f"rate={RATE}",
                           "channels=2", "format=s16le")

    def start_server(self):
        server = self.enterContext(
            Server(sound=self.sound, rate=self.rate, prefix=self.there.command()))
        server.wait_for_capture()
        return server

    def start_web(self):
        tls = self.certificate() if self.scheme == "https" else []
        web = self.enterContext(Web(
            "--title", "Kitchen", *tls, listen=f"0.0.0.0:{PORT}",
            prefix=self.there.command()))
        web.address()
        return web

    def certificate(self):
        files = self.folder / "certificate.pem", self.folder / "key.pem"
        if not files[0].exists():
            subprocess.run(
                ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj",
                 "/CN=velantrix", "-addext", f"subjectAltName=IP:{THERE_ADDRESS}", "-out", files[0],
                 "-keyout", files[1]], check=True, stderr=subprocess.DEVNULL)
        return ["--certificate", files[0], "--key", files[1]]

    def open(self, browser, query=""):
        """Opens the page in a browser, whose class is given."""
        self.browser = self.enterContext(browser(dict(self.sound.env, PULSE_SINK=SINK)))
        self.show(query)

    def show(self, query):
        self.browser.open(f"{self.scheme}://{self.host}:{PORT}/{query}")
        wait_until(lambda: self.data("ready") is not None, "the page is ready")

    def data(self, name):
        return self.browser.script("return document.documentElement.dataset[arguments[0]]", name)

    def text(self, name):
        return self.browser.script("return document.getElementById(arguments[0]).textContent", name)

    def delay(self):
        """The delay that is shown, in milliseconds; 0 while there is none."""
        return int("".join(filter(str.isdigit, self.text("delay"))) or 0)

    def assert_nothing_is_cut_off(self, name):
        folder = pathlib.Path(os.environ.get("VELANTRIX_PICTURES", self.folder))
        for scheme in ("light", "dark"):
            for width, height in ((320, 640), (768, 1024), (1280, 800), (2560, 1440)):
                self.browser.show_as(width, height, scheme)
                self.assertEqual(self.browser.script("""
                    const wide = (element) => element.scrollWidth > element.clientWidth + 1;
                    return [...document.querySelectorAll('html, main, .card, .tiles div, label')]
                      .filter(wide).map((element) => element.outerHTML.slice(0, 80));"""), [])
                time.sleep(0.3)  # The level moves.
                self.browser.picture(folder / f"{name}-{width}-{scheme}.png")

    def wait_for_state(self, state):
        wait_until(lambda: self.data("state") == state, f"the page is {state}")

    def play(self):
        self.browser.click("#play")
        self.wait_for_state("playing")

    def record(self, seconds, sink=SINK, places="front-left,front-right"):
        """What leaves the browser meanwhile: interleaved samples."""
        path, channels = self.folder / "heard.raw", places.count(",") + 1
        with open(path, "wb") as target:
            recorder = subprocess.Popen(
                ["parec", "--raw", "--format=s16le", f"--rate={RATE}",
                 f"--channels={channels}", f"--channel-map={places}", "--latency-msec=50",
                 f"--device={sink}.monitor"], stdout=target,
                env=dict(clean_environment(), **self.sound.env), preexec_fn=die_with_parent)
            prefer(recorder.pid)
            try:
                wait_until(lambda: path.stat().st_size >= 2 * channels * RATE * seconds, "it is recorded",
                           seconds + PATIENCE)
            finally:
                recorder.kill()
                recorder.wait()
        content = path.read_bytes()
        samples = array.array("h")
        samples.frombytes(content[:len(content) // (2 * channels) * 2 * channels])
        return samples

    def assert_heard(self, name, seconds=SECONDS, level=True):
        """The machine may stand still now and then: in a short round, one of eight times must be
        right."""
        time.sleep(SETTLING)
        for attempts_left in (0,) if IN_FULL else range(7, -1, -1):
            samples = self.record(seconds + 1)
            try:
                return assert_tone(self, samples, RATE, seconds, name, level, spliced=True)
            except AssertionError as error:
                print(f"{error}; underruns: {self.text('figure-underruns')}")
                if not attempts_left:
                    raise

    def prefer_sound(self, *others):
        """Gives what makes the sound real-time priority: a busy machine is not to be judged."""
        for process in (self.sound.daemon, self.player, self.server, self.web, self.browser.process,
                        *others):
            prefer(process.pid)

    def check_restarts(self, browser, quality):
        """The page plays on by itself."""
        self.open(browser)
        self.browser.click(f"input[name=quality][value='{quality}']")
        self.play()
        self.server.kill()
        self.wait_for_state("away")
        self.assertEqual(self.text("state"), "The server is away")
        self.server = self.start_server()
        self.wait_for_state("playing")
        self.assert_heard("after the server was restarted")
        self.web.kill()
        self.wait_for_state("away")
        self.web = self.start_web()
        self.wait_for_state("playing")
        self.assert_heard("after velantrix-web was restarted")
        self.browser.click("#play")
        self.wait_for_state("stopped")

    def check_playing(self, browser, qualities, output):
        self.open(browser)
        self.assertEqual(self.text("figure-output"), output)
        self.play()
        self.prefer_sound()
        self.assertEqual(self.text("title"), "Kitchen")
        for quality in qualities:
            self.browser.click(f"input[name=quality][value='{quality}']")
            self.assert_heard(f"{browser.__name__}, {quality}", level=quality != "20")
            print(browser.__name__, quality, self.text("delay"), "buffer", self.text("buffer-now"),
                  "underruns", self.text("figure-underruns"))


class Insecure(PageTest):
    """Over http://, from an address: neither an AudioWorklet nor Opus."""

    def check(self, browser):
        self.check_playing(browser, ["pcm"], "scheduled buffers")
        self.assertEqual(self.disabled(), ["256", "128", "64", "20"])
        self.assertIn("plain http", self.text("note-insecure"))
        self.assertFalse(self.browser.script(
            "return document.getElementById('note-insecure').hidden"))

    def disabled(self):
        return self.browser.script("return [...document.querySelectorAll("
                                   "'input[name=quality]:disabled')].map((input) => input.value)")

    def test_chromium_plays(self):
        self.check(Chromium)
        self.assert_nothing_is_cut_off("page-insecure")
        self.assertEqual(self.browser.errors(), [])

    def test_firefox_plays(self):
        self.check(Firefox)


class Secure(PageTest):
    """Over https:// with a certificate of our own: an AudioWorklet, and every quality."""

    scheme = "https"

    def test_chromium_plays_the_qualities(self):
        self.check_playing(Chromium, QUALITIES if IN_FULL else ("pcm", "128"), "AudioWorklet")
        self.assertEqual(self.browser.errors(), [])

    def test_firefox_plays_the_qualities(self):
        self.check_playing(Firefox, QUALITIES if IN_FULL else ("64", "20"), "AudioWorklet")


class At44100(PageTest):
    """A server that captures at 44.1 kHz and encodes that as if it were 48."""

    scheme = "https"
    rate = 44100

    def test_chromium_plays_at_the_right_pitch(self):
        self.check_playing(Chromium, ("pcm", "128"), "AudioWorklet")


class InStep(PageTest):
    """Beside a velantrix-listen with the same delay; one sink takes the sound of both."""

    scheme = "https"
    source = Clicks
    DELAY_MS = 400
    WORST_MS = 15
    PLACES = "front-left,front-right,rear-left,rear-right"

    def make_sinks(self):
        self.sound.control("load-module", "module-null-sink", "sink_name=rooms", f"rate={RATE}",
                           "channels=4", f"channel_map={self.PLACES}", "norewinds=1")
        for name, place in ((SINK, "front"), ("listener", "rear")):
            self.sound.control("load-module", "module-remap-sink", f"sink_name={name}",
                               "master=rooms", "remix=no", "channel_map=front-left,front-right",
                               f"master_channel_map={place}-left,{place}-right")

    def start_listener(self):
        return self.enterContext(Process(
            listen_command("--delay", self.DELAY_MS, host=THERE_ADDRESS),
            {**clean_environment(), **self.sound.env, "PULSE_SINK": "listener"}, name="listener"))

    def deviations(self):
        """Milliseconds that the browser plays each click later than the listener."""
        samples = self.record(12, "rooms", self.PLACES)
        browser, listener = (self.clicks(samples[channel::4]) for channel in (0, 2))
        near = [min((at - other for other in listener), key=abs) for at in browser if listener]
        return [1000 * deviation / RATE for deviation in near]

    @staticmethod
    def clicks(mono):
        found = []
        for at, value in enumerate(mono):
            if abs(value) > 5000 and (not found or at - found[-1] > RATE / 2):
                found.append(at)
        return found

    def check(self, quality):
        self.browser.click(f"input[name=quality][value='{quality}']")
        for attempts_left in (2, 1, 0):
            time.sleep(6)
            deviations = self.deviations()
            shown = self.text("figure-in-step")
            print(quality, [round(value, 1) for value in deviations], shown, self.text("delay"),
                  "underruns", self.text("figure-underruns"))
            if len(deviations) > 6 and shown.endswith(" ms"):
                found = statistics.median(deviations)
                if max(abs(found), abs(found - float(shown[:-3]))) <= self.WORST_MS:
                    return
        self.fail(f"{quality}: {deviations}")

    def test_chromium_keeps_step_with_a_listener(self):
        listener = self.start_listener()
        self.open(Chromium, f"?delay={self.DELAY_MS}")
        self.play()
        self.prefer_sound(listener)
        self.check("pcm")
        self.check("128")
        self.assertAlmostEqual(self.delay(), self.DELAY_MS, delta=self.WORST_MS)
        self.assertEqual(self.text("delay-problem"), "")


class Restarts(PageTest):
    """Over http://, with scheduled buffers."""

    def test_the_page_plays_on(self):
        for browser in (Chromium, Firefox) if IN_FULL else (Firefox,):
            self.check_restarts(browser, "pcm")

    def test_a_server_that_is_not_there_yet_is_waited_for(self):
        self.server.kill()
        self.open(Chromium)
        self.browser.click("#play")
        self.wait_for_state("waiting")
        self.assertEqual(self.text("state"), "Waiting for the server")
        self.start_server()
        self.wait_for_state("playing")


class SecureRestarts(PageTest):
    """Over https://, with the worklet and WebCodecs."""

    scheme = "https"

    def test_the_page_plays_on(self):
        for browser in (Chromium, Firefox) if IN_FULL else (Chromium,):
            self.check_restarts(browser, "128")

    def test_play_while_velantrix_web_is_away_plays_when_it_is_back(self):
        self.open(Chromium)
        self.web.kill()
        self.browser.click("#play")
        time.sleep(1)  # It is tried at once.
        self.assertEqual(self.data("state"), "connecting")
        self.web = self.start_web()
        self.wait_for_state("playing")


class Page(PageTest):
    """Display and controls."""

    scheme = "https"
    host = "192.168.1.20"  # An address that looks like one at home in pictures.

    def setUp(self):
        super().setUp()
        ip("addr", "add", f"{self.host}/32", "dev", "vxthere", there=self.there)
        ip("route", "add", f"{self.host}/32", "dev", "vxhere")
        self.addCleanup(ip, "route", "del", f"{self.host}/32")
        self.open(Chromium)

    def reload(self):
        self.browser.driver.refresh()
        wait_until(lambda: self.data("ready") is not None, "the page is ready")

    def test_play_and_pause_with_the_keyboard(self):
        body = self.browser.driver.find_element("css selector", "body")
        body.send_keys(" ")
        self.wait_for_state("playing")
        body.send_keys(" ")
        self.wait_for_state("stopped")
        silent = self.record(1)
        self.assertEqual(max(silent[RATE:], default=0), 0)

    def test_a_delay_is_typed_without_effect_on_the_sound(self):
        self.browser.driver.find_element("css selector", "#chosen-delay").send_keys("300 ms")
        self.assertEqual(self.data("state"), "stopped")
        self.assertNotEqual(self.text("volume-text"), "Muted")

    def test_volume_and_mute_are_heard_and_kept(self):
        self.play()
        self.set_volume(50)
        time.sleep(SETTLING)
        loud = self.loudness()
        self.assertAlmostEqual(loud, 10000 / 4, delta=300)
        self.browser.click("#mute")
        wait_until(lambda: self.loudness() == 0, "it is silent")
        self.reload()
        self.assertEqual(self.text("volume-text"), "Muted")
        self.browser.click("#mute")
        self.assertEqual(self.text("volume-text"), "50 %")

    def set_volume(self, percent):
        self.browser.script("""
            const slider = document.getElementById('volume');
            slider.value = arguments[0];
            slider.dispatchEvent(new Event('input', {bubbles: true}));""", percent)

    def loudness(self):
        return max(self.record(0.5)[RATE // 2:])

    def test_the_chosen_buffer_is_kept_and_plays(self):
        self.browser.click("input[name=buffer][value='150']")
        self.reload()
        self.play()
        wait_until(lambda: self.delay() > 140, "the buffer is filled")
        self.assertEqual(self.text("buffer-now"), "150 ms")

    def test_a_delay_is_kept_and_one_that_is_too_short_is_told(self):
        self.choose_delay("30")
        self.reload()
        self.play()
        wait_until(lambda: "A delay of 30 ms is not possible here: playing at "
                   in self.text("delay-problem"), "it is told")
        self.choose_delay("")
        wait_until(lambda: self.data("state") == "playing" and not self.text("delay-problem")
                   and self.text("figure-in-step") == "–", "it plays without one")

    def choose_delay(self, text):
        self.browser.script("""
            const entry = document.getElementById('chosen-delay');
            entry.value = arguments[0];
            entry.dispatchEvent(new Event('change', {bubbles: true}));""", text)

    def test_a_delay_that_is_none_is_told_and_plays_as_usual(self):
        for wrong in ("300ms", "nan", "10001", ""):
            self.show(f"?delay={wrong}")
            self.assertEqual(
                self.text("delay-problem"),
                f"“{wrong}” is not a delay above 0 and up to 10000 ms; none is used.")
        self.play()
        self.assertLess(self.delay(), 300)

    def test_the_level_is_shown_to_the_eye_and_in_words(self):
        self.play()
        wait_until(lambda: self.browser.script(
            "return document.getElementById('level-left').getAttribute('aria-valuetext')")
            in ("-10 decibels", "-11 decibels"), "the tone's level")

    def test_every_control_has_a_name(self):
        controls = self.browser.driver.find_elements("css selector", "button, input, summary, a, img")
        self.assertGreater(len(controls), 18)
        for control in controls:
            if control.aria_role not in ("none", "presentation"):
                html = control.get_attribute("outerHTML")
                self.assertTrue(control.accessible_name or 'alt=""' in html, html)

    def test_nothing_is_cut_off_at_any_width(self):
        self.browser.click("input[name=quality][value='128']")
        self.play()
        time.sleep(SETTLING)
        self.assert_nothing_is_cut_off("page")

    def test_the_qr_picture_holds_the_address_that_is_shown(self):
        wait_until(lambda: self.text("address"), "the address")
        url = f"https://{self.host}:{PORT}/qr.svg"
        svg = urllib.request.urlopen(url, timeout=PATIENCE,
                                     context=ssl._create_unverified_context()).read()
        png = self.folder / "qr.png"
        subprocess.run(["rsvg-convert", "-w", "400", "-o", png], input=svg, check=True)
        read = subprocess.run(["zbarimg", "--quiet", "--raw", "-Sdisable", "-Sqrcode.enable", png],
                              capture_output=True, text=True, check=True).stdout.strip()
        self.assertRegex(read, rf"^https://{re.escape(self.host)}:{PORT}/?$")
        self.assertEqual(self.browser.script("return document.getElementById('address').href"),
                         read if read.endswith("/") else read + "/")
