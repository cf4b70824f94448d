"""A private sound server: real PulseAudio with a null sink."""

import os
import pathlib
import shutil
import subprocess
import tempfile

from support.processes import Process, die_with_parent, wait_until

NULL_SINK = "out"


class SoundServer:
    """PulseAudio in a temporary runtime and home folder, with one null sink.

    What is played into the sink is what the default input records. A context manager; failing
    to start is an error with everything that the sound server printed.

    ``env``  the variables that lead a program to this sound server, and to the temporary home.
    ``home`` the temporary home folder (pathlib), also HOME and XDG_CONFIG_HOME's parent.
    ``prefix`` words before the daemon's command, such as those that lead into another network.
    """

    def __init__(self, rate=48000, prefix=()):
        self.rate = rate
        self.prefix = prefix
        self.players = []

    def __enter__(self):
        for tool in ("pulseaudio", "pactl", "pacat"):
            if shutil.which(tool) is None:
                raise AssertionError(f"{tool} is not installed: no private sound server")
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="velantrix-sound-"))
        self.home = self.folder / "home"
        runtime = self.folder / "run"
        self.home.mkdir()
        runtime.mkdir(mode=0o700)
        (self.home / ".asoundrc").write_text(
            "pcm.!default { type pulse }\nctl.!default { type pulse }\n", encoding="ascii")
        self.env = private_home(self.home)
        self.env.update(XDG_RUNTIME_DIR=str(runtime), PULSE_SERVER=f"unix:{runtime}/native")
        self.start()
        return self

    def start(self):
        """Starts the daemon; again, after stop()."""
        runtime = self.env["XDG_RUNTIME_DIR"]
        self.daemon = Process(
            [*self.prefix, "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1",
             "--use-pid-file=no",
             "-L", f"module-native-protocol-unix socket={runtime}/native auth-anonymous=1",
             "-L", f"module-null-sink sink_name={NULL_SINK} rate={self.rate} channels=2 "
                   "format=s16le norewinds=1"],
            self._environment())
        try:
            wait_until(self._answers, "the private sound server answers")
            self.control("set-default-source", f"{NULL_SINK}.monitor")
        except (AssertionError, subprocess.CalledProcessError) as error:
            lines = "\n  ".join(self.daemon.err.all() + self.daemon.out.all())
            self.__exit__()
            raise AssertionError(f"no private sound server ({error}):\n  {lines}") from error

    def stop(self):
        """Kills the daemon; its clients lose their sound."""
        self.daemon.kill()

    def __exit__(self, *_):
        for player in self.players:
            player.kill()
            player.wait()
        self.daemon.__exit__()
        shutil.rmtree(self.folder, ignore_errors=True)

    def _environment(self):
        return dict(clean_environment(), **self.env)

    def _answers(self):
        if self.daemon.child.poll() is not None:
            raise AssertionError(f"pulseaudio ended with status {self.daemon.child.returncode}")
        return subprocess.run(["pactl", "info"], env=self._environment(), stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode == 0

    def control(self, *arguments):
        """Runs pactl; returns what it printed."""
        return subprocess.run(["pactl", *arguments], env=self._environment(), check=True,
                              capture_output=True, text=True).stdout

    def play(self, samples, rate=None):
        """Starts playing samples (see signals.py); returns the player's process."""
        path = self.folder / f"played-{len(self.players)}.raw"
        path.write_bytes(samples.tobytes())
        player = subprocess.Popen(
            ["pacat", "--playback", "--raw", "--format=s16le", "--channels=2",
             f"--rate={rate or self.rate}", f"--device={NULL_SINK}", str(path)],
            env=self._environment(), preexec_fn=die_with_parent)
        self.players.append(player)
        return player

    def play_and_wait(self, samples, rate=None):
        player = self.play(samples, rate)
        seconds = len(samples) / 2 / (rate or self.rate)
        if player.wait(seconds + 30) != 0:
            raise AssertionError(f"pacat ended with status {player.returncode}")


def private_home(home):
    """Variables that keep a program's settings out of the user's home."""
    return {"HOME": str(home), "XDG_CONFIG_HOME": str(pathlib.Path(home) / ".config")}


def clean_environment():
    """The test's environment without what would change how the server starts."""
    unwanted = ("VELANTRIX_", "PULSE_", "ALSA_", "QT_")
    return {name: value for name, value in os.environ.items()
            if not name.startswith(unwanted) and name not in (
                "DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_TYPE", "XDG_RUNTIME_DIR",
                "DBUS_SESSION_BUS_ADDRESS")}
