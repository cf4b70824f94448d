"""Attackers at velantrix-web's port, while two good listeners lose nothing.

VELANTRIX_HOSTILE_CONNECTIONS says how many connections an attacker opens, 2000 if it is not set.
"""

import contextlib
import os
import random
import resource
import socket
import struct
import time

from support.harness import Server, SoundServer, SystemTest, resident_bytes, wait_until
from support.web import Web
from support.web_listener import (UPGRADE, LiveListener, connect, read_all, request,
                                  status_of)

CONNECTIONS = int(os.environ.get("VELANTRIX_HOSTILE_CONNECTIONS", "2000"))
SECONDS = 3


def frame(first, content, masked=True, length=None):
    """A frame to the server; ``length`` is what it claims."""
    length = len(content) if length is None else length
    mark = 0x80 if masked else 0
    if length < 126:
        head = struct.pack(">BB", first, mark | length)
    elif length < 65536:
        head = struct.pack(">BBH", first, mark | 126, length)
    else:
        head = struct.pack(">BBQ", first, mark | 127, length)
    return head + (b"\0\0\0\0" if masked else b"") + content


class Hostile(SystemTest):
    def setUp(self):
        super().setUp()
        limit = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (limit[1], limit[1]))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, limit)
        sound = self.enterContext(SoundServer())
        self.enterContext(Server(sound=sound, rate=48000)).wait_for_capture()
        self.web = self.enterContext(Web())
        self.address = self.web.address()
        self.good = [self.enterContext(LiveListener(self.address, query))
                     for query in ("", "?format=opus")]
        wait_until(lambda: all(each.numbers for each in self.good), "the sound comes")
        self.descriptors_before = self.descriptors()
        self.attack = self.enterContext(contextlib.ExitStack())

    def tearDown(self):
        """Everything was heard, nothing of the attack is kept, and it ends as usual."""
        self.attack.close()
        self.wait_for_release()
        wait_until(lambda: status_of(self.address)["listeners"] == len(self.good),
                   "the attackers count no more")
        for each in self.good:
            count = len(each.numbers)
            wait_until(lambda: len(each.numbers) > count + 100, "the sound goes on")
            self.assertEqual(each.lost(), 0)
            self.assertEqual(len([text for text in each.texts if "format" in text]), 1)
        self.assertEqual(self.web.stop(), 0)
        super().tearDown()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.web.pid}/fd"))

    def wait_for_release(self):
        # A thread opens three when it gets its first connection.
        most = self.descriptors_before + 3 * (os.cpu_count() - 1)
        wait_until(lambda: self.descriptors() <= most, "the attackers' connections are closed")

    def connections(self, count, receive_buffer=None):
        """Connections of an attacker, closed at the end of the test."""
        return [self.attack.enter_context(contextlib.closing(connect(self.address, receive_buffer)))
                for _ in range(count)]

    def stalled(self):
        """Live listeners who do not read what they have been sent for some seconds."""
        lines = self.connections(20, receive_buffer=1024)
        for index, line in enumerate(lines):
            line.sendall(request("/live" if index % 2 else "/live?format=opus", UPGRADE))
        time.sleep(2 * SECONDS)
        return lines

    def upgraded(self):
        line, = self.connections(1)
        line.sendall(request("/live", UPGRADE))
        self.assertIn(b"101", line.recv(100))
        return line

    def flood(self, line, content):
        """Sends the content again and again for some seconds; returns how often."""
        count, end = 0, time.monotonic() + SECONDS
        line.settimeout(SECONDS)
        with contextlib.suppress(OSError):
            while time.monotonic() < end:
                line.sendall(content)
                count += 1
        return count

    def test_thousands_of_connections_that_say_nothing_or_half_of_it(self):
        lines = self.connections(CONNECTIONS)
        for index, line in enumerate(lines):
            if index % 2:
                line.sendall(b"GET / HTTP/1.1\r\nHost: local")
        before = resident_bytes(self.web)
        with connect(self.address) as line:
            line.sendall(request("/status", "Connection: close\r\n"))
            self.assertIn(b"200 OK", read_all(line), "others are still served")
        self.assertTrue(read_all(lines[0]).startswith(b"HTTP/1.1 408"))
        self.assertTrue(read_all(lines[-1]).startswith(b"HTTP/1.1 408"))
        self.assertLess(before, 64e6 + 8192 * CONNECTIONS)

    def test_headers_that_come_slowly(self):
        lines = self.connections(100)
        for line in lines:
            line.sendall(b"GET / HTTP/1.1\r\nHost: ")
        answers = 0
        end = time.monotonic() + 20
        while answers < len(lines) and time.monotonic() < end:
            answers = 0
            for line in lines:
                with contextlib.suppress(OSError):
                    line.send(b"a")
                try:
                    answers += bool(line.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT))
                except BlockingIOError:
                    pass
                except OSError:
                    answers += 1
            time.sleep(0.2)
        self.assertEqual(answers, len(lines))

    def test_requests_without_an_end(self):
        for content in (b"GET /" + 65536 * b"a", b"GET / HTTP/1.1\r\n" + 5000 * b"A: b\r\n",
                        65536 * b"\0", 65536 * b"\n"):
            with self.subTest(content=content[:20]):
                line, = self.connections(1)
                self.flood(line, content)
                self.assertRegex(read_all(line), rb"\A(HTTP/1.1 4(00|31) .*)?\Z|HTTP/1.1 4(00|31)")

    def test_answers_that_nobody_reads(self):
        lines = self.connections(50)
        for line in lines:
            line.settimeout(0.05)
            with contextlib.suppress(OSError):
                line.sendall(2000 * request("/"))
        time.sleep(SECONDS)
        self.assertLess(resident_bytes(self.web), 200e6)

    def test_random_bytes(self):
        seed = random.randrange(1 << 32)
        print(f"seed {seed}")
        chance = random.Random(seed)
        for start in (b"", b"GET ", b"GET / HTTP/1.1\r\n", request("/live", UPGRADE)):
            for _ in range(100):
                with connect(self.address) as line:
                    with contextlib.suppress(OSError):
                        line.sendall(start + chance.randbytes(chance.randrange(2000)))

    def test_frames_of_every_kind(self):
        seed = random.randrange(1 << 32)
        print(f"seed {seed}")
        chance = random.Random(seed)
        for first in range(256):
            line = self.upgraded()
            with contextlib.suppress(OSError):
                line.sendall(frame(first, chance.randbytes(chance.randrange(200)),
                                   masked=chance.random() < 0.8))
                line.sendall(frame(0x82, b"", length=chance.choice((1 << 62, 1 << 40, 70000))))

    def test_floods_of_frames(self):
        for content in (frame(0x89, 100 * b"p"), frame(0x82, 60000 * b"b"), frame(0x02, b""),
                        frame(0x8A, b"")):
            with self.subTest(first=content[0]):
                line = self.upgraded()
                self.flood(line, 50 * content)
        self.assertLess(resident_bytes(self.web), 200e6)

    def test_listeners_who_come_and_go(self):
        for index in range(300):
            path = ("/live", "/stream.wav", "/stream.ogg", "/stream.mp3", "/stream.flac")[index % 5]
            with connect(self.address) as line:
                line.sendall(request(path, UPGRADE if path == "/live" else ""))
                if index % 3:
                    line.recv(1)
        wait_until(lambda: "listener to /stream.flac disconnected" in "".join(self.web.out.all()),
                   "they have left")

    def test_listeners_who_stop_reading_and_close(self):
        for line in self.stalled():
            line.sendall(frame(0x88, b"\x03\xe8"))
            line.close()

    def test_listeners_who_stop_reading_ping_and_close(self):
        for line in self.stalled():
            line.sendall(frame(0x89, b"still there?"))
            line.close()

    def test_listeners_who_stop_reading_and_close_their_direction_only(self):
        for line in self.stalled():
            line.shutdown(socket.SHUT_WR)
        self.wait_for_release()
