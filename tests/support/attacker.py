"""Attacks on a server from the same network, one kind at a time.

Runs as a process of its own, in the other network:

    python3 -m support.attacker HOST KIND WORDS...

It prints "ready" once the attack has begun, "sent N of M in S s" when a flood is over, and ends at
the end of its input, without a word to the server. The kinds are the functions below.
"""

import contextlib
import os
import random
import re
import resource
import select
import socket
import struct
import subprocess
import sys
import time

from support import stranger
from support.enet_wire import COMMANDS_AT_ONCE, connect_datagram, connect_peers, flood, mutate
from support.processes import ModuleProcess

SERVER_PORT, DISCOVERY_PORT = 59010, 59011
MAX_DATAGRAM = 65507
FRAGMENTED_MESSAGE = 30_000_000  # Bytes; ENet itself would take up to 32 MiB.
AHEAD = 1.1  # A sender of messages aims at so many times its rate.
PATIENCE = 60.0  # Seconds.


def _sockets(count):
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    made = []
    for _ in range(count):
        made.append(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        made[-1].setblocking(False)
    return made


def _flood(sockets, make_datagram, target, rate, count):
    say("ready")
    sent, seconds = flood(sockets, make_datagram, target, float(rate), int(count))
    say(f"sent {sent} of {count} in {seconds:.1f} s")


def _recorded(path):
    """Datagrams that a test wrote to a file, a line of hexadecimal digits each."""
    with open(path, encoding="ascii") as lines:
        return [bytes.fromhex(line.strip()) for line in lines]


def noise(host, count, rate, seed, path):
    """Half random datagrams, half damaged recorded ones."""
    generator = random.Random(f"{seed} {count}")  # When the rest is sent once more: other ones.
    recorded = _recorded(path)

    def make(number):
        if number % 2:
            return generator.randbytes(generator.choice((generator.randint(0, 60),
                                                         generator.randint(0, 1500))))
        return mutate(generator, recorded)
    _flood(_sockets(50), make, (host, SERVER_PORT), rate, count)


def replay(host, count, rate, path):
    """A recorded connection of another client, datagram by datagram, repeatedly."""
    recorded = _recorded(path)
    _flood(_sockets(1), lambda i: recorded[i % len(recorded)], (host, SERVER_PORT), rate, count)


def forged(host, count, rate, state):
    """What a client has sent, again and again with its address and port on it, by a raw socket:
    while that client is "connected", or when it is "gone"."""
    (client,) = connect_peers((host, SERVER_PORT), 1, 0x80000001)
    port = client.socket.getsockname()[1]
    client.send(client.reliable(b"\1\0\0\0" + bytes(4) + b"\1\0\0\0" + bytes(4) + b"forged\0"))
    end = time.monotonic() + 1
    while time.monotonic() < end:
        client.service()
        time.sleep(0.005)
    recorded = list(client.sent)
    if state == "gone":
        client.disconnect()

    def make(number):
        if state != "gone" and number % 100 == 0:
            client.service()
        data = recorded[number % len(recorded)]
        return struct.pack("!HHHH", port, SERVER_PORT, 8 + len(data), 0) + data  # No checksum.
    raw = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_UDP)
    _flood([raw], make, (host, 0), rate, count)


def connects(host, count, rate, ports):
    """Requests connections from many ports and answers nothing."""
    generator = random.Random(int(count))
    _flood(_sockets(int(ports)),
           lambda _: connect_datagram(generator.getrandbits(32), 0x80000001),
           (host, SERVER_PORT), rate, count)


def lengths(host, count, rate, port):
    """Empty, longest and random datagrams, many of these of a length near a limit."""
    generator = random.Random(int(count))
    limits = [limit + near for limit in (1, 4, 16, 256, 1400, 4096, MAX_DATAGRAM - 1)
              for near in (-1, 0, 1)]

    def make(number):
        if number % 3 < 2:
            return bytes((number % 3) * MAX_DATAGRAM)
        return generator.randbytes(generator.choice((generator.choice(limits),
                                                     generator.randint(0, MAX_DATAGRAM))))
    _flood(_sockets(3), make, (host, int(port)), rate, count)


def discovery(host, count, rate):
    """Queries of both forms, and noise; says how many answers came to a query's own socket, in how
    many seconds, and how many to another."""
    words = (b"VelantrixQuery2", b"VelantrixQuery", b"VelantrixQuery3", b"\0" * 255,
             random.Random(int(count)).randbytes(300))
    asking, start = _sockets(len(words)), time.monotonic()
    _flood(asking, lambda i: words[i % len(words)], (host, DISCOVERY_PORT), rate, count)
    time.sleep(1)
    queries, *others = map(_count_waiting, asking)
    say(f"answers {queries} in {time.monotonic() - start:.1f} s, others {sum(others)}")


def _count_waiting(client):
    count = 0
    with contextlib.suppress(BlockingIOError):
        while client.recv(MAX_DATAGRAM):
            count += 1
    return count


def half_open(host, count):
    """Connections that are requested once and never acknowledged."""
    for number, end in enumerate(_sockets(int(count))):
        end.sendto(connect_datagram(number + 1, 0x80000001), (host, SERVER_PORT))
    say("ready")


def peers(host, count, data):
    """Connections that are kept. A line of input ends them in an orderly way."""
    held = connect_peers((host, SERVER_PORT), int(count), int(data))
    say(f"connected {len(held)}")
    while not _input_waits():
        for peer in held:
            peer.service()
        time.sleep(0.005)
    replaced = sum(1 for peer in held if peer.disconnect_data == 101)
    say(f"replaced {replaced}")
    if sys.stdin.readline():
        for peer in held:
            if peer.disconnect_data is None:
                peer.disconnect()


def control(host, rate, kind):
    """One connected client that sends control messages until a line of input comes, and hears
    nothing. It then goes on until it has sent so many a second on the average, or its time is over;
    another line makes it disconnect."""
    (peer,) = connect_peers((host, SERVER_PORT), 1, 0x80000001)
    say("ready")
    request = b"\1\0\0\0" + bytes(4) + b"\1\0\0\0" + bytes(4) + b"flood\0"
    commands = {"requests": lambda: peer.reliable(request),
                "unsequenced": lambda: peer.unsequenced_command(request),
                "empty": lambda: peer.unsequenced_command(b""),
                "packed": lambda: b"".join(peer.unsequenced_command(b"")
                                           for _ in range(COMMANDS_AT_ONCE)),
                "fragments": lambda: peer.fragment(sent, FRAGMENTED_MESSAGE)}[kind]
    rate, ends = float(rate), False
    sent, passed, start, next_one = 0, 0.0, time.monotonic(), None
    while not ends or sent < passed * rate and passed < PATIENCE:
        while sent < passed * rate * AHEAD:
            next_one = next_one or commands()
            if not peer.send(next_one):  # No room just now.
                break
            next_one = None
            sent += 1
        peer.service()
        time.sleep(0.001)
        ends = ends or _input_waits() and bool(sys.stdin.readline())
        passed = time.monotonic() - start
    say(f"sent {sent} in {passed:.3f} s")
    while not _input_waits():
        peer.service()
        time.sleep(0.005)
    if sys.stdin.readline():
        peer.disconnect()


def walk(host, seed, count, at_once, sharing):
    """Random strangers, see stranger.py, at low priority."""
    os.nice(5)
    _sockets(0)
    say("ready")
    start = time.monotonic()
    sent, answered = stranger.walk((host, SERVER_PORT), seed, int(count), int(at_once),
                                   int(sharing))
    say(f"sent {sent} datagrams by {count} strangers, {answered} of them answered, in "
        f"{time.monotonic() - start:.1f} s")


def _input_waits():
    return bool(select.select([sys.stdin], [], [], 0)[0])


def say(text):
    print(text, flush=True)


class Attacker(ModuleProcess):
    """An attack as a child process; leaving the context kills it."""

    def __init__(self, network, host, kind, *words):
        super().__init__("attacker", host, kind, *words, prefix=network.command(),
                         stdin=subprocess.PIPE)

    def wait_sent(self, timeout=600.0):
        """Waits for the end of a flood and returns its line."""
        line = self.out.wait_for(re.compile("^sent "), timeout=timeout)
        return self.out.all()[line]

    def stop_sending(self):
        """Waits for the end of a sender of messages; returns its line."""
        self.leave()
        return self.wait_sent()

    def leave(self):
        """Disconnects connected peers."""
        self.child.stdin.write("\n")
        self.child.stdin.flush()


if __name__ == "__main__":
    globals()[sys.argv[2]](sys.argv[1], *sys.argv[3:])
    sys.stdin.read()
