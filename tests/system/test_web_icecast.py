"""velantrix-web feeds Debian's icecast2, and a second one relays that to a player.

VELANTRIX_WEB_SECONDS says how long the player listens, 4 if it is not set.
"""

import os
import pathlib
import re
import subprocess
import time

from support.harness import PATIENCE, Server, SoundServer, SystemTest, die_with_parent, wait_until
from support.icecast import MOUNT, SECRET, Icecast
from support.signals import read_wav
from support.web import Tone, Web, assert_tone

SECONDS = float(os.environ.get("VELANTRIX_WEB_SECONDS", "4"))
HEARS = re.compile("^sending to Icecast ")
LOST = re.compile("^cannot send to Icecast ")


class IcecastAndRelay(SystemTest):
    def setUp(self):
        super().setUp()
        self.folder.chmod(0o777)
        sound = self.enterContext(SoundServer())
        server = self.enterContext(Server(sound=sound, rate=48000))
        server.wait_for_capture()
        self.enterContext(Tone(sound))

    def start_icecast(self, name, port, relayed_port=None):
        return self.enterContext(Icecast(self.folder / name, port, relayed_port))

    def start_web(self, userinfo, **environment):
        return self.enterContext(Web("--title", "Kitchen", "--icecast",
                                     f"http://{userinfo}@127.0.0.1:8000{MOUNT}", env=environment))

    def assert_heard(self, icecast):
        """A player hears the tone; it may have to ask until the stream is there."""
        target = self.folder / "heard.wav"

        def play():
            return subprocess.run(
                ["ffmpeg", "-nostdin", "-loglevel", "error", "-i", icecast.address, "-t",
                 str(SECONDS), "-c:a", "pcm_s16le", "-y", str(target)],
                capture_output=True, preexec_fn=die_with_parent, check=False).returncode == 0
        wait_until(play, f"{icecast.name} has the stream", PATIENCE + SECONDS)
        samples, rate = read_wav(target)
        assert_tone(self, samples, rate, SECONDS - 1, icecast.name)

    def test_a_player_at_the_relay_hears_the_tone_also_after_the_first_was_restarted(self):
        first = self.start_icecast("first", 8000)
        relay = self.start_icecast("relay", 8001, 8000)
        web = self.start_web("source", VELANTRIX_ICECAST_PASSWORD=SECRET)
        web.out.wait_for(HEARS)
        self.assert_heard(relay)

        first.kill()
        lost = web.out.wait_for(LOST)
        first = self.start_icecast("first", 8000)
        web.out.wait_for(HEARS, lost)
        self.assert_heard(relay)
        self.assertEqual(web.stop(), 0)
        self.assertEqual(len([line for line in web.out.all() if "Icecast" in line]), 3,
                         web.out.all())

    def test_the_password_in_the_address_is_seen_by_nobody(self):
        icecast = self.start_icecast("only", 8000)
        web = self.start_web(f"source:{SECRET}")
        web.out.wait_for(HEARS)
        self.assert_heard(icecast)
        words = pathlib.Path(f"/proc/{web.pid}/cmdline").read_bytes().decode()
        self.assertIn("127.0.0.1:8000", words)
        for text in (words, *web.out.all(), *web.err.all()):
            self.assertNotIn(SECRET, text)
            self.assertNotIn("source", text)
        self.assertEqual(web.stop(), 0)

    def test_a_wrong_password_is_told_once_and_harms_no_other_listener(self):
        self.start_icecast("only", 8000)
        web = self.start_web("source:wrong")
        web.out.wait_for(LOST)
        time.sleep(2)  # More attempts are refused.
        self.assertEqual(len([line for line in web.out.all() if "Icecast" in line]), 1)
        heard = subprocess.run(
            ["curl", "-sS", "-m", "2", f"{web.address()}/stream.ogg"], capture_output=True,
            preexec_fn=die_with_parent, check=False).stdout
        self.assertGreater(len(heard), 10000)
