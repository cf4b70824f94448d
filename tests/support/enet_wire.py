"""ENet's datagrams made and read by hand: for peers that break the rules of the real library."""

import os
import select
import socket
import struct
import threading
import time

(ACKNOWLEDGE, CONNECT, VERIFY_CONNECT, DISCONNECT, PING, SEND_RELIABLE, SEND_UNRELIABLE,
 SEND_FRAGMENT, SEND_UNSEQUENCED, BANDWIDTH_LIMIT, THROTTLE_CONFIGURE,
 SEND_UNRELIABLE_FRAGMENT) = range(1, 13)
COMMAND_MASK = 0x0F
WANTS_ACKNOWLEDGE = 0x80
UNSEQUENCED = 0x40
SENT_TIME_FLAG = 0x8000
COMPRESSED_FLAG = 0x4000
NO_PEER = 0x0FFF
CONTROL_CHANNEL = 0xFF

# The fields behind the four bytes that all commands begin with.
FIELDS = {ACKNOWLEDGE: "HH", CONNECT: "HBBIIIIIIIIII", VERIFY_CONNECT: "HBBIIIIIIIII",
          DISCONNECT: "I", PING: "", SEND_RELIABLE: "H", SEND_UNRELIABLE: "HH",
          SEND_FRAGMENT: "HHIIII", SEND_UNSEQUENCED: "HH", BANDWIDTH_LIMIT: "II",
          THROTTLE_CONFIGURE: "III", SEND_UNRELIABLE_FRAGMENT: "HHIIII"}
SIZES = {number: struct.calcsize("!BBH" + fields) for number, fields in FIELDS.items()}
DATA_LENGTH_AT = {SEND_RELIABLE: 4, SEND_UNRELIABLE: 6, SEND_FRAGMENT: 6, SEND_UNSEQUENCED: 6,
                  SEND_UNRELIABLE_FRAGMENT: 6}

COMMANDS_AT_ONCE = 64  # The server reads no longer datagram.
FRAGMENT_BYTES = 1000
KEPT_DATAGRAMS = 200


def now():
    return int(time.monotonic() * 1000) & 0xFFFF


def command(number, channel, sequence, *fields, flags=0, data=b""):
    """The bytes of one command."""
    return struct.pack("!BBH" + FIELDS[number], number | flags, channel, sequence, *fields) + data


def acknowledgement(channel, sequence, sent_time):
    return command(ACKNOWLEDGE, channel, 0, sequence, sent_time)


def connect_fields(connect_id, data, mtu=1400, window=65536):
    return 0, 0xFF, 0xFF, mtu, window, 2, 0, 0, 5000, 2, 2, connect_id, data


def connect_datagram(connect_id, data):
    """A whole datagram that asks for a connection."""
    return struct.pack("!HH", NO_PEER | SENT_TIME_FLAG, now()) + command(
        CONNECT, CONTROL_CHANNEL, 1, *connect_fields(connect_id, data), flags=WANTS_ACKNOWLEDGE)


def commands_of(datagram):
    """The commands of a datagram that a server sent: (number, channel, sequence, sent time, flags,
    bytes)."""
    (peer,) = struct.unpack_from("!H", datagram)
    sent_time, at = 0, 2
    if peer & SENT_TIME_FLAG:
        (sent_time,) = struct.unpack_from("!H", datagram, 2)
        at = 4
    while at + 4 <= len(datagram):
        flags, channel, sequence = struct.unpack_from("!BBH", datagram, at)
        number = flags & COMMAND_MASK
        size = SIZES.get(number)
        if size is None or at + size > len(datagram):
            return
        yield number, channel, sequence, sent_time, flags, datagram[at:at + size]
        if number in DATA_LENGTH_AT:
            size += struct.unpack_from("!H", datagram, at + DATA_LENGTH_AT[number])[0]
        at += size


class HandMadePeer:
    """One hand-made connection, which keeps only the rules that its owner needs.

    ``service`` acknowledges what has come. Connected once ``peer_id`` is known; ``sent`` keeps the
    first datagrams.
    """

    session = 0

    def __init__(self, server, data, source=None):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        if source is not None:
            self.socket.bind(source)
        self.socket.connect(server)
        self.socket.setblocking(False)
        self.peer_id = None
        self.disconnect_data = None
        self.sequences = [0, 0]
        self.unsequenced = 0
        self.ping_sequence = 1
        self.audio_datagrams = 0
        self.sent = []
        self.ask(data)

    def ask(self, data):
        self.send_datagram(connect_datagram(int.from_bytes(os.urandom(4), "big"), data))

    def send(self, commands):
        """False when there was no room for it."""
        return self.send_datagram(struct.pack(
            "!HH", self.peer_id | self.session << 12 | SENT_TIME_FLAG, now()) + commands)

    def send_datagram(self, datagram):
        try:
            self.socket.send(datagram)
            if len(self.sent) < KEPT_DATAGRAMS:
                self.sent.append(datagram)
        except (BlockingIOError, ConnectionRefusedError):
            return False
        return True

    def heard(self):
        """Received commands to acknowledge, a list of (channel, sequence, sent time) for
        each datagram."""
        while True:
            try:
                datagram = self.socket.recv(65536)
            except (BlockingIOError, ConnectionRefusedError):
                return
            wanted = []
            for number, channel, sequence, sent_time, flags, body in commands_of(datagram):
                if number == VERIFY_CONNECT:
                    self.peer_id, self.session = struct.unpack_from("!HxB", body, 4)
                elif number == DISCONNECT:
                    (self.disconnect_data,) = struct.unpack_from("!I", body, 4)
                elif number >= SEND_RELIABLE:
                    self.audio_datagrams += 1
                if flags & WANTS_ACKNOWLEDGE:
                    wanted.append((channel, sequence, sent_time))
            yield wanted

    def service(self):
        for wanted in self.heard():
            if wanted and self.peer_id is not None:
                self.send(b"".join(acknowledgement(*one) for one in wanted))

    def reliable(self, data, channel=0):
        """The bytes of one reliable command."""
        self.sequences[channel] = self.sequences[channel] + 1 & 0xFFFF
        return command(SEND_RELIABLE, channel, self.sequences[channel], len(data),
                       flags=WANTS_ACKNOWLEDGE, data=data)

    def unsequenced_command(self, data, channel=0):
        self.unsequenced = self.unsequenced + 1 & 0xFFFF
        return command(SEND_UNSEQUENCED, channel, 0, self.unsequenced, len(data),
                       flags=UNSEQUENCED, data=data)

    def fragment(self, number, total_length):
        """One piece of a message of ``total_length`` bytes."""
        data = bytes(FRAGMENT_BYTES)
        count = (total_length + len(data) - 1) // len(data)
        return command(SEND_FRAGMENT, 0, 1 + number, 1, len(data), count, number, total_length,
                       number * len(data), flags=WANTS_ACKNOWLEDGE, data=data)

    def ping(self):
        self.ping_sequence = self.ping_sequence + 1 & 0xFFFF
        self.send(command(PING, CONTROL_CHANNEL, self.ping_sequence, flags=WANTS_ACKNOWLEDGE))

    def disconnect(self):
        """Disconnects, more than once because no answer is awaited."""
        for _ in range(3):
            self.send(command(DISCONNECT, CONTROL_CHANNEL, 0, 0, flags=UNSEQUENCED))
            time.sleep(0.1)
        self.socket.close()


def connect_peers(server, count, data, timeout=20.0):
    """So many connected peers; those for which there is no room in time are left out."""
    peers = [HandMadePeer(server, data) for _ in range(count)]
    end = time.monotonic() + timeout
    while time.monotonic() < end and any(peer.peer_id is None for peer in peers):
        for peer in peers:
            peer.service()
        time.sleep(0.005)
    for peer in peers:
        if peer.peer_id is None:
            peer.socket.close()
    return [peer for peer in peers if peer.peer_id is not None]


def mutate(generator, datagrams):
    """One of ``datagrams`` with some bytes changed, cut, repeated or put together with another."""
    data = bytearray(generator.choice(datagrams))
    kind = generator.randrange(6)
    if kind == 0:
        data = data[:generator.randint(0, len(data))]
    elif kind == 1:
        data += generator.choice(datagrams)[4:]
    elif kind == 2:
        at = generator.randint(0, len(data))
        data[at:at] = generator.randbytes(generator.randint(1, 60))
    elif kind == 3 and len(data) > 8:
        at = generator.randrange(len(data) - 3)
        data[at:at + 4] = generator.choice((b"\0\0\0\0", b"\xff\xff\xff\xff", b"\x7f\xff\xff\xff"))
    for _ in range(generator.randint(0 if kind < 4 else 1, 6)):
        if data:
            data[generator.randrange(len(data))] ^= 1 << generator.randrange(8)
    return bytes(data[:4096])


class Recorder:
    """Passes datagrams between one client and the server, and keeps those of the client.

    A context manager; the client connects to ``port`` on this machine. ``change_port`` gives the
    client another port as the server sees it, as a router between the two may do.
    """

    def __init__(self, server):
        self.server = server
        self.datagrams = []
        self.ends = False

    def __enter__(self):
        self.near = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.near.bind(("127.0.0.1", 0))
        self.port = self.near.getsockname()[1]
        self.far = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.far.connect(self.server)
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ends = True
        self.thread.join()
        self.near.close()
        self.far.close()

    def change_port(self):
        old, new = self.far, socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        new.connect(self.server)
        self.far = new
        time.sleep(0.3)  # Longer than the other thread's look at the old one.
        old.close()

    def _run(self):
        client = None
        while not self.ends:
            far = self.far
            ready, _, _ = select.select([self.near, far], [], [], 0.1)
            if self.near in ready:
                data, client = self.near.recvfrom(65536)
                self.datagrams.append(data)
                far.send(data)
            if far in ready:
                self.near.sendto(far.recv(65536), client)


def flood(sockets, make_datagram, target, rate, count):
    """Makes ``count`` datagrams, about ``rate`` a second; returns how many could be sent, and the
    seconds it took."""
    start = time.monotonic()
    sent = refused = 0
    while sent < count:
        due = min(count, int((time.monotonic() - start) * rate) + 1)
        while sent < due:
            try:
                sockets[sent % len(sockets)].sendto(make_datagram(sent), target)
            except OSError:  # No room just now, or nobody there: the next one.
                refused += 1
            sent += 1
        time.sleep(0.001)
    return count - refused, time.monotonic() - start

