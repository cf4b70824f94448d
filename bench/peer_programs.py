"""The programs that are compared, and how each is started: by default and for a short delay.

A `Peer` says what runs on the sending side and what each client runs. The commands here are those
that are measured and shown.
"""

import contextlib
import dataclasses
import shlex
import subprocess

from peer_sound import PipeWireServer, PulseServer
from support.network import HERE_ADDRESS
from support.processes import Process, die_with_parent
from support.sound import NULL_SINK, clean_environment
from watch import ProcessMeter

GROUP = "239.77.0.1"
SIMPLE_PORT = 4711


@dataclasses.dataclass
class Peer:
    """One program in one setting.

    `sender` and `client` are command lines, or words for `pactl` when they begin with
    "load-module"; "{home}" is a private folder, "{number}" the client's number. `source_modules`
    and `listener_modules` are for PipeWire's configuration, the latter once for each client. Not
    `for_many`: what many clients cost the sender is the same as in another setting.
    """

    program: str
    sound: str
    setting: str
    packages: tuple
    sender: str = ""
    client: str = ""
    source_modules: str = ""
    listener_modules: str = ""
    for_many: bool = True
    sink: str = NULL_SINK
    pipewire: bool = False

    @property
    def name(self):
        return f"{self.program}, {self.sound}, {self.setting}"

    def shown(self, side):
        """The command of "sender" or "client" as a reader would type it."""
        modules = self.source_modules if side == "sender" else self.listener_modules
        if modules:
            return modules
        command = getattr(self, side).format(home=".", number=1)
        return f"pactl {command}" if command.startswith("load-module") else command


def velantrix(sound, setting, words="", **more):
    return Peer("Velantrix Server", sound, setting, (), "VelantrixServer -nogui",
                f"velantrix-listen {HERE_ADDRESS} --quiet{words}", **more)


def snapcast(sound, setting, words="", player="", **more):
    return Peer("Snapcast", sound, setting, ("snapserver", "snapclient"),
                "snapserver --config=/dev/null --stream.source='alsa:///?name=default&device=default'"
                f" --server.datadir={{home}}{words}",
                f"snapclient -h {HERE_ADDRESS} -i {{number}} --hostID client{{number}}{player}",
                **more)


def simple_protocol(setting, words="", **more):
    return Peer("simple protocol", "raw", setting, ("pulseaudio", "netcat-openbsd"),
                f"load-module module-simple-protocol-tcp record=true playback=false "
                f"source={NULL_SINK}.monitor rate=48000 format=s16le channels=2 port={SIMPLE_PORT}",
                f"nc {HERE_ADDRESS} {SIMPLE_PORT} | pacat --raw --format=s16le --channels=2 "
                f"--rate=48000{words}", **more)


def pulse_rtp(sound, setting, send="", receive="", **more):
    return Peer("PulseAudio RTP", sound, setting, ("pulseaudio",),
                f"load-module module-rtp-send source={NULL_SINK}.monitor{send}",
                f"load-module module-rtp-recv sink={NULL_SINK}{receive}", **more)


def trx(setting, send="", receive="", **more):
    return Peer("trx", "Opus 128", setting, ("trx",), f"trx-tx -h {GROUP}{send}",
                f"trx-rx -h {GROUP}{receive}", **more)


def pipewire_rtp(setting, send="", receive="", **more):
    return Peer("PipeWire RTP", "raw", setting, ("pipewire", "wireplumber", "pipewire-pulse"),
                source_modules="{ name = libpipewire-module-rtp-sink args = {" + send + " } }",
                listener_modules="{ name = libpipewire-module-rtp-source args = {" + receive + " } }",
                sink="rtp-sink", pipewire=True, **more)


DEFAULT, SHORT = "default", "short delay"
PEERS = [
    velantrix("raw", DEFAULT),
    velantrix("raw", SHORT, " --buffer 10", for_many=False),
    velantrix("Opus 128", DEFAULT, " --rate 128"),
    snapcast("FLAC", DEFAULT),
    snapcast("raw", DEFAULT, " --stream.codec=pcm"),
    snapcast("Opus", DEFAULT, " --stream.codec=opus"),
    snapcast("raw", SHORT, " --stream.codec=pcm --stream.chunk_ms=10 --stream.buffer=100",
             " --player pulse:buffer_time=20", for_many=False),
    simple_protocol(DEFAULT),
    simple_protocol(SHORT, " --latency-msec=20", for_many=False),
    pulse_rtp("raw", DEFAULT),
    pulse_rtp("raw", SHORT, receive=" latency_msec=20", for_many=False),
    pulse_rtp("Opus", DEFAULT, " enable_opus=true"),
    trx(DEFAULT),
    trx(SHORT, " -f 240", for_many=False),
    pipewire_rtp(DEFAULT),
    pipewire_rtp(SHORT, receive=" sess.latency.msec = 20", for_many=False),
]

IDLE = [Peer("no sender", "PulseAudio", "", ()), Peer("no sender", "PipeWire", "", (), pipewire=True)]


@contextlib.contextmanager
def piped(command, environment):
    """A program whose standard output another one reads."""
    with subprocess.Popen(command, env=environment, stdout=subprocess.PIPE,
                          preexec_fn=die_with_parent) as program:
        yield program
        program.kill()


def versions():
    """The packages of the compared programs and of the sound servers."""
    return list(dict.fromkeys(package for peer in PEERS for package in peer.packages))


class Session:
    """A peer that streams from one network to `clients` in another. A context manager.

    `source` and `listener` are the sound servers of the two sides.
    """

    def __init__(self, peer, clients, other, build):
        self.peer = peer
        self.clients = clients
        self.other = other
        self.build = build
        self.stack = contextlib.ExitStack()
        self.senders = []

    def __enter__(self):
        try:
            self._start_sound()
        except BaseException:
            self.stack.close()
            raise
        return self

    def __exit__(self, *_):
        self.stack.close()

    def _start_sound(self):
        prefix = self.other.command()
        if self.peer.pipewire:
            source = PipeWireServer(self.peer.source_modules)
            listener = PipeWireServer("\n".join([self.peer.listener_modules] * self.clients), prefix)
        else:
            source, listener = PulseServer(), PulseServer(prefix)
        self.source = self.stack.enter_context(source)
        self.listener = self.stack.enter_context(listener)

    def start_streaming(self):
        if self.peer.sender:
            self.senders = self._start(self.peer.sender, self.source, ())
        for number in range(1, self.clients + 1):
            if self.peer.client:
                self._start(self.peer.client, self.listener, self.other.command(), number)

    def _start(self, command, sound, prefix, number=0):
        words = shlex.split(command.format(home=sound.home, number=number))
        if words[0] == "load-module":
            sound.load(*words[1:])
            return []
        if words[0].lower().startswith("velantrix"):
            words[0] = f"{self.build}/{words[0]}"
        environment = dict(clean_environment(), **sound.env)
        stdin = subprocess.DEVNULL
        if "|" in words:
            bar = words.index("|")
            feed = self.stack.enter_context(piped([*prefix, *words[:bar]], environment))
            stdin, words = feed.stdout, words[bar + 1:]
        return [self.stack.enter_context(Process([*prefix, *words], environment, stdin=stdin))]

    def playing(self):
        """The number of clients that play."""
        return self.listener.playing()

    def sound_server_pids(self):
        return [*self.source.pids(), *self.listener.pids()]

    def meters(self):
        """Of the programs that only this peer needs, and of the sound server that it takes from."""
        return ([ProcessMeter(sender.pid) for sender in self.senders],
                [ProcessMeter(pid) for pid in self.source.pids()])
