"""How the headless server starts: its lines, their order, and its exit statuses."""

import re
import subprocess

from support.harness import (BANNER, CAPTURE_RUNNING, HERE_ADDRESS, OtherNetwork,
                             Server, SoundServer, SystemTest, busy_port, clean_environment, private_home,
                             program)

FATAL = 255

NETWORK = "Initializing server network communication"
PORTAUDIO = "Initializing PortAudio"
OPENED = "Audio input device opened successfully"
BUSY = "Network port busy (another Velantrix Server may already be running)"
DEVICE_RATE = re.compile(
    r"^PortAudio reported default input device sample rate is \d+ \(may not be accurate\)$")


def stream_info(rate):
    return re.compile(rf"^Audio stream info: sample rate = {rate}, input latency = [0-9.e-]+ sec$")


class StartWithSound(SystemTest):
    def check_start(self, rate, wanted, complaints):
        with SoundServer() as sound, Server(sound=sound, rate=wanted) as server:
            server.out.wait_for(OPENED)
            server.wait_for_capture()
            self.assert_lines_in_order(server.out.all(), [
                BANNER, NETWORK, "Using default port number 59010", PORTAUDIO, DEVICE_RATE,
                stream_info(rate), OPENED])
            self.assertEqual(server.out.all().count(CAPTURE_RUNNING), 1)
            self.assertEqual(server.err.all(), complaints)
            self.assert_ends_cleanly(server)
            self.assertEqual(server.err.all(), complaints)

    def test_lines_come_in_order_at_48000(self):
        self.check_start(48000, "48000", [])

    def test_lines_come_in_order_at_44100(self):
        self.check_start(44100, "44100", [])

    def test_verbose_shows_the_library_noise_and_the_result(self):
        with SoundServer() as sound, Server("-verbose", sound=sound) as server:
            server.err.wait_for("PortAudio Pa_Initialize call completed with return value 0")
            server.wait_for_capture()
            self.assert_ends_cleanly(server)
            self.assertIn("Exec returned with result 0", server.out.all())


class StartWithoutSound(SystemTest):
    def test_missing_device_is_reported_and_the_server_stays(self):
        with Server() as server:
            server.err.wait_for("Error -10000 opening audio input device")
            opening = [
                "Error: No default input device.",
                "An error occured while opening the portaudio stream",
                "Error message: PortAudio not initialized",
                "Error -10000 opening audio input device"]
            self.assertEqual(server.err.all(), opening)
            self.assert_lines_in_order(server.out.all(), [BANNER, NETWORK, PORTAUDIO])
            self.assertNotIn(OPENED, server.out.all())
            self.assert_ends_cleanly(server)
            self.assertEqual(server.err.all(), opening + [
                "An error occured while closing the portaudio stream",
                "Error number: -10000",
                "Error message: PortAudio not initialized"])

    def test_session_of_wayland_is_announced_before_the_banner(self):
        with Server(env={"XDG_SESSION_TYPE": "Wayland", "WAYLAND_DISPLAY": "wayland-0"}) as server:
            server.out.wait_for(PORTAUDIO)
            self.assert_lines_in_order(server.out.all(), [
                re.compile("^Warning: Ignoring XDG_SESSION_TYPE=wayland. Start VelantrixServer "
                           "with '-platform wayland' option or set environment variable "
                           "QT_QPA_PLATFORM=wayland to run on Wayland anyway.$"), BANNER])
            self.assert_ends_cleanly(server)


class Ports(SystemTest):
    def test_port_from_the_environment(self):
        with Server(env={"VELANTRIX_SERVER_PORT": "7000"}) as server:
            server.out.wait_for(PORTAUDIO)
            self.assert_lines_in_order(server.out.all(), [
                "Using port number 7000 from environment", BANNER, NETWORK,
                "Binding to port number 7000", PORTAUDIO])
            self.assert_ends_cleanly(server)


class OwnAddress(SystemTest):
    def test_detected_address_is_told_before_the_banner(self):
        with OtherNetwork(), Server() as server:
            server.out.wait_for(PORTAUDIO)
            address = f"This server's probable IPv4 address: {HERE_ADDRESS}"
            self.assert_lines_in_order(server.out.all(), [address, BANNER])
            self.assertEqual(server.out.all().count(address), 1)
            self.assert_ends_cleanly(server)


class FatalStarts(SystemTest):
    def test_busy_port_ends_with_status_255(self):
        with busy_port():
            with Server() as server:
                self.assertEqual(server.wait(), FATAL)
                self.assert_lines_in_order(server.out.all(), [BANNER, NETWORK, BUSY])
                self.assertNotIn(PORTAUDIO, server.out.all())
                self.assertEqual(server.err.all(), [])

    def test_closed_standard_streams_do_not_harm(self):
        with busy_port():
            status = subprocess.run(
                ["sh", "-c", '"$0" -nogui 0<&- 1>&- 2>&-', program("VELANTRIX_SERVER")],
                env=dict(clean_environment(), **private_home(self.folder)), check=False,
                timeout=60).returncode
            self.assertEqual(status, FATAL)
