"""Strangers: hand-made peers that use ENet's commands, flags and states at random.

Each connects or tries to, performs some actions with some way to acknowledge, and leaves. All that it
chooses comes from a generator of random numbers; what it sends depends on the answers, too.
"""

import heapq
import random
import socket
import struct
import time

from support.enet_wire import (ACKNOWLEDGE, BANDWIDTH_LIMIT, COMMANDS_AT_ONCE, COMPRESSED_FLAG,
                               CONNECT, CONTROL_CHANNEL, DATA_LENGTH_AT, DISCONNECT, FIELDS,
                               NO_PEER, PING, SEND_FRAGMENT, SEND_RELIABLE, SEND_UNRELIABLE,
                               SEND_UNRELIABLE_FRAGMENT, SEND_UNSEQUENCED, SENT_TIME_FLAG,
                               THROTTLE_CONFIGURE, UNSEQUENCED, VERIFY_CONNECT, WANTS_ACKNOWLEDGE,
                               HandMadePeer, acknowledgement, command, connect_fields, mutate, now)
from support.probe import MULTI_CLIENT, control_message, data_request

LIFE = 60.0  # Seconds after which the server has disconnected a silent peer.
TIME_OUT = 36.0  # Seconds after which ENet disconnects a peer that has never acknowledged.
FRIENDS = 7
PEERS, SESSIONS = 32, 4  # Of the server: places, and numbers of the connections in each.
MAX_BYTES = 4096
EXTREMES = (0, 1, 2, 31, 32, 0xFF, 4095, 4096, 0x7FFF, 0x8000, 0xFFFF, 0x10000, 0xFFFFF, 0x100000,
            0x7FFFFFFF, 0xFFFFFFFF)
FLAGS = (0, WANTS_ACKNOWLEDGE, UNSEQUENCED, WANTS_ACKNOWLEDGE | UNSEQUENCED)


class Stranger(HandMadePeer):
    """One stranger. ``steps`` is its life: a generator of the seconds until its next step."""

    place = None  # Which of the places for those that share it has.

    def __init__(self, server, generator, shares):
        self.random = generator
        self.server = server
        self.data = generator.choice((0, 0, 1, 1, 7)) | (MULTI_CLIENT if shares else 0)
        self.connect_id = generator.getrandbits(32)
        self.datagrams = 0
        self.last_heard = (CONTROL_CHANNEL, 1, now())
        self.late, self.kept = [], []
        self.sloppy = generator.choice((0, 0, 0.02, 0.2))  # How often a header is not as it should.
        self.acknowledge = self.in_order
        super().__init__(server, self.data)
        self.steps = self.walk()

    def ask(self, data):
        """Requests data after a while."""

    # How it sends.

    def sometimes(self, share):
        return self.random.random() < share

    def send(self, commands, timed=None, peer=None):
        if peer is None:
            peer = NO_PEER if self.peer_id is None else self.peer_id
        word = peer | (self.session << 12 if peer != NO_PEER else 0)
        if self.sometimes(self.sloppy):
            word ^= self.random.choice((COMPRESSED_FLAG, 1 << 12, 2 << 12, 1, NO_PEER))
        if timed is None:
            timed = not self.sometimes(self.sloppy)
        head = (word | SENT_TIME_FLAG, now()) if timed else (word,)
        self.datagrams += 1
        return self.send_datagram((struct.pack(f"!{len(head)}H", *head) + commands)[:MAX_BYTES])

    def send_datagram(self, datagram):
        try:
            return super().send_datagram(datagram)
        except OSError:  # Nobody there any more, or no room.
            return False

    def connect(self):
        return command(CONNECT, CONTROL_CHANNEL, 1, *connect_fields(self.connect_id, self.data),
                       flags=WANTS_ACKNOWLEDGE)

    # Ways to acknowledge: what is sent for what was heard.

    def in_order(self, one):
        return [one]

    def never(self, one):
        return []

    def twice(self, one):
        return [one, one]

    def keep(self, one):
        self.kept.append(one)
        return []

    def some_time_later(self, one):
        self.late.append((time.monotonic() + self.random.uniform(0.2, 3), one))
        return []

    def for_what_was_sent_long_ago(self, one):
        channel, sequence, sent = one
        longest = 0x8000 + sent % 0x8000  # Milliseconds; longer ago is in the future for ENet.
        return [(channel, sequence, sent - self.random.randint(15000, longest) & 0xFFFF)]

    def with_odd_times(self, one):
        return [one[:2] + (self.random.getrandbits(16),)]

    def with_odd_numbers(self, one):
        return [(self.random.choice((one[0], 0, 1, 0xFF, 7)), self.odd(one[1], "H"), one[2])]

    def answer(self):
        due = time.monotonic()
        answers = [one for when, one in self.late if when <= due]
        self.late = [(when, one) for when, one in self.late if when > due]
        for wanted in self.heard():
            for one in wanted:
                self.last_heard = one
                answers += self.acknowledge(one)
        for first in range(0, len(answers), 32):
            if self.peer_id is not None:
                self.send(b"".join(acknowledgement(*one) for one in answers[first:first + 32]))

    # Actions: each sends something.

    def nothing(self):
        pass

    def what_a_client_does(self):
        kind = self.random.random()
        if kind < 0.05:
            self.ping()
        elif kind < 0.1:
            self.send(self.reliable(data_request(self.random.randrange(8), self.sometimes(0.5))))
        elif kind < 0.12:
            self.send(self.usual(self.random.choice((BANDWIDTH_LIMIT, THROTTLE_CONFIGURE))))

    def talk(self):
        self.send(self.random.choice((self.unsequenced_command, self.reliable))(self.message()))

    def one_of_each(self):
        self.send(b"".join(map(self.usual, self.random.sample(sorted(FIELDS), 12))))

    def anything(self):
        self.send(b"".join(self.odd_command() for _ in range(self.random.choice((1, 1, 1, 4, 20)))))

    def pack(self):
        """As many commands as fit, or a few less than are too many."""
        least = self.usual(self.random.choice((PING, SEND_UNSEQUENCED, ACKNOWLEDGE)))
        count = self.random.choice((COMMANDS_AT_ONCE, MAX_BYTES // len(least)))
        self.send(least * count)

    def look_ahead(self):
        """Commands far ahead of those that it has sent."""
        channel, shape = self.random.randrange(2), self.shape()
        ahead = self.sequences[channel] + self.random.choice((1, 60, 5000, 28000))
        kinds = (SEND_UNRELIABLE, SEND_RELIABLE, SEND_FRAGMENT, SEND_UNRELIABLE_FRAGMENT)
        kinds = self.random.choice((kinds, *((kind,) for kind in kinds)))
        self.send(b"".join(self.early(self.random.choice(kinds), channel,
                                      ahead + self.random.randint(0, 300), shape)
                           for _ in range(COMMANDS_AT_ONCE)))

    def begin_long_messages(self):
        """First pieces of messages, whose others never come."""
        kind, shape = self.random.choice((SEND_FRAGMENT, SEND_UNRELIABLE_FRAGMENT)), self.shape()
        self.send(b"".join(
            self.early(kind, 0, self.sequences[0] + self.random.randint(0, 2), shape)
            for _ in range(COMMANDS_AT_ONCE)))

    def send_again(self):
        if self.sent:
            self.send_datagram(self.random.choice(self.sent))

    def damage(self):
        known = [datagram for datagram in self.sent
                 if int.from_bytes(datagram[:2], "big") & NO_PEER != NO_PEER]
        if known:
            self.send_datagram(mutate(self.random, known))

    # The commands for these.

    def message(self):
        return self.random.choice((
            b"", data_request(self.random.randrange(8), self.sometimes(0.5)),
            control_message(self.random.randrange(6), self.random.getrandbits(32)),
            self.random.randbytes(self.random.choice((1, 16, 300, 1300)))))

    def shape(self):
        """Number and count of pieces, and length of a message and where in it the piece is."""
        count = self.random.choice((1, 2, 2, 17, 4096, 0xFFFFF, 0x100000))
        length = self.random.choice((1, 2, count, 16384, 1 << 20, 32 << 20))
        return count, self.random.randrange(count), length, self.random.choice((0, length - 1))

    def early(self, kind, channel, sequence, shape):
        """A short command with the number of one that was not sent yet."""
        sequence, other = sequence & 0xFFFF, self.random.getrandbits(16)
        if kind == SEND_RELIABLE:
            return command(kind, channel, sequence, 0, flags=WANTS_ACKNOWLEDGE)
        if kind == SEND_UNRELIABLE:
            return command(kind, channel, sequence, other, 0)
        if kind == SEND_FRAGMENT:
            return command(kind, channel, sequence, sequence, 1, *shape, flags=WANTS_ACKNOWLEDGE,
                           data=b"x")
        return command(kind, channel, sequence, other, 1, *shape, data=b"x")

    def usual(self, number):
        """A command with its data as a client may send it."""
        channel, sequence, sent = self.last_heard
        if number == SEND_RELIABLE:
            return self.reliable(self.message())
        if number == SEND_UNSEQUENCED:
            return self.unsequenced_command(self.message())
        data = self.message() if number in DATA_LENGTH_AT else b""
        fields = {ACKNOWLEDGE: (sequence, sent),
                  CONNECT: connect_fields(self.connect_id, self.data),
                  VERIFY_CONNECT: connect_fields(self.connect_id, 0)[:-1],
                  DISCONNECT: (0,), PING: (), BANDWIDTH_LIMIT: (0, 0),
                  SEND_UNRELIABLE: (self.random.getrandbits(16), len(data)),
                  THROTTLE_CONFIGURE: (5000, 2, 0)}.get(
                      number, (self.sequences[0] + 1 & 0xFFFF, len(data), 1, 0, len(data) or 1, 0))
        numbered = number == SEND_UNRELIABLE or number in (SEND_FRAGMENT, SEND_UNRELIABLE_FRAGMENT)
        return command(number, 0 if numbered else channel, self.sequences[0] if numbered else 1,
                       *fields, flags=WANTS_ACKNOWLEDGE if number != ACKNOWLEDGE else 0, data=data)

    def odd(self, value, kind):
        bits = 8 * struct.calcsize("!" + kind)
        odd = self.random.choice((value, value, value + 1, value - 1, self.random.choice(EXTREMES),
                                  self.random.getrandbits(bits)))
        return odd & (1 << bits) - 1

    def odd_command(self):
        """Any command, some of its fields changed."""
        number = self.random.randrange(16)
        if number not in FIELDS:
            return bytes([number | self.random.choice(FLAGS)]) + self.random.randbytes(
                self.random.randrange(40))
        kinds = "BBH" + FIELDS[number]
        usual = self.usual(number)
        fields = list(struct.unpack_from("!" + kinds, usual))
        data = usual[struct.calcsize("!" + kinds):]
        fields[0] = number | self.random.choice(FLAGS)
        for place in range(1, len(kinds)):
            if self.sometimes(0.2):
                fields[place] = self.odd(fields[place], kinds[place])
        if number == CONNECT:  # Whoever shares takes a place from those who hear.
            fields[-2:] = self.connect_id, fields[-1] & ~MULTI_CLIENT | self.data & MULTI_CLIENT
        return struct.pack("!" + kinds, *fields) + data

    # Its life.

    def walk(self):
        yield from self.arrive()
        for _ in range(self.random.randint(0, 4)):
            yield from self.phase(self.random.uniform(0.3, 4))
        self.acknowledge = self.random.choice((self.in_order, self.acknowledge))
        yield from self.random.choice((
            self.vanish, self.talk_until_given_up, self.say_good_bye, self.say_good_bye,
            self.say_good_bye, self.pose_as_a_server, self.come_back, self.break_silence))()
        yield from self.phase(self.random.uniform(0, 2), self.never)  # As one that is gone.

    def arrive(self):
        """Runs until it is connected or has failed; a few are never answered, or leave at once."""
        if self.sometimes(0.1):
            self.send(self.connect() + self.usual(DISCONNECT), peer=NO_PEER)
        self.acknowledge = self.random.choice((self.in_order,) * 6 + (
            self.never, self.with_odd_times, self.with_odd_numbers,
            self.for_what_was_sent_long_ago))
        end = time.monotonic() + self.random.uniform(1, 8)
        hurry = self.random.choice((1, 1, 20))
        while self.peer_id is None and time.monotonic() < end:
            self.send(self.odd_command() if self.sometimes(0.1) else self.connect(), peer=NO_PEER)
            for _ in range(hurry):
                yield 0.005
                self.answer()
                if self.peer_id is not None:
                    break
        if self.peer_id is not None and self.sometimes(0.7):
            yield 0.02
            self.send(self.reliable(data_request(self.random.randrange(8), self.sometimes(0.5))))

    def phase(self, seconds, acknowledge=None, does=None):
        """Some seconds of one action, again and again."""
        self.acknowledge = acknowledge or self.random.choice((
            self.in_order, self.in_order, self.in_order, self.never, self.twice,
            self.some_time_later, self.for_what_was_sent_long_ago, self.with_odd_times,
            self.with_odd_numbers))
        does = does or self.random.choice((
            self.nothing, self.what_a_client_does, self.what_a_client_does, self.talk,
            self.one_of_each, self.anything, self.anything, self.pack, self.look_ahead,
            self.begin_long_messages, self.send_again, self.damage))
        pace = self.random.choice((0.002, 0.01, 0.05, 0.3))
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.answer()
            does()
            yield pace

    # Ways to leave.

    def vanish(self):
        """Without notice, or after answers that make round trips look long."""
        if self.sometimes(0.5):
            yield from self.phase(3, self.for_what_was_sent_long_ago, self.nothing)

    def talk_until_given_up(self):
        end = time.monotonic() + TIME_OUT
        while self.peer_id is not None and time.monotonic() < end and self.disconnect_data is None:
            for _ in self.heard():
                pass
            self.talk()
            yield 0.005

    def break_silence(self):
        """Makes the server believe that answers take long, and then that they do not; keeps silent;
        acknowledges the oldest when what was sent after it is overdue, in the same moment as it and
        its friends say something; and comes back."""
        friends = [Stranger(self.server, self.random, False) for _ in range(FRIENDS)]
        for friend in friends:
            friend.data, friend.sloppy = 0, 0
            yield from friend.arrive()
            friend.acknowledge = friend.in_order

        def wait():
            for friend in friends:
                friend.answer()
        yield from self.phase(3, self.for_what_was_sent_long_ago, wait)
        yield from self.phase(1, self.keep, wait)
        for _ in range(4):
            self.send(acknowledgement(CONTROL_CHANNEL, 0, self.last_heard[2]) * 32)
        yield from self.phase(self.random.choice((self.random.uniform(1, 30), 35)), self.keep, wait)
        for friend in friends:
            friend.talk()
        for one in self.kept[:self.random.randint(1, 3)]:
            self.send(acknowledgement(*one) + self.usual(SEND_UNSEQUENCED))
        yield 0.004
        yield from self.come_back()
        for friend in friends:
            friend.socket.close()

    def say_good_bye(self):
        timed, before = self.sometimes(0.5), self.sometimes(0.2)
        flags, count = self.random.choice(FLAGS), self.random.choice((1, 1, 3, 40))
        word = command(DISCONNECT, CONTROL_CHANNEL, self.random.choice((0, 2)), 0, flags=flags)
        if before:
            word = self.usual(SEND_UNSEQUENCED) + word
        if self.sometimes(0.2):
            word += self.odd_command() + self.usual(SEND_RELIABLE) + self.usual(PING)
        for _ in range(self.random.choice((1, 1, 3))):
            self.answer()
            self.send(word * count, timed=timed)
            yield 0.03

    def pose_as_a_server(self):
        for _ in range(20):
            self.answer()
            self.send(self.usual(VERIFY_CONNECT))
            yield 0.1

    def come_back(self):
        """Another connection from the same port, or the same one once more."""
        if not self.data & MULTI_CLIENT:
            self.connect_id = self.random.getrandbits(32)
        self.peer_id = None
        yield from self.arrive()
        yield from self.phase(self.random.uniform(0.3, 2))
        if self.sometimes(0.5):
            yield from self.say_good_bye()


class Forger(Stranger):
    """Walks with an address that does not answer, or cannot be answered. It does not learn
    its peer's number, and tries all."""

    SENDERS = (("10.77.0.2", 0), ("10.77.0.77", 4077), ("10.77.0.255", 4077),
               ("198.51.100.9", 4077), ("10.77.0.1", 59010), ("127.0.0.1", 59011))

    def __init__(self, server, generator):
        super().__init__(server, generator, shares=False)
        self.sender, self.port = generator.choice(self.SENDERS)
        self.socket.close()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)

    def send_datagram(self, datagram):
        head = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 28 + len(datagram), 0, 0, 64,
                           socket.IPPROTO_UDP, 0, socket.inet_aton(self.sender),
                           socket.inet_aton(self.server[0]))
        ports = struct.pack("!HHHH", self.port, self.server[1], 8 + len(datagram), 0)
        try:
            return self.socket.sendto(head + ports + datagram, self.server) > 0
        except OSError:  # No room.
            return False

    def heard(self):
        return iter(())

    def guess(self):
        self.peer_id, self.session = self.random.randrange(PEERS), self.random.randrange(SESSIONS)

    def walk(self):
        self.send(self.connect(), peer=NO_PEER)
        yield 0.1
        words = acknowledgement(CONTROL_CHANNEL, 1, 0) + self.reliable(
            data_request(self.random.randrange(8), self.sometimes(0.5)))
        for self.peer_id in range(PEERS):
            for self.session in range(SESSIONS):
                self.send(words)
            yield 0.002
        end = time.monotonic() + self.random.uniform(0, 5)
        while time.monotonic() < end:
            self.guess()
            self.random.choice((self.anything, self.talk, self.ping))()
            yield 0.005


def walk(server, seed, count, at_once, sharing):
    """Runs ``count`` strangers, ``at_once`` of them together, ``sharing`` of these as clients
    that share the server with others. Returns how many datagrams they sent and how many had been
    answered."""
    generator = random.Random(seed)
    datagrams = answered = born = 0
    living, free_at = [], [0.0] * sharing
    while living or born < count:
        while born < count and len(living) < at_once:
            place = min(range(sharing), key=free_at.__getitem__)
            own = random.Random(f"{seed} {born}")
            if own.random() < 0.05:
                stranger = Forger(server, own)
            else:
                shares = generator.random() < 0.3 and free_at[place] < time.monotonic()
                stranger = Stranger(server, own, shares)
                if shares:
                    stranger.place, free_at[place] = place, float("inf")
            heapq.heappush(living, (time.monotonic(), born, stranger))
            born += 1
        due, number, stranger = living[0]
        time.sleep(max(0.0, due - time.monotonic()))
        pause = next(stranger.steps, None)
        if pause is not None:
            heapq.heapreplace(living, (max(due + pause, time.monotonic()), number, stranger))
            continue
        heapq.heappop(living)
        stranger.socket.close()
        datagrams += stranger.datagrams
        answered += stranger.peer_id is not None
        if stranger.place is not None:
            free_at[stranger.place] = time.monotonic() + LIFE
    return datagrams, answered
