"""How the headless server starts: its lines, their order, and its exit statuses."""

import re
import socket
import subprocess

from support.harness import (BANNER, CAPTURE_RUNNING, DEFAULT_PORT, HERE_ADDRESS, OtherNetwork,
                             Server, SoundServer, SystemTest, clean_environment, fake, private_home,
                             program)

FATAL = 255

NETWORK = "Initializing server network communication"
PORTAUDIO = "Initializing PortAudio"
OPENED = "Audio input device opened successfully"
BUSY = "Network port busy (another Velantrix Server may already be running)"
DEVICE_RATE = re.compile(
    r"^PortAudio reported default input device sample rate is \d+ \(may not be accurate\)$")
HOST_FAILED = ("An error occurred while creating network server host, network port may be busy "
               "(try rebooting)")


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

    def test_unsupported_rate_falls_back_to_44100(self):
        self.check_start(44100, "32000", ["Sample rate 32000 not supported, using 44100"])

    def test_rate_that_is_no_number_is_ignored_silently(self):
        self.check_start(44100, "abc", [])

    def test_verbose_shows_the_library_noise_and_the_result(self):
        with SoundServer() as sound, Server("-verbose", sound=sound) as server:
            server.err.wait_for("PortAudio Pa_Initialize call completed with return value 0")
            server.wait_for_capture()
            self.assert_ends_cleanly(server)
            self.assertIn("Exec returned with result 0", server.out.all())

    def test_lines_show_at_once_through_a_pipe(self):
        with SoundServer() as sound, Server(sound=sound) as server:
            server.wait_for_capture()
            self.assertIsNone(server.child.poll(), "the lines came while the server ran")
            self.assertIn(BANNER, server.out.all())

    def test_stream_that_cannot_start_leaves_the_server_up(self):
        with SoundServer() as sound, Server(
                sound=sound, preload=fake("preload_faults.so"),
                env={"VELANTRIX_FAULTS": "start-fails"}) as server:
            server.err.wait_for("Error -9999 opening audio input device")
            self.assertEqual(server.err.all()[:2], [
                "An error occured while opening the portaudio stream",
                "Error message: Unanticipated host error"])
            self.assertNotIn(OPENED, server.out.all())
            self.assert_ends_cleanly(server)

    def test_device_without_information_is_invalid(self):
        with SoundServer() as sound, Server(
                sound=sound, preload=fake("preload_faults.so"),
                env={"VELANTRIX_FAULTS": "no-device-info"}) as server:
            server.err.wait_for("Error -10000 opening audio input device")
            self.assertEqual(server.err.all()[0], "Error: Invalid default input device.")
            self.assert_ends_cleanly(server)


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

    def test_no_display_is_needed(self):
        with Server(env={"DISPLAY": None, "WAYLAND_DISPLAY": None}) as server:
            server.out.wait_for(PORTAUDIO)
            self.assert_ends_cleanly(server)

    def test_session_of_wayland_is_announced_before_the_banner(self):
        with Server(env={"XDG_SESSION_TYPE": "Wayland", "WAYLAND_DISPLAY": "wayland-0"}) as server:
            server.out.wait_for(PORTAUDIO)
            self.assert_lines_in_order(server.out.all(), [
                re.compile("^Warning: Ignoring XDG_SESSION_TYPE=wayland. Start VelantrixServer "
                           "with '-platform wayland' option or set environment variable "
                           "QT_QPA_PLATFORM=wayland to run on Wayland anyway.$"), BANNER])
            self.assert_ends_cleanly(server)


class Ports(SystemTest):
    def start(self, expected, *arguments, **options):
        with Server(*arguments, **options) as server:
            server.out.wait_for(PORTAUDIO)
            self.assert_lines_in_order(server.out.all(), [BANNER, NETWORK, *expected, PORTAUDIO])
            lines = server.out.all()
            self.assert_ends_cleanly(server)
            return lines

    def test_port_from_the_command_line(self):
        self.start(["Binding to port number 6000"], "-p", "6000")

    def test_port_value_may_follow_another_option(self):
        self.start(["Binding to port number 6001"], "-p", "-verbose", "6001")

    def test_port_from_the_environment(self):
        lines = self.start(["Binding to port number 7000"], env={"VELANTRIX_SERVER_PORT": "7000"})
        self.assertEqual(lines[0], "Using port number 7000 from environment")

    def test_port_0_leaves_it_to_the_environment(self):
        self.start(["Binding to port number 7001"], "-p", "0",
                   env={"VELANTRIX_SERVER_PORT": "7001"})

    def test_port_65536_means_the_default(self):
        self.start(["Using default port number 59010"], "-p", "65536")

    def test_environment_port_with_a_sign_is_ignored(self):
        lines = self.start(["Using default port number 59010"],
                           env={"VELANTRIX_SERVER_PORT": "+7000"})
        self.assertNotIn("from environment", "\n".join(lines))

    def test_unknown_arguments_are_ignored(self):
        self.start(["Using default port number 59010"], "--help", "words", "-x")


class BindAddress(SystemTest):
    def test_chosen_address_is_bound(self):
        with Server("-b", "127.0.0.1") as server:
            server.out.wait_for(PORTAUDIO)
            self.assert_lines_in_order(server.out.all(), [
                NETWORK, "Binding server to address '127.0.0.1'",
                "Using default port number 59010"])
            with open(f"/proc/{server.pid}/net/udp", encoding="ascii") as table:
                bound = [line.split()[1] for line in table]
            self.assertIn(f"0100007F:{DEFAULT_PORT:04X}", bound)
            self.assert_ends_cleanly(server)

    def test_address_from_the_environment(self):
        with Server(env={"VELANTRIX_SERVER_BINDADDR": "127.0.0.1"}) as server:
            server.out.wait_for("Binding server to address '127.0.0.1'")
            self.assertEqual(server.out.all()[0], "Using bind address 127.0.0.1 from environment")

    def test_unresolvable_address_is_reported_and_any_address_bound(self):
        long_name = "no-such-host-" + "x" * 60 + ".invalid"
        with Server("-b", long_name) as server:
            server.out.wait_for(PORTAUDIO)
            lines = server.out.all()
            self.assert_lines_in_order(lines, [
                f"Binding server to address '{long_name}'",
                f"Warning, could not bind server to address '{long_name[:50]}' check environment "
                "variable VELANTRIX_SERVER_BINDADDR and/or command line parameter. Using "
                "INADDR_ANY.",
                "", "Using default port number 59010"])
            with open(f"/proc/{server.pid}/net/udp", encoding="ascii") as table:
                bound = [line.split()[1] for line in table]
            self.assertIn(f"00000000:{DEFAULT_PORT:04X}", bound)
            self.assert_ends_cleanly(server)

    def test_address_of_300_characters_is_cut(self):
        with Server("-b", "y" * 300) as server:
            server.out.wait_for("Binding server to address '" + "y" * 255 + "'")
            server.out.wait_for(PORTAUDIO)
            self.assert_ends_cleanly(server)

    def test_address_of_another_machine_is_fatal(self):
        with Server("-b", "192.0.2.1") as server:
            self.assertEqual(server.wait(), FATAL)
            self.assertEqual(server.out.all()[-2:], [
                HOST_FAILED + " or could not bind server to address '192.0.2.1' (check "
                "environment variable VELANTRIX_SERVER_BINDADDR and/or command line parameter)",
                ""])


class OwnAddress(SystemTest):
    def test_detected_address_is_told_before_the_banner(self):
        with OtherNetwork(), Server() as server:
            server.out.wait_for(PORTAUDIO)
            address = f"This server's probable IPv4 address: {HERE_ADDRESS}"
            self.assert_lines_in_order(server.out.all(), [address, BANNER])
            self.assertEqual(server.out.all().count(address), 1)
            self.assert_ends_cleanly(server)

    def test_machine_without_a_network_is_told_so_before_the_banner(self):
        with Server() as server:
            server.out.wait_for(PORTAUDIO)
            self.assert_lines_in_order(server.out.all(), [
                "Could not determine this server's IPv4 address", BANNER])
            self.assert_ends_cleanly(server)


class FatalStarts(SystemTest):
    def test_busy_port_ends_with_status_255(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
            holder.bind(("0.0.0.0", DEFAULT_PORT))
            with Server() as server:
                self.assertEqual(server.wait(), FATAL)
                self.assert_lines_in_order(server.out.all(), [BANNER, NETWORK, BUSY])
                self.assertNotIn(PORTAUDIO, server.out.all())
                self.assertEqual(server.err.all(), [])

    def test_second_server_finds_the_port_of_the_first_busy(self):
        with Server() as first:
            first.out.wait_for(PORTAUDIO)
            with Server() as second:
                self.assertEqual(second.wait(), FATAL)
                self.assertIn(BUSY, second.out.all())
            self.assert_ends_cleanly(first)

    def check_fault(self, fault, message):
        with Server(preload=fake("preload_faults.so"), env={"VELANTRIX_FAULTS": fault}) as server:
            self.assertEqual(server.wait(), FATAL)
            self.assertIn(message, server.out.all())

    def test_network_library_that_fails_to_start_is_fatal(self):
        self.check_fault("enet-init", "An error occurred while initializing network communication")

    def test_host_that_cannot_be_created_is_fatal(self):
        self.check_fault("host-create", HOST_FAILED)

    def test_closed_standard_streams_do_not_harm(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
            holder.bind(("0.0.0.0", DEFAULT_PORT))
            status = subprocess.run(
                ["sh", "-c", '"$0" -nogui 0<&- 1>&- 2>&-', program("VELANTRIX_SERVER")],
                env=dict(clean_environment(), **private_home(self.folder)), check=False,
                timeout=60).returncode
            self.assertEqual(status, FATAL)
