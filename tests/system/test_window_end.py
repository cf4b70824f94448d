"""The window's end while clients come and go, at random moments, over and over.

VELANTRIX_END_RUNS   how often (10 unless set)
VELANTRIX_END_SEED   the seed of the random moments; printed by every run
"""

import os
import random
import signal
import threading
import time

from support.display import Display
from support.harness import BANNER, Server, SoundServer, SystemTest
from support.probe import Probe

RUNS = int(os.environ.get("VELANTRIX_END_RUNS", "10"))
SEED = int(os.environ.get("VELANTRIX_END_SEED", random.SystemRandom().randrange(1 << 32)))

# The watchdog gives up after 3 s; the rest is for a machine that is busy or runs a sanitizer.
MAX_END = float(os.environ.get("VELANTRIX_END_SECONDS", "10"))

display = None


def setUpModule():
    global display
    print(f"seed {SEED}", flush=True)
    display = Display.of_module()


class Crowd:
    """Clients that connect, request data and leave every few milliseconds, and one that stays."""

    def __init__(self, folder, generator):
        self.probe = Probe(folder)
        self.generator = generator
        self.stop = threading.Event()
        self.thread = threading.Thread(target=self._run)

    def __enter__(self):
        self.probe.connect(wait=False)
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.stop.set()
        self.thread.join()
        self.probe.__exit__()

    def _run(self):
        present = []
        while not self.stop.is_set():
            present.append(self.probe.connect(wait=False))
            time.sleep(self.generator.uniform(0.001, 0.01))
            self._ask(present[-1])
            if len(present) > 3:
                present.pop(0).disconnect()

    def _ask(self, client):
        try:
            client.request(rate_code=self.generator.choice((0, 1, 3)), name="crowd")
        except AssertionError:
            pass  # Not connected yet.


class End(SystemTest):
    def start(self, sound):
        environment = {name: value for name, value in display.env.items()
                       if name not in ("HOME", "XDG_RUNTIME_DIR")}
        return Server("-verbose", sound=sound, gui=True, env=environment)

    def end(self, server, generator):
        """Ends the server in one of the ways; returns how."""
        how = generator.choice(("close", "terminate", "interrupt"))
        if how == "close":
            display.close_window(display.wait_window(server))
        else:
            server.send_signal(signal.SIGTERM if how == "terminate" else signal.SIGINT)
        return how

    def check_end(self, server, what):
        begin = time.monotonic()
        status = server.wait()
        taken = time.monotonic() - begin
        self.assertEqual(status, 0, f"{what}\n" + "\n".join(server.err.all()))
        self.assertLess(taken, MAX_END, what)
        return taken

    def test_window_ends_while_clients_come_and_go(self):
        generator = random.Random(SEED)
        slowest, arrivals = 0.0, 0
        with SoundServer() as sound:
            for run in range(RUNS):
                with self.start(sound) as server:
                    server.wait_for_capture()
                    with Crowd(self.folder, generator):
                        delay = generator.uniform(0, 0.6)
                        time.sleep(delay)
                        how = self.end(server, generator)
                        slowest = max(slowest, self.check_end(
                            server, f"seed {SEED} run {run}: {how} after {delay:.4f} s"))
                    arrivals += sum("client connected" in line for line in server.out.all())
        print(f"{RUNS} runs, {arrivals} clients arrived, slowest end {slowest:.2f} s", flush=True)
        self.assertGreater(arrivals, RUNS)

    def test_window_ends_during_start_up(self):
        generator = random.Random(SEED)
        with SoundServer() as sound:
            for run in range(RUNS):
                with self.start(sound) as server:
                    server.out.wait_for(BANNER)
                    delay = generator.uniform(0, 0.5)
                    time.sleep(delay)
                    server.send_signal(signal.SIGTERM)
                    self.check_end(server, f"seed {SEED} run {run}: after {delay:.4f} s")
