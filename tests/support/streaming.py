"""A server that streams silence, with a probe at hand."""

from support.harness import Server, SoundServer, SystemTest
from support.probe import Probe


class StreamingTest(SystemTest):
    """A test with a sound server, a server that captures from it, and a probe."""

    def setUp(self):
        super().setUp()
        self.sound = self.enterContext(SoundServer())
        self.server = self.enterContext(Server(sound=self.sound, rate=48000))
        self.probe = self.enterContext(Probe(self.folder))
        self.server.wait_for_capture()
