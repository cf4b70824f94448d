"""How the headless server starts: its lines, their order, and its exit statuses."""

import re
import socket

from harness import CAPTURE_RUNNING, Server, SoundServer, SystemTest, main

FATAL = 255

BUSY = "Network port busy (another Velantrix Server may already be running)"

START_LINES = [
    "Velantrix Server v3.1",
    "Initializing server network communication",
    "Using default port number 59010",
    "Initializing PortAudio",
    re.compile(r"^PortAudio reported default input device sample rate is \d+ "
               r"\(may not be accurate\)$"),
    re.compile(r"^Audio stream info: sample rate = 48000, input latency = [0-9.e-]+ sec$"),
    "Audio input device opened successfully",
]


class StartWithSound(SystemTest):
    def test_lines_come_in_order_and_quit_gives_status_0(self):
        with SoundServer() as sound, Server(sound=sound, rate=48000) as server:
            server.out.wait_for(START_LINES[-1])
            server.wait_for_capture()
            self.assert_lines_in_order(server.out.all(), START_LINES)
            self.assertEqual(server.out.all().count(CAPTURE_RUNNING), 1)
            self.assert_ends_cleanly(server)
            self.assertEqual(server.err.all(), [])


class StartWithoutSound(SystemTest):
    def test_missing_device_is_reported_and_the_server_stays(self):
        with Server() as server:
            server.err.wait_for("Error -10000 opening audio input device")
            self.assertEqual(server.err.all(), [
                "Error: No default input device.",
                "An error occured while opening the portaudio stream",
                "Error message: PortAudio not initialized",
                "Error -10000 opening audio input device"])
            self.assertNotIn("Audio input device opened successfully", server.out.all())
            self.assertEqual(server.stop(), 0)

    def test_busy_port_ends_with_status_255(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
            holder.bind(("0.0.0.0", 59010))
            with Server() as server:
                self.assertEqual(server.wait(), FATAL)
                self.assertEqual(server.out.all()[-1], BUSY)


if __name__ == "__main__":
    main()
