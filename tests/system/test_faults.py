"""What the running server makes of a machine that fails it: sound, network, clock, console,
descriptors, memory. docs/faults.md says the same for its users."""

import contextlib
import fcntl
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import socket
import struct
import termios
import time
import unittest

from support.enet_wire import Recorder, connect_peers
from support.harness import (CAPTURE_RUNNING, DEFAULT_PORT, HERE_ADDRESS, THERE_ADDRESS, OtherNetwork, Server,
                             SoundServer, SystemTest, fake, wait_until)
from support.network import ip
from support.probe import MULTI_CLIENT, Probe, control_message, sequence_gaps

DAY = 24 * 3600
SLOTS, MAX_PEERS = 10, 32
FATAL = 255
ON_THE_SIDE = 10.0  # Seconds after the start.
QUEUE = 30  # Packets that a reliable client's queue keeps at the least.
DISCOVERY = ("127.0.0.1", 59011)
QUERY, QUERY2, RESPONSE = b"VelantrixQuery", b"VelantrixQuery2", b"VelantrixResponse"
NO_SERVICE = "Error returned from service call"
SLOW_CLOSE = ("VelantrixServer: Audio shutdown is taking a long time, may be caused by an audio "
              "driver issue. Quitting.")
TIME_OUTS = 60.0  # Seconds: 5 on a quick machine, at most 30 from the packet that they are for.
STRANGERS = 3  # Fewer than there are slots beside the clients, in two shortages.
MORE_THAN_QUEUED = 300
KEPT_KIB = 64
PAGE = 4096
QUEUED_LINES = 512  # Of the capture thread, while nobody reads: QUEUE_LINES in app/base/console.cpp.
MORE_LINES = 100
AT_A_TIME = 100  # Messages; the server forgets all but the newest 256 that wait.
UNKNOWN_MESSAGE = 1000
LAST_MESSAGE = 9999
PRINTED_NUMBER = "Got unrecognized message ID %d\n"
PRINTED_NUMBERS = re.compile(r"^Got unrecognized message ID (\d+)$", re.MULTILINE)
LOST_LINES = re.compile(r"^\((\d+) lines lost: standard output was not read in time\)$",
                        re.MULTILINE)
OTHER_LINES = 6  # Of a data request, and of the check for a new version.
SCARCE = "Warning, not enough memory for network communication"

LONG = os.environ.get("VELANTRIX_LONG_FAULTS") == "1"
SCARCE_SECONDS = float(os.environ.get("VELANTRIX_SCARCE_SECONDS", "2"))


class FaultTest(SystemTest):
    def setUp(self):
        super().setUp()
        self.stack = contextlib.ExitStack()
        self.addCleanup(self.stack.close)
        self.sound = self.stack.enter_context(SoundServer())

    def start(self, captures=True, probe_prefix=(), **options):
        self.server = self.stack.enter_context(Server(sound=self.sound, rate=48000, **options))
        self.probe = self.stack.enter_context(Probe(self.folder, prefix=probe_prefix))
        if captures:
            self.server.wait_for_capture()

    def client(self, rate_code=0, reliable=True, probe=None, **options):
        return (probe or self.probe).listen(rate_code, reliable, **options)

    def ask(self, query, port=0):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asker:
            asker.bind(("0.0.0.0", port))
            asker.settimeout(2)
            asker.sendto(query, DISCOVERY)
            try:
                return asker.recv(100)
            except TimeoutError:
                return None

    def assert_gapless(self, client, mark=0):
        packets = client.wait_packets(50)[mark:]
        self.assertEqual(sequence_gaps(packets), 0, client.name)
        self.assertFalse(client.is_disconnected())


class Sound(FaultTest):
    """The sound server goes, stands still, comes again."""

    def setUp(self):
        super().setUp()
        self.start()
        self.listener = self.client()

    def assert_capture_stops(self):
        def quiet():
            count = len(self.listener.packets())
            time.sleep(0.5)
            return len(self.listener.packets()) == count
        wait_until(quiet, "no more sound comes")
        self.assertIsNone(self.server.child.poll())

    def assert_everybody_is_lost(self, clients):
        """Apps lose their connection by ENet's time-outs, and cannot connect again."""
        newcomer = self.probe.connect(wait=False)
        begin = time.monotonic()
        for client in clients:
            client.wait_disconnected(TIME_OUTS)
            print(f"{client.name} lost its connection after {time.monotonic() - begin:.1f} s")
        self.assertFalse(newcomer.is_connected())
        self.assertIsNone(self.server.child.poll())

    def test_killed_sound_server_ends_the_stream_but_not_the_program(self):
        clients = [self.listener, self.client(0, reliable=False), self.client(1)]
        self.sound.stop()
        self.assert_capture_stops()
        self.assert_everybody_is_lost(clients)
        self.assert_ends_in_time(self.server)

    def test_end_right_after_the_sound_server_was_killed(self):
        self.sound.stop()
        self.assert_capture_stops()
        self.assert_ends_in_time(self.server)

    def test_restarted_sound_server_is_used_after_the_next_start(self):
        self.sound.stop()
        self.assert_capture_stops()
        self.sound.start()
        self.assert_capture_stops()
        self.assert_everybody_is_lost([self.listener])
        self.assertEqual(self.server.out.all().count("Initializing PortAudio"), 1)
        self.assert_ends_in_time(self.server)
        self.start()
        self.assert_gapless(self.client())
        self.assert_ends_in_time(self.server)

    def test_stopped_sound_server_only_makes_a_pause(self):
        self.sound.daemon.send_signal(signal.SIGSTOP)
        self.assert_capture_stops()
        self.sound.daemon.send_signal(signal.SIGCONT)
        self.assert_gapless(self.listener)
        self.assert_ends_in_time(self.server)

    def test_end_while_the_sound_server_stands_still(self):
        self.sound.daemon.send_signal(signal.SIGSTOP)
        self.assert_capture_stops()
        self.assert_ends_in_time(self.server)
        self.assertEqual(self.server.out.all().count(SLOW_CLOSE), 1)
        self.sound.daemon.send_signal(signal.SIGCONT)


class Network(FaultTest):
    """The cable to one client fails; others, on this machine, must not notice."""

    def setUp(self):
        super().setUp()
        self.other = self.stack.enter_context(OtherNetwork())
        self.start()
        self.far_probe = self.stack.enter_context(
            Probe(self.folder / "far", prefix=self.other.command()))
        (self.folder / "far").mkdir()
        self.far = self.far_client()
        self.witnesses = [self.client(), self.client(0, reliable=False, thinned=False)]

    def assert_nobody_else_noticed(self):
        for witness in self.witnesses:
            self.assert_gapless(witness, mark=20)

    def wait_caught_up(self, client):
        """Waits until a client hears what the first witness hears; how many packets it has then."""
        wait_until(lambda: client.packets()[-1].seq >= self.witnesses[0].packets()[-1].seq,
                   f"{client.name} has caught up")
        return len(client.packets()) - 1

    def far_client(self):
        return self.client(probe=self.far_probe, host=HERE_ADDRESS)

    def wait_given_up(self, address):
        self.server.out.wait_for(re.compile(rf"^Client {re.escape(address)}:\d+ disconnected$"),
                                 timeout=60)

    def test_interface_that_comes_back_soon_costs_its_client_only_the_pause(self):
        before = len(self.far.packets())
        ip("link", "set", "vxhere", "down")
        time.sleep(1.5)
        ip("link", "set", "vxhere", "up")
        mark = self.wait_caught_up(self.far)
        self.assert_gapless(self.far, mark)
        self.assertIn(NO_SERVICE, self.server.out.all())
        packets = self.far.packets()
        self.assertEqual(sequence_gaps(packets[:before]), 0)
        steps = [after.seq - one.seq for one, after in zip(packets, packets[1:])]
        self.assertGreater(min(steps), 0, "out of order")
        missing, meanwhile = sum(steps) - len(steps), packets[mark].seq - packets[before].seq
        print(f"{missing} packets of {meanwhile} did not fit into the queue")
        self.assertLessEqual(missing, meanwhile - QUEUE)
        self.assert_nobody_else_noticed()
        self.assert_ends_in_time(self.server)

    def test_interface_that_stays_away_costs_its_client_the_connection(self):
        ip("link", "set", "vxhere", "down")
        self.wait_given_up(THERE_ADDRESS)
        ip("link", "set", "vxhere", "up")
        self.assert_gapless(self.far_client())
        self.assert_nobody_else_noticed()
        self.assert_ends_in_time(self.server)

    def test_client_with_a_new_address_connects_anew_and_the_old_one_is_given_up(self):
        ip("addr", "add", "10.77.0.3/24", "dev", "vxthere", there=self.other)
        ip("addr", "del", f"{THERE_ADDRESS}/24", "dev", "vxthere", there=self.other)
        ip("addr", "replace", "10.77.0.3/24", "dev", "vxthere", there=self.other)
        again = self.far_client()
        self.wait_given_up(THERE_ADDRESS)
        self.assert_gapless(again)
        self.assert_nobody_else_noticed()
        self.assert_ends_in_time(self.server)

    @unittest.skipUnless(LONG, "in the long version: VELANTRIX_LONG_FAULTS=1")
    def test_client_whose_router_changes_its_port_connects_anew(self):
        with Recorder(("127.0.0.1", DEFAULT_PORT)) as router:
            client = self.client(port=router.port)
            line = self.server.out.count()
            router.change_port()
            client.wait_disconnected()
            self.assert_gapless(self.client(port=router.port))
            self.server.out.wait_for(re.compile(r"^Client 127\.0\.0\.1:\d+ disconnected$"), line)
        self.assert_nobody_else_noticed()


class Clock(FaultTest):
    """The calendar clock is set while clients hear; the machine's own stays as it is."""

    def setUp(self):
        super().setUp()
        self.clock = self.folder / "clock"
        self.set_clock(0)
        self.start(preload=fake("preload_clock.so"), env={"VELANTRIX_CLOCK": str(self.clock)})

    def set_clock(self, seconds):
        # In place: the server has the file mapped.
        with open(self.clock, "r+b" if self.clock.exists() else "wb") as file:
            file.write(struct.pack("=q", seconds))

    def check_jump(self, seconds):
        clients = [self.client(0), self.client(1), self.client(0, reliable=False, thinned=False)]
        marks = [len(client.wait_packets(20)) - 1 for client in clients]
        for _ in range(5):  # Each jump meets the capture thread somewhere else.
            self.set_clock(seconds)
            clients[0].wait_packets(7)
            self.set_clock(0)
            clients[0].wait_packets(7)
        for client, mark in zip(clients, marks):
            self.assert_gapless(client, mark)
        self.set_clock(seconds)
        self.assert_gapless(self.client(3))
        self.assertFalse(any(client.is_disconnected() for client in clients))
        self.assert_ends_in_time(self.server)

    def test_day_forward(self):
        self.check_jump(DAY)

    def test_day_back(self):
        self.check_jump(-DAY)


class Output(FaultTest):
    """Standard output is not read, and a client makes the server print all the time."""

    def start_into_pipe(self):
        """Starts the server with a pipe as its output; returns the reading end, which waits for
        nothing."""
        pipe = self.folder / "pipe"
        os.mkfifo(pipe)
        reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
        self.start(captures=False, prefix=["sh", "-c", f'exec "$@" >{pipe}', "sh"])
        return reader

    def read(self, reader):
        with contextlib.suppress(BlockingIOError):
            return os.read(reader, 65536).decode()
        return ""

    def fill(self, reader, listener, talker):
        """Has more lines printed than the pipe and the queue behind it hold, and reads none of
        them; returns the numbers in these lines."""
        self.read(reader)
        room = fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, PAGE)
        line = len(PRINTED_NUMBER % UNKNOWN_MESSAGE)
        numbers = range(UNKNOWN_MESSAGE,
                        UNKNOWN_MESSAGE + room // line + QUEUED_LINES + MORE_LINES)
        for number in numbers:
            talker.send(control_message(number))
            if number % AT_A_TIME == AT_A_TIME - 1:
                listener.wait_packets(AT_A_TIME)
        talker.request(2)
        wait_until(lambda: talker.packets()[-1].rate_code == 2, "the last message is obeyed")
        unread = struct.unpack("=i", fcntl.ioctl(reader, termios.FIONREAD, bytes(4)))[0]
        print(f"{unread} of {room} bytes wait in the pipe")
        self.assertGreater(unread, room - line)
        return numbers

    def test_pipe_that_is_read_again_tells_of_the_lines_that_were_lost(self):
        reader = self.start_into_pipe()
        self.addCleanup(os.close, reader)
        listener, talker = self.client(), self.client(1)
        wanted = self.fill(reader, listener, talker)
        text = ""

        def read_on(pattern):
            nonlocal text
            text += self.read(reader)
            return pattern.search(text)
        lost = int(wait_until(lambda: read_on(LOST_LINES), "the sentence about lost lines")[1])
        numbers = list(map(int, PRINTED_NUMBERS.findall(text)))
        print(f"{len(numbers)} of {len(wanted)} lines came, {lost} were lost")
        self.assertEqual(numbers, list(wanted[:len(numbers)]))
        self.assertGreaterEqual(len(numbers), QUEUED_LINES)
        self.assertIn(lost - (len(wanted) - len(numbers)), range(OTHER_LINES + 1))
        talker.send(control_message(LAST_MESSAGE))
        wait_until(lambda: read_on(re.compile(re.escape(PRINTED_NUMBER % LAST_MESSAGE))),
                   "the output goes on")
        self.assert_gapless(listener)
        self.assert_gapless(talker)
        self.assert_ends_in_time(self.server)


class Limits(FaultTest):
    """Descriptors and memory run out."""

    def open_descriptors(self):
        return len(os.listdir(f"/proc/{self.server.pid}/fd"))

    def limit(self, what, soft):
        hard = resource.prlimit(self.server.pid, what)[1]
        resource.prlimit(self.server.pid, what, (soft, hard))

    def limit_memory(self, most):
        # Not the address space: the heaps of threads have theirs reserved, and once it is used up
        # the kernel lets them write there despite the limit of data.
        self.limit(resource.RLIMIT_DATA, most)

    def test_no_descriptor_left_while_streaming(self):
        self.start()
        listener = self.client()
        before = self.open_descriptors()
        self.limit(resource.RLIMIT_NOFILE, 3)
        self.assertEqual(self.ask(QUERY2), RESPONSE)
        self.ask_first_form()
        self.server.err.wait_for("multiHost: Response socket open failed: Too many open files")
        self.assert_gapless(self.client(1))
        self.assert_gapless(listener)
        self.limit(resource.RLIMIT_NOFILE, resource.prlimit(self.server.pid,
                                                            resource.RLIMIT_NOFILE)[1])
        self.assertEqual(self.ask(QUERY2), RESPONSE)
        self.assertEqual(self.open_descriptors(), before)
        self.assert_ends_in_time(self.server)

    def ask_first_form(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asker:
            asker.sendto(QUERY, DISCOVERY)

    def check_start(self, *limit):
        """Every start continues, or ends with status 255 and a reason; never by a signal."""
        for left in pathlib.Path("/dev/shm").glob("jack_db-*"):  # A lock of the start before.
            shutil.rmtree(left)
        with Server(sound=self.sound, rate=48000, prefix=["prlimit", *limit]) as server:
            end = time.monotonic() + 2
            while time.monotonic() < end and server.child.poll() is None and \
                    CAPTURE_RUNNING not in server.out.all() and \
                    not any("opening audio input device" in line for line in server.err.all()):
                time.sleep(0.05)
            status = server.stop()
            lines = server.out.all() + server.err.all()
            print(f"{' '.join(limit)}: status {status}, last line {lines[-1] if lines else None!r}")
            return status, lines

    def test_starts_with_few_descriptors(self):
        # With fewer, the sound library cannot read its configuration and ends the process itself.
        for count in (12, 14, 17, 20, 26):
            with self.subTest(descriptors=count):
                status, lines = self.check_start(f"--nofile={count}")
                self.assertIn(status, (0, FATAL), "\n".join(lines))
                self.assertTrue(lines)

    def test_starts_with_little_memory(self):
        # With less, the system cannot load the libraries.
        for mebibytes in (88, 96, 104, 112, 120, 128, 144, 160, 200, 320, 640, 1024):
            with self.subTest(mebibytes=mebibytes):
                status, lines = self.check_start(f"--as={mebibytes << 20}")
                self.assertIn(status, (0, FATAL), "\n".join(lines))
                self.assertTrue(lines)

    def test_no_more_memory_while_streaming(self):
        self.start()
        listener = self.client()
        self.limit_memory(1)
        for _ in range(3):
            client = self.client(1)
            self.assert_gapless(client)
            client.disconnect()
            client.wait_disconnected()
        self.assertEqual(self.ask(QUERY2), RESPONSE)
        self.assert_gapless(listener)
        self.limit_memory(resource.RLIM_INFINITY)
        self.assert_gapless(self.client(2))
        self.assert_ends_in_time(self.server)

    def test_memory_runs_out_while_clients_stand_still(self):
        self.start()
        listener = self.client()
        still = [self.client() for _ in range(SLOTS - 2)]
        self.limit_memory(1)
        began = time.monotonic()
        for client in still:
            client.stall()
        self.server.out.wait_for(SCARCE)  # What is kept for them took all that there was.
        for client in still:
            client.resume()
        # Other work, such as the check for a new version, may fail, too.
        wait_until(lambda: time.monotonic() - began > ON_THE_SIDE, "the work on the side is over")
        self.assertIsNone(self.server.child.poll(), self.server.out.all()[-1])
        listener.wait_packets(50)
        self.limit_memory(resource.RLIM_INFINITY)
        for client in still:
            client.wait_packets(50)
        mark = len(listener.packets())
        self.assert_gapless(listener, mark)
        self.assert_gapless(self.client(1))
        self.assert_ends_in_time(self.server)


class ScarceMemory(FaultTest):
    """A share of ENet's own allocations fails, at random."""

    def setUp(self):
        super().setUp()
        self.orders = self.folder / "orders"
        self.seed = random.SystemRandom().getrandbits(31)
        print(f"seed {self.seed}")
        self.orders.write_bytes(struct.pack("=II", 0, self.seed))
        self.start(preload=fake("preload_scarce.so"), env={"VELANTRIX_SCARCE": str(self.orders)})

    def fail_share(self, per_mille):
        with open(self.orders, "r+b") as file:
            file.write(struct.pack("=I", per_mille))

    def memory(self):
        with open(f"/proc/{self.server.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("RssAnon"))

    def shortage(self, per_mille):
        """Makes allocations fail for a while, in which strangers try to connect."""
        self.fail_share(per_mille)
        for _ in range(STRANGERS):
            self.probe.connect(wait=False)
            time.sleep(SCARCE_SECONDS / STRANGERS)
        self.fail_share(0)

    def is_served(self, client):
        """Whether a client hears on without a gap; false when it has lost its connection."""
        already = client.statistics()["packets"]
        wait_until(lambda: client.is_disconnected() or
                   client.statistics()["packets"] > already + MORE_THAN_QUEUED,
                   f"{client.name} hears again or has lost its connection", timeout=60)
        if not client.is_disconnected():
            self.assert_gapless(client, len(client.packets()) - 1)
        return not client.is_disconnected()

    def check_share(self, per_mille):
        choices = ((0, True), (0, False), (1, True), (4, True))
        clients = [self.client(*choice, thinned=False) for choice in choices]
        self.shortage(per_mille)  # The heap grows to the size of a shortage.
        served = [self.is_served(client) for client in clients]
        before = self.memory()
        self.shortage(per_mille)
        served = [self.is_served(client) for client in clients]
        after = self.memory()
        print(f"{per_mille} of 1000 failed: served on {served}, memory {before} KiB before the "
              f"second shortage, {after} KiB after")
        self.assertEqual(self.server.out.all().count(SCARCE), 1)
        self.assertLess(after - before, KEPT_KIB)
        for choice in choices:
            self.assert_gapless(self.client(*choice))
        self.assert_ends_in_time(self.server)

    def test_one_allocation_in_a_hundred(self):
        self.check_share(10)

    def test_one_allocation_in_three(self):
        self.check_share(333)

    def test_all_allocations(self):
        self.check_share(1000)

    def test_connections_that_fail_take_no_place_for_good(self):
        here = ("127.0.0.1", DEFAULT_PORT)
        self.fail_share(300)
        for _ in range(6):  # Most of them end in the middle, and more than there are peers.
            for peer in connect_peers(here, MAX_PEERS // 2, MULTI_CLIENT | 1, timeout=0.5):
                peer.disconnect()
                peer.socket.close()
        self.fail_share(0)
        self.assertIn(SCARCE, self.server.out.all())
        # ENet gives up the ones that it could answer within about 30 s.
        peers = connect_peers(here, MAX_PEERS, MULTI_CLIENT, timeout=60)
        for peer in peers:
            peer.socket.close()
        self.assertEqual(len(peers), MAX_PEERS)
        self.assert_ends_in_time(self.server)
