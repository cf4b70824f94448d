"""Streams the demo's tune from a private sound server to the listening client and judges it.

Usage: demo.py BUILD-FOLDER OUTPUT-FOLDER; see scripts/demo.
"""

import os
import pathlib
import signal
import socket
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests" / "system"))

from harness import DEFAULT_PORT, Process, Server, listen_command  # noqa: E402
from network import join_private_network  # noqa: E402
from signals import rms, read_wav, write_wav  # noqa: E402
from sound import SoundServer, clean_environment  # noqa: E402
from tune import RATE, make_tune  # noqa: E402

SECONDS = 10
WINDOW_BYTES = 4 * RATE // 100
NEEDED_SHARE = 0.9
NEEDED_SECONDS = 8


def free_port():
    """A UDP port of the loopback interface that nobody uses now."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def output_folder(wanted):
    """The folder for what stays, or a temporary one when that cannot be written."""
    try:
        wanted.mkdir(parents=True, exist_ok=True)
        with tempfile.TemporaryFile(dir=wanted):
            return wanted
    except OSError:
        return pathlib.Path(tempfile.mkdtemp(prefix="velantrix-demo-"))


def stream(folder, private):
    """Plays and records; returns the tune as it was played and the listener's status."""
    print("Making the tune ...", flush=True)
    tune = make_tune()
    write_wav(folder / "tune.wav", tune, RATE)
    played = tune + tune
    port = DEFAULT_PORT if private else free_port()
    arguments = ["-b", "127.0.0.1", "-p", str(port)]
    with SoundServer(RATE) as sound, Server(*arguments, sound=sound, rate=RATE) as server:
        server.wait_for_capture()
        print(f"The server streams on 127.0.0.1 port {port}"
              + (" of a private network." if private else ".")
              + f" Listening for {SECONDS} seconds ...", flush=True)
        sound.play(played)
        listener = Process(
            listen_command("--port", port, "--rate", "raw", "--no-play", "--seconds", SECONDS,
                           "--name", "Demo", "--record", folder / "recording.wav"),
            clean_environment())
        with listener:
            status = listener.wait(SECONDS + 30)
            report = "\n".join(listener.out.all() + listener.err.all())
        server_status = server.stop()
        (folder / "server.log").write_text("\n".join(server.out.all() + server.err.all()) + "\n",
                                           encoding="utf-8")
    print("\nThe listener's report:\n" + report + "\n")
    if status != 0 or server_status != 0:
        raise AssertionError(f"the listener ended with status {status}, the server with "
                             f"{server_status}; see {folder}/server.log")
    return played


def matching_share(recording, played):
    """How much of the recording stands bit for bit in the tune, in the tune's order (0 to 1).

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
    recording, rate = read_wav(folder / "recording.wav")
    share, seconds = matching_share(recording, played)
    print(f"Recording: {len(recording) / 2 / rate:.2f} s at {rate} Hz, "
          f"RMS level {rms(recording):.0f} of 32767, in {folder}/recording.wav")
    print(f"Compared with the tune: {100 * share:.1f} % of {seconds:.2f} s are the same, "
          "bit for bit.")
    if rate == RATE and share >= NEEDED_SHARE and seconds >= NEEDED_SECONDS:
        print("The tune arrived.")
        return 0
    print(f"The tune did NOT arrive (needed: {100 * NEEDED_SHARE:.0f} % of at least "
          f"{NEEDED_SECONDS} s).")
    return 1


def main():
    build, wanted = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
    private = join_private_network()
    os.environ["VELANTRIX_SERVER"] = str(build / "VelantrixServer")
    os.environ["VELANTRIX_LISTEN"] = str(build / "velantrix-listen")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))
    folder = output_folder(wanted)
    for name in ("recording.wav", "server.log", "tune.wav"):
        (folder / name).unlink(missing_ok=True)
    try:
        return judge(folder, stream(folder, private))
    except (AssertionError, OSError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("demo: stopped", file=sys.stderr)
        return 130


if __name__ == "__main__":
    sys.exit(main())
