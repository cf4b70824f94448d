"""Scripted clients of the server, and the packets they receive."""

import array
import pathlib
import re
import struct
import subprocess

from support.harness import (DEFAULT_PORT, PATIENCE, Process, Server, SoundServer, SystemTest,
                             clean_environment, fake, wait_until)

MSGID_AUDIO, MSGID_DATA, MSGID_FASTER, MSGID_SLOWER = range(4)
FLAG_RELIABLE, FLAG_ALT_RATE = 1, 2
MULTI_CLIENT = 0x80000000
DISCONNECT_REPLACED = 101
HEADER_BYTES = 16
RAW_PACKET_BYTES = 1368
FALLBACK_BYTES = 1936


def control_message(message_id, flags=0, name=b""):
    """The bytes of a control message; ``name`` contains its terminator."""
    return struct.pack("<IIII", message_id, 0, flags, 0) + name


def data_request(rate_code=0, reliable=True, name="probe"):
    flags = (FLAG_RELIABLE if reliable else 0) | rate_code << 6
    return control_message(MSGID_DATA, flags, name.encode() + b"\0")


class Packet:
    """One received packet: arrival in ms of the probe's clock, header fields, payload."""

    def __init__(self, arrival, data):
        self.arrival = arrival
        self.length = len(data)
        self.message_id, self.seq, self.flags, self.reserved = struct.unpack_from("<IIII", data)
        self.payload = data[HEADER_BYTES:]

    @property
    def rate_code(self):
        return self.flags >> 6 & 7


def are_in_order(packets):
    return all(before.seq < after.seq for before, after in zip(packets, packets[1:]))


def samples_of(packets):
    """The samples of raw packets, concatenated."""
    samples = array.array("h")
    for packet in packets:
        samples.frombytes(packet.payload)
    return samples


def sequence_gaps(packets):
    """How many sequence numbers are missing, repeated or out of order."""
    return sum(1 for before, after in zip(packets, packets[1:])
               if after.seq != (before.seq + 1) & 0xFFFFFFFF)


def wait_packets_of_all(clients, count):
    """Waits until each client has this many more packets; returns all packets of each."""
    already = [len(client.packets()) for client in clients]
    for client, before in zip(clients, already):
        wait_until(lambda: client.statistics()["packets"] >= before + count,
                   f"{count} more packets for {client.name}")
    return [client.packets() for client in clients]


class Client:
    """One client of a Probe; see its ``connect``."""

    def __init__(self, probe, name, path):
        self.probe = probe
        self.name = name
        self.path = path
        self.start = probe.out.count()

    def wait_connected(self):
        """Returns the client's local UDP port."""
        line = self.probe.out.wait_for(
            re.compile(rf"^connected {self.name} port (\d+)$"), self.start)
        return int(self.probe.out.all()[line].split()[-1])

    def is_connected(self):
        return any(line.startswith(f"connected {self.name} ")
                   for line in self.probe.out.all()[self.start:])

    def wait_disconnected(self, timeout=PATIENCE):
        """Returns the disconnect data."""
        line = self.probe.out.wait_for(
            re.compile(rf"^disconnected {self.name} data (\d+)$"), self.start, timeout)
        return int(self.probe.out.all()[line].split()[-1])

    def is_disconnected(self):
        return any(line.startswith(f"disconnected {self.name} ")
                   for line in self.probe.out.all()[self.start:])

    def send(self, data, channel=0, reliable=True):
        kind = "reliable" if reliable else "unreliable"
        self.probe.command(f"send {self.name} {channel} {kind} {data.hex() or '-'}")

    def request(self, rate_code=0, reliable=True, name=None):
        self.send(data_request(rate_code, reliable, name or self.name))

    def disconnect(self, data=0):
        self.probe.command(f"disconnect {self.name} {data}")

    def vanish(self):
        self.probe.command(f"vanish {self.name}")

    def stall(self):
        self.probe.command(f"stall {self.name}")

    def resume(self):
        self.probe.command(f"resume {self.name}")

    def refuse_thinning(self):
        """Switches off ENet's throttle: from now on a missing best-effort packet was lost."""
        self.probe.command(f"keep {self.name}")

    def statistics(self):
        """The counts as a dictionary; ``fragments`` and ``largest`` count for the whole probe."""
        start = self.probe.out.count()
        self.probe.command(f"statistics {self.name}")
        line = self.probe.out.wait_for(re.compile(rf"^statistics {self.name} "), start)
        words = self.probe.out.all()[line].split()[2:]
        return dict(zip(words[::2], map(int, words[1::2])))

    def packets(self):
        """Every whole packet received until now."""
        data = self.path.read_bytes()
        packets, at = [], 0
        while at + 8 <= len(data):
            arrival, length = struct.unpack_from("<II", data, at)
            at += 8
            if at + length > len(data):
                break
            if length >= HEADER_BYTES:
                packets.append(Packet(arrival, data[at:at + length]))
            at += length
        return packets

    def wait_packets(self, count):
        """Waits for this many more packets; returns all."""
        return wait_packets_of_all([self], count)[0]


class Probe(Process):
    """The probe program: any number of clients in one process."""

    def __init__(self, folder, prefix=()):
        self.folder = pathlib.Path(folder)
        self.names = 0
        super().__init__([*prefix, fake("enet_probe")], clean_environment(), name="enet_probe",
                         stdin=subprocess.PIPE)

    def command(self, line):
        """Sends a command and waits until it is executed."""
        start = self.out.count()
        self.child.stdin.write(line + "\n")
        self.child.stdin.flush()
        done = self.out.wait_for("done", start)
        errors = [text for text in self.out.all()[start:done] if text.startswith("error")]
        if errors:
            raise AssertionError(f"{line[:80]}: {errors}")

    def connect(self, version=1, multi=True, host="127.0.0.1", port=DEFAULT_PORT, mtu=0,
                local_port=0, data=None, wait=True):
        """Connects a new client; ``data`` overrides version and multi."""
        self.names += 1
        name = f"c{self.names}"
        path = self.folder / f"{name}.packets"
        client = Client(self, name, path)
        if data is None:
            data = version | (MULTI_CLIENT if multi else 0)
        self.command(f"connect {name} {host} {port} {data} {path} {mtu} {local_port}")
        if wait:
            client.wait_connected()
        return client

    def listen(self, rate_code=0, reliable=True, thinned=True, **options):
        """Connects a new client and waits until it receives; see connect. With `thinned` false ENet
        does not throttle."""
        client = self.connect(**options)
        if not thinned:
            client.refuse_thinning()
        client.request(rate_code, reliable)
        client.wait_packets(20)
        return client


class StreamingTest(SystemTest):
    """A test with a sound server, a server that captures silence from it, and a probe."""

    def setUp(self):
        super().setUp()
        self.sound = self.enterContext(SoundServer())
        self.server = self.enterContext(Server(sound=self.sound, rate=48000))
        self.probe = self.enterContext(Probe(self.folder))
        self.server.wait_for_capture()
