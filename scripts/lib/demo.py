"""Streams the demo's tune from a private sound server to the listening client and judges it, or
to everybody who opens a page.

Usage: demo.py [--web] BUILD-FOLDER OUTPUT-FOLDER; see scripts/demo.
"""

import array
import contextlib
import math
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import wave

sys.dont_write_bytecode = True

from tune import RATE, make_tune  # noqa: E402

SECONDS = 10
WINDOW_BYTES = 4 * RATE // 100
NEEDED_SHARE = 0.9
NEEDED_SECONDS = 8
PATIENCE = 30
NULL_SINK = "out"


def free_port():
    """A free UDP port of the loopback interface."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def output_folder(wanted):
    """The folder for the results, or a temporary one when that cannot be written."""
    try:
        wanted.mkdir(parents=True, exist_ok=True)
        with tempfile.TemporaryFile(dir=wanted):
            return wanted
    except OSError:
        return pathlib.Path(tempfile.mkdtemp(prefix="velantrix-demo-"))


@contextlib.contextmanager
def running(*command, **options):
    """A program that ends with the context at the latest."""
    with subprocess.Popen([str(word) for word in command], **options) as child:
        try:
            yield child
        finally:
            child.kill()


def wait_until(condition, child, what):
    """Waits until ``condition()`` is true, while the child runs."""
    end = time.monotonic() + PATIENCE
    while not condition():
        if child.poll() is not None or time.monotonic() > end:
            raise RuntimeError(f"{what} did not start")
        time.sleep(0.05)


@contextlib.contextmanager
def sound_server(folder):
    """A private PulseAudio with one null sink; yields its environment variables."""
    for tool in ("pulseaudio", "pactl", "pacat"):
        if shutil.which(tool) is None:
            raise RuntimeError(f"{tool} is not installed")
    (folder / ".asoundrc").write_text("pcm.!default { type pulse }\nctl.!default { type pulse }\n",
                                      encoding="ascii")
    env = {name: value for name, value in os.environ.items()
           if not name.startswith(("VELANTRIX_", "PULSE_", "ALSA_"))}
    env.update(HOME=str(folder), XDG_CONFIG_HOME=str(folder), XDG_RUNTIME_DIR=str(folder),
               PULSE_SERVER=f"unix:{folder}/native", VELANTRIX_SERVER_SAMPLE_RATE=str(RATE))
    quiet = {"env": env, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    with running("pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                 "-L", f"module-native-protocol-unix socket={folder}/native auth-anonymous=1",
                 "-L", f"module-null-sink sink_name={NULL_SINK} rate={RATE} channels=2 "
                       "format=s16le", **quiet) as daemon:
        choose = ["pactl", "set-default-source", f"{NULL_SINK}.monitor"]
        wait_until(lambda: subprocess.run(choose, check=False, **quiet).returncode == 0, daemon,
                   "the private sound server")
        yield env


def play_again_and_again(sound, player):
    """Writes a sound to a player's standard input until the player ends."""
    with contextlib.suppress(OSError, ValueError):
        while True:
            player.stdin.write(sound)


@contextlib.contextmanager
def streaming(build, folder, sound):
    """A server that streams a sound, bytes, repeatedly. Yields the server, its port and the
    variables that lead to its sound server."""
    port = free_port()
    log = folder / "server.log"
    with contextlib.ExitStack() as stack:
        private = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="velantrix")))
        env = stack.enter_context(sound_server(private))
        server = stack.enter_context(running(
            build / "VelantrixServer", "-nogui", "-b", "127.0.0.1", "-p", port, env=env,
            stdout=stack.enter_context(open(log, "wb")), stderr=subprocess.STDOUT))
        wait_until(lambda: b"Audio capture running" in log.read_bytes(), server, "the capture")
        player = subprocess.Popen(
            ["pacat", "--playback", "--raw", "--format=s16le", "--channels=2", f"--rate={RATE}",
             f"--device={NULL_SINK}"], env=env, stdin=subprocess.PIPE, bufsize=0)
        feeding = threading.Thread(target=play_again_and_again, args=(sound, player))
        stack.callback(player.stdin.close)
        stack.callback(feeding.join)
        stack.callback(player.wait)
        stack.callback(player.kill)
        feeding.start()
        yield server, port, env


def leave_page(build, folder):
    """Serves the tune to everybody until Ctrl-C; returns the exit status."""
    print("Making the tune ...", flush=True)
    with streaming(build, folder, make_tune().tobytes()) as (_, port, env):
        print("Open one of these addresses; Ctrl-C ends it.", flush=True)
        with running(build / "velantrix-web", f"127.0.0.1:{port}", "--title", "Demo",
                     env=env) as web:
            try:
                status = web.wait()
            except KeyboardInterrupt:
                web.terminate()
                return web.wait(PATIENCE)
    raise RuntimeError(f"velantrix-web ended with status {status}")


def stream(build, folder):
    """Plays and records; returns the tune as it was played."""
    print("Making the tune ...", flush=True)
    tune = make_tune()
    with wave.open(str(folder / "tune.wav"), "wb") as target:
        target.setparams((2, 2, RATE, 0, "NONE", ""))
        target.writeframes(tune.tobytes())
    with streaming(build, folder, tune.tobytes()) as (server, port, env):
        print(f"The server streams on 127.0.0.1 port {port}. Listening for {SECONDS} seconds ...",
              flush=True)
        status = subprocess.run(
            [build / "velantrix-listen", "127.0.0.1", "--port", str(port), "--rate", "raw",
             "--no-play", "--seconds", str(SECONDS), "--name", "Demo",
             "--record", folder / "recording.wav"],
            env=env, timeout=SECONDS + PATIENCE, check=False).returncode
        server.terminate()
        server_status = server.wait(PATIENCE)
    if status != 0 or server_status != 0:
        raise RuntimeError(f"the listener ended with status {status}, the server with "
                           f"{server_status}; see {folder}/server.log")
    return tune + tune


def matching_share(recording, played):
    """The share of the recording that is bit for bit in the tune, in the tune's order (0 to 1).

    Compares windows of 10 ms; returns the share and the seconds compared. Silence before the
    tune does not count.
    """
    sound = recording.tobytes()
    first = next((i for i, value in enumerate(recording) if value), len(recording)) // 2 * 4
    sought = played.tobytes()
    windows = matches = position = 0
    for at in range(first, len(sound) - WINDOW_BYTES + 1, WINDOW_BYTES):
        windows += 1
        found = sought.find(sound[at:at + WINDOW_BYTES], position)
        if found >= 0:
            matches += 1
            position = found
    return (matches / windows if windows else 0.0), windows / 100


def judge(folder, played):
    """Compares the recording with the tune; prints the verdict and returns the exit status."""
    recording = array.array("h")
    with wave.open(str(folder / "recording.wav"), "rb") as source:
        rate = source.getframerate()
        recording.frombytes(source.readframes(source.getnframes()))
    level = math.sqrt(sum(value * value for value in recording) / max(1, len(recording)))
    share, seconds = matching_share(recording, played)
    print(f"Recording: {len(recording) / 2 / rate:.2f} s at {rate} Hz, "
          f"RMS level {level:.0f} of 32767, in {folder}/recording.wav")
    print(f"Compared with the tune: {100 * share:.1f} % of {seconds:.2f} s are the same, "
          "bit for bit.")
    if rate == RATE and share >= NEEDED_SHARE and seconds >= NEEDED_SECONDS:
        print("The tune arrived.")
        return 0
    print(f"The tune did NOT arrive (needed: {100 * NEEDED_SHARE:.0f} % of at least "
          f"{NEEDED_SECONDS} s).")
    return 1


def main():
    web = sys.argv[1] == "--web"
    build, wanted = (pathlib.Path(argument).resolve() for argument in sys.argv[1 + web:])
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))
    folder = output_folder(wanted)
    for name in ("recording.wav", "server.log", "tune.wav"):
        (folder / name).unlink(missing_ok=True)
    try:
        return leave_page(build, folder) if web else judge(folder, stream(build, folder))
    except (RuntimeError, OSError, subprocess.SubprocessError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("demo: stopped", file=sys.stderr)
        return 130


if __name__ == "__main__":
    sys.exit(main())
