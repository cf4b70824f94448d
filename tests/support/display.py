"""A private screen with a window manager, and the outside view of the windows on it.

The view is that of a screen reader (AT-SPI): it needs a session bus, and works for X11 and for
Wayland. One Display at a time: it sets the addresses of its buses for this process.
"""

import contextlib
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

from support.harness import Server
from support.processes import PATIENCE, Process, die_with_parent, wait_until
from support.sound import clean_environment

BUS_LAUNCHERS = ("/usr/libexec/at-spi-bus-launcher", "/usr/lib/at-spi2-core/at-spi-bus-launcher")
BUS_VARIABLE = "VELANTRIX_TEST_ACCESSIBILITY_BUS"
ATTEMPTS = 5
STATUS_TIP = "Information on connected clients"


class XServer:
    """Xvfb without a window manager; `name` is its display. A context manager.

    Of two that start at the same moment one may find its number taken, and tries again. The server
    stays as it is when its last client leaves, so that the next one need not wait.
    """

    def __init__(self, size="1024x768x24"):
        self.size = size

    def __enter__(self):
        for _ in range(ATTEMPTS):
            number = self._start()
            if number:
                self.name = f":{number}"
                return self
            self.process.__exit__()
        raise AssertionError("Xvfb did not start")

    def __exit__(self, *_):
        self.process.__exit__()

    def _start(self):
        reader, writer = os.pipe()
        self.process = Process(["Xvfb", "-screen", "0", self.size, "-nolisten", "tcp", "-noreset",
                                "-displayfd", str(writer)], clean_environment(),
                               pass_fds=[writer])
        os.close(writer)
        with os.fdopen(reader, encoding="ascii") as lines:
            return lines.readline().strip()


class Display:
    """Xvfb, openbox, a session bus and the accessibility bus. A context manager.

    ``env``  the variables that lead a program to this screen and make it readable.
    """

    def __enter__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="velantrix-display-"))
        self.helpers = contextlib.ExitStack()
        self.env = {"HOME": str(self.folder), "XDG_RUNTIME_DIR": str(self.folder)}
        try:
            self._start_bus()
            self.env["DISPLAY"] = self.helpers.enter_context(XServer("1600x1000x24")).name
            self._start(["openbox"])
            # Led to the accessibility bus by its screen, the toolkit connects before it shows
            # anything; by the session bus or a variable, it often speaks too early and stays
            # unreadable.
            self.run("xprop", "-root", "-f", "AT_SPI_BUS", "8s", "-set", "AT_SPI_BUS",
                     os.environ[BUS_VARIABLE])
            wait_until(lambda: self.run("xprop", "-root", "_NET_SUPPORTING_WM_CHECK", check=False)
                       .find("window id") > 0, "the window manager is there")
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.helpers.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def _start_bus(self):
        address = self._start_and_read([
            "dbus-daemon", "--session", "--nofork", "--print-address={fd}"])
        self.env["DBUS_SESSION_BUS_ADDRESS"] = address
        launcher = next(path for path in BUS_LAUNCHERS if os.access(path, os.X_OK))
        self._start([launcher, "--launch-immediately"])
        os.environ.update({name: self.env[name] for name in
                           ("DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR")})
        wait_until(self._find_accessibility_bus, "the accessibility bus is there")

    def _find_accessibility_bus(self):
        answer = self._ask_launcher("org.a11y.Bus.GetAddress")
        if "'" not in answer:
            return False
        os.environ[BUS_VARIABLE] = answer.split("'")[1]
        for switch in ("IsEnabled", "ScreenReaderEnabled"):
            self._ask_launcher("org.freedesktop.DBus.Properties.Set", "org.a11y.Status", switch,
                               "<true>")
        return True

    def _ask_launcher(self, method, *arguments):
        return self.run("gdbus", "call", "--session", "--dest", "org.a11y.Bus", "--object-path",
                        "/org/a11y/bus", "--method", method, *arguments, check=False)

    def _environment(self):
        return dict(os.environ, **self.env)

    def _start(self, command, **options):
        child = subprocess.Popen(command, env=self._environment(), stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL, preexec_fn=die_with_parent, **options)
        self.helpers.callback(child.wait)
        self.helpers.callback(child.terminate)
        return child

    def _start_and_read(self, command):
        """Starts a program that writes a line to the descriptor with the number {fd}."""
        reader, writer = os.pipe()
        self._start([word.format(fd=writer) for word in command], pass_fds=[writer])
        os.close(writer)
        with os.fdopen(reader, encoding="ascii") as lines:
            line = lines.readline().strip()
        if not line:
            raise AssertionError(f"{command[0]} did not start")
        return line

    @classmethod
    def of_module(cls):
        """For setUpModule: one that exists until the module's tests are over."""
        display = cls().__enter__()
        unittest.addModuleCleanup(display.__exit__)
        return display

    def server(self, *arguments, sound=None, env=None, **options):
        """A server with a window on this screen."""
        variables = dict(self.env)
        if sound is not None:
            variables.update(sound.env)
            variables["XDG_RUNTIME_DIR"] = self.env["XDG_RUNTIME_DIR"]
        else:
            del variables["HOME"], variables["XDG_RUNTIME_DIR"]
        variables.update(env or {})
        return Server(*arguments, sound=sound, env=variables, gui=True, **options)

    @contextlib.contextmanager
    def seen_server(self, *arguments, **options):
        """Such a server and the View of it."""
        with self.server(*arguments, **options) as server:
            view = View(server)
            view.wait_until_there()
            yield server, view

    def run(self, *command, check=True):
        """Runs an X tool on this screen; returns what it printed."""
        done = subprocess.run(command, env=self._environment(), stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True, check=check, timeout=60)
        return done.stdout

    def windows(self, server):
        """The X windows of a server that can be seen."""
        return self.run("xdotool", "search", "--onlyvisible", "--pid", str(server.pid),
                        check=False).split()

    def wait_window(self, server):
        return wait_until(lambda: self.windows(server), "the window shows")[0]

    def close_window(self, window):
        """Closes a window as its user does, through the window manager."""
        self.run("xdotool", "windowactivate", "--sync", window, "key", "alt+F4", check=False)

    def screenshot(self, window, path):
        self.run("import", "-window", window, str(path))


class View:
    """What a screen reader sees of one process, read again by each call."""

    REGISTRY = ("org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root")

    def __init__(self, process):
        from gi.repository import Gio, GLib
        self.process = process
        self.glib = GLib
        self.bus = Gio.DBusConnection.new_for_address_sync(
            os.environ[BUS_VARIABLE],
            Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT |
            Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
        self.no_flags = Gio.DBusCallFlags.NONE

    def _call(self, node, interface, method, *arguments, signature=None):
        """Calls a method of a node (bus name, path); returns its results."""
        parameters = self.glib.Variant(signature, arguments) if signature else None
        return self.bus.call_sync(*node, interface, method, parameters, None, self.no_flags,
                                  int(PATIENCE * 1000), None).unpack()

    def _accessible(self, node, method):
        return self._call(node, "org.a11y.atspi.Accessible", method)[0]

    def _property(self, node, name):
        return self._call(node, "org.freedesktop.DBus.Properties", "Get",
                          "org.a11y.atspi.Accessible", name, signature="(ss)")[0]

    def _is_ours(self, application):
        daemon = ("org.freedesktop.DBus", "/org/freedesktop/DBus")
        return self.process.pid == self._call(
            daemon, daemon[0], "GetConnectionUnixProcessID", application[0], signature="(s)")[0]

    def _walk(self, node):
        yield node
        for child in self._accessible(node, "GetChildren"):
            yield from self._walk(child)

    def wait_until_there(self):
        wait_until(self._applications, "a screen reader sees the program")

    def _applications(self):
        found = []
        for application in self._accessible(self.REGISTRY, "GetChildren"):
            try:
                found += [application] if self._is_ours(application) else []
            except self.glib.Error:
                pass  # One that has just ended.
        return found

    def nodes(self, role):
        """Every node of a role; none while the process starts, ends or changes."""
        try:
            return [node for application in self._applications()
                    for node in self._walk(application)
                    if self._accessible(node, "GetRoleName") == role]
        except self.glib.Error:
            return []

    def names(self, role):
        """The names of the nodes of a role: for labels and buttons, their texts."""
        try:
            return [self._property(node, "Name") for node in self.nodes(role)]
        except self.glib.Error:
            return []

    def lines(self):
        """The texts of the input lines, by tool tip."""
        try:
            return {self._property(node, "Description"):
                    self._call(node, "org.a11y.atspi.Text", "GetText", 0, -1,
                               signature="(ii)")[0]
                    for node in self.nodes("text")}
        except self.glib.Error:
            return {}

    def press(self, name):
        """Presses the button of that name as soon as it is there."""
        def button():
            return [node for node in self.nodes("push button")
                    if self._property(node, "Name") == name]
        node = wait_until(button, f"a button {name!r}")[0]
        try:
            self._call(node, "org.a11y.atspi.Action", "DoAction", 0, signature="(i)")
        except self.glib.Error:
            pass  # The answer may not come when the button ends the program.

    def wait_for(self, look, what):
        """Waits for a true value of ``look(self)``."""
        return wait_until(lambda: look(self), what)

    def wait_status(self, text, timeout=PATIENCE):
        """Waits for the window's line about clients."""
        wait_until(lambda: self.lines().get(STATUS_TIP) == text,
                   f"the status line says {text!r}", timeout)
