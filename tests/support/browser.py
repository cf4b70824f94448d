"""Debian's Chromium and Firefox, controlled without a display, with a private sound server."""

import base64
import http.server
import json
import os
import pathlib
import shutil
import socket
import tempfile
import threading

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chromium.remote_connection import ChromiumRemoteConnection

from support.harness import SOURCE, Process, clean_environment, wait_until
from support.processes import descendants
from support.sound import private_home

# A browser is many processes: all end with the first of their namespace, which ends with its parent.
TOGETHER = ("unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "--")
START_PATIENCE = 60
DRIVER_PORT = 9515
MARIONETTE_PORT = 2828


class Browser:
    """A browser with the variables ``env`` of a SoundServer; a context manager.

    Self-signed certificates are accepted. The profile is empty and temporary.
    """

    def __init__(self, env=None):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="velantrix-browser-"))
        self.env = {**clean_environment(), **(env or {}), **private_home(self.folder)}

    def __enter__(self):
        try:
            self._start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.process.__exit__()
        shutil.rmtree(self.folder, ignore_errors=True)

    def processor_seconds(self):
        """Processor time of all processes of the browser until now, in seconds."""
        return processor_seconds(descendants(self.process.pid))


def processor_seconds(pids):
    """Processor time of the processes until now, in seconds; 0 for one that has ended."""
    ticks = 0
    for pid in pids:
        try:
            fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace")
        except FileNotFoundError:
            continue
        user, system = fields.rsplit(")", 1)[1].split()[11:13]
        ticks += int(user) + int(system)
    return ticks / os.sysconf("SC_CLK_TCK")


class Chromium(Browser):
    """Through chromedriver and Selenium."""

    def _start(self):
        self.process = Process([*TOGETHER, "chromedriver", f"--port={DRIVER_PORT}"], self.env)
        wait_until(lambda: answers(DRIVER_PORT), "chromedriver answers", START_PATIENCE)
        options = Options()
        # Root has no sandbox to offer; the rest keeps it from what a machine without a screen lacks.
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                         "--hide-scrollbars", f"--user-data-dir={self.folder}/profile"):
            options.add_argument(argument)
        options.set_capability("acceptInsecureCerts", True)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Remote(
            ChromiumRemoteConnection(f"http://127.0.0.1:{DRIVER_PORT}", "goog", "chrome"),
            options=options)

    def __exit__(self, *_):
        if hasattr(self, "driver"):
            self.driver.quit()
        super().__exit__()

    def open(self, url):
        self.driver.get(url)

    def click(self, selector):
        self.driver.find_element("css selector", selector).click()

    def script(self, body, *arguments):
        """Runs the body of a function in the page; returns its result."""
        return self.driver.execute_script(body, *arguments)

    def errors(self):
        """The errors of the page's console since the last call."""
        return [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] == "SEVERE"]

    def command(self, name, **parameters):
        """One of Chromium's own commands (DevTools protocol)."""
        return self.driver.execute("executeCdpCommand", {"cmd": name, "params": parameters})["value"]

    def show_as(self, width, height, scheme):
        """Gives the page a screen of that size, "light" or "dark"."""
        self.command("Emulation.setEmulatedMedia",
                     features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height,
                     deviceScaleFactor=1, mobile=False)

    def picture(self, path):
        """Writes a PNG of the whole page."""
        size = self.command("Page.getLayoutMetrics")["cssContentSize"]
        shot = self.command("Page.captureScreenshot", format="png", captureBeyondViewport=True,
                            clip=dict(size, scale=1))
        pathlib.Path(path).write_bytes(base64.b64decode(shot["data"]))


class Firefox(Browser):
    """Through Marionette, Firefox's own protocol on TCP: Debian has no geckodriver."""

    PREFERENCES = {
        "browser.shell.checkDefaultBrowser": False,
        "browser.aboutConfig.showWarning": False,
        "datareporting.policy.dataSubmissionEnabled": False,
        "toolkit.telemetry.reportingpolicy.firstRun": False,
        "app.normandy.enabled": False,
        "app.update.enabled": False,
        "network.captive-portal-service.enabled": False,
        "network.connectivity-service.enabled": False,
    }

    def _start(self):
        profile = self.folder / "profile"
        profile.mkdir()
        (profile / "user.js").write_text("".join(
            f"user_pref({json.dumps(name)}, {json.dumps(value)});\n"
            for name, value in self.PREFERENCES.items()), encoding="ascii")
        self.process = Process([*TOGETHER, "firefox-esr", "--headless", "--marionette", "--no-remote",
                                "--profile", profile, "about:blank"], self.env)
        wait_until(lambda: answers(MARIONETTE_PORT), "Firefox answers", START_PATIENCE)
        self.socket = socket.create_connection(("127.0.0.1", MARIONETTE_PORT), timeout=60)
        self.stream = self.socket.makefile("rb")
        self.number = 0
        self._receive()
        self._command("WebDriver:NewSession", acceptInsecureCerts=True)

    def __exit__(self, *_):
        if hasattr(self, "socket"):
            self.stream.close()
            self.socket.close()
        super().__exit__()

    def _receive(self):
        length = bytearray()
        while (byte := self.stream.read(1)) != b":":
            if not byte:
                raise AssertionError("Firefox has closed the connection")
            length += byte
        return json.loads(self.stream.read(int(length)))

    def _command(self, name, **parameters):
        self.number += 1
        message = json.dumps([0, self.number, name, parameters]).encode()
        self.socket.sendall(b"%d:%s" % (len(message), message))
        _, number, error, result = self._receive()
        if error or number != self.number:
            raise AssertionError(f"{name}: {error}")
        return result

    def open(self, url):
        self._command("WebDriver:Navigate", url=url)

    def click(self, selector):
        found = self._command("WebDriver:FindElement", using="css selector", value=selector)
        self._command("WebDriver:ElementClick", id=next(iter(found["value"].values())))

    def script(self, body, *arguments):
        """Runs the body of a function in the page; returns its result."""
        return self._command("WebDriver:ExecuteScript", script=body, args=list(arguments))["value"]


def answers(port):
    with socket.socket() as attempt:
        return attempt.connect_ex(("127.0.0.1", port)) == 0


class ModuleTests:
    """Runs the exported functions of a JavaScript module as tests, inside a browser.

    The page's files are served below /page/, the module's folder below /tests/. A context manager.
    """

    RUNNER = b"""
        const name = new URLSearchParams(location.search).get('module');
        const results = {};
        try {
          for (const [test, run] of Object.entries(await import('/tests/' + name))) {
            try {
              await run();
              results[test] = '';
            } catch (error) {
              results[test] = String(error.message);
            }
          }
        } catch (error) {
          results[name] = String(error);
        }
        document.title = JSON.stringify(results);"""
    TYPES = {".js": "text/javascript", ".html": "text/html"}

    def __init__(self, module):
        self.module = module

    def __enter__(self):
        folders = {"page": SOURCE / "web/page/files", "tests": self.module.parent}
        runner, types = self.RUNNER, self.TYPES

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                parts = self.path.split("?")[0].strip("/").split("/")
                if parts == [""]:
                    self.answer(".html", b"<script type=module src=/run.js></script>")
                elif parts == ["run.js"]:
                    self.answer(".js", runner)
                elif parts[0] in folders and (folders[parts[0]].joinpath(*parts[1:])).is_file():
                    path = folders[parts[0]].joinpath(*parts[1:])
                    self.answer(path.suffix, path.read_bytes())
                else:
                    self.send_error(404)

            def answer(self, ending, body):
                self.send_response(200)
                self.send_header("Content-Type", types.get(ending, "application/octet-stream"))
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *_):
                pass
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        return self

    def __exit__(self, *_):
        self.server.shutdown()
        self.server.server_close()

    def run(self, browser):
        """The failure of each test, an empty text for none."""
        port = self.server.server_port
        browser.open(f"http://127.0.0.1:{port}/?module={self.module.name}")
        title = wait_until(lambda: browser.script("return document.title"), "the tests end", 120)
        return json.loads(title)
