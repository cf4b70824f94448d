"""Private networks for tests and benchmarks, so that no packet leaves the machine."""

import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys

from support.processes import die_with_parent

MARK = "VELANTRIX_PRIVATE_NETWORK"
OWN_MOUNTS = "VELANTRIX_OWN_MOUNTS"
DISCOVERY_GROUP = "231.232.233.235"

HERE_ADDRESS = "10.77.0.1"
THERE_ADDRESS = "10.77.0.2"


def _fail(text):
    sys.exit(f"{os.path.basename(sys.argv[0])}: {text}")


def _unshare_command():
    """How this user makes a network namespace, with a mount namespace if possible, or None."""
    for options in ["-nm"], ["-rnm"], ["-n"], ["-rn"]:
        command = ["unshare", *options, "--"]
        if shutil.which("unshare") and subprocess.run(
                command + ["true"], stderr=subprocess.DEVNULL).returncode == 0:
            return command
    return None


def enter_private_network():
    """Runs this program again in a new network namespace, and returns inside it.

    The namespace has the loopback interface only, with a route for the discovery group, and shared
    memory of its own. Ends the program when the system does not let this user make one.
    """
    if "/usr/sbin" not in os.environ["PATH"]:
        os.environ["PATH"] += ":/usr/sbin:/sbin"
    if os.environ.get(MARK) != "1":
        command = _unshare_command()
        if command is None:
            _fail("cannot make a private network namespace (unshare -n as root, unshare -rn as an "
                  "ordinary user); the tests never run on a real network")
        environment = dict(os.environ, **{MARK: "1", OWN_MOUNTS: "1" if "m" in command[1] else "0"})
        os.execvpe(command[0], command + [sys.executable, *sys.orig_argv[1:]], environment)
    del os.environ[MARK]
    interfaces = set(_interfaces())
    if interfaces != {"lo"}:
        _fail(f"{MARK} is set, but this is no private network: {sorted(interfaces)}")
    ip("link", "set", "lo", "up")
    ip("route", "replace", f"{DISCOVERY_GROUP}/32", "dev", "lo")
    _hide_shared_memory()


def _hide_shared_memory():
    """Mounts an empty /dev/shm where that is allowed.

    JACK's library, which the sound libraries try, keeps a database there for all programs of a
    user: one that is killed while it holds a lock makes every later start hang.
    """
    if os.environ.pop(OWN_MOUNTS, None) != "1":
        return
    mount = subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/dev/shm"],
                           check=False)
    if mount.returncode != 0:
        print("the shared memory of this system is used", file=sys.stderr)


def _interfaces():
    with open("/proc/self/net/dev", encoding="ascii") as table:
        return [line.split(":")[0].strip() for line in table if ":" in line]


def ip(*arguments, there=None):
    """Runs iproute2's ``ip`` here, or inside the other network ``there``."""
    prefix = there.command() if there else []
    subprocess.run([*prefix, "ip", *arguments], check=True)


def discovery_group_joined():
    """Whether some socket of this network has joined the discovery group."""
    group = f"{int.from_bytes(socket.inet_aton(DISCOVERY_GROUP), 'little'):08X}"
    with open("/proc/self/net/igmp", encoding="ascii") as memberships:
        return group in memberships.read()


class OtherNetwork:
    """A second network namespace, joined to this one by a cable (a veth pair).

    This side is ``vxhere`` with HERE_ADDRESS, the other ``vxthere`` with THERE_ADDRESS, both
    in one /24. The discovery group is routed over the cable on the other side. Programs run
    there with ``command() + [...]``. A context manager: the namespace goes with its holder.
    """

    def __enter__(self):
        self.holder = subprocess.Popen(
            ["unshare", "-n", "--", "sh", "-c", "echo; exec sleep infinity"],
            stdout=subprocess.PIPE, preexec_fn=die_with_parent)
        self.holder.stdout.readline()  # The namespace exists once its shell has printed a line.
        ip("link", "add", "vxhere", "type", "veth", "peer", "name", "vxthere", "netns",
           str(self.holder.pid))
        ip("addr", "add", f"{HERE_ADDRESS}/24", "dev", "vxhere")
        ip("link", "set", "vxhere", "up")
        ip("link", "set", "lo", "up", there=self)
        ip("addr", "add", f"{THERE_ADDRESS}/24", "dev", "vxthere", there=self)
        ip("link", "set", "vxthere", "up", there=self)
        ip("route", "add", f"{DISCOVERY_GROUP}/32", "dev", "vxthere", there=self)
        return self

    def __exit__(self, *_):
        self.holder.send_signal(signal.SIGKILL)
        self.holder.wait()
        self.holder.stdout.close()
        subprocess.run(["ip", "link", "del", "vxhere"], stderr=subprocess.DEVNULL)

    def command(self):
        """The prefix of a command that runs in the other network."""
        return ["nsenter", "-t", str(self.holder.pid), "-n", "--"]

    def add_neighbours(self, count):
        """Gives the other side this many more addresses; returns those of this side that each of them
        reaches, a net for each. This side's kernel forgets a neighbour that does not answer within 3 s
        instead of up to a minute."""
        settings = pathlib.Path("/proc/sys/net/ipv4/neigh/vxhere")
        for name, value in (("base_reachable_time_ms", 500), ("delay_first_probe_time", 1),
                            ("ucast_solicit", 1)):
            (settings / name).write_text(str(value), encoding="ascii")
        for net in range(1, count + 1):
            ip("addr", "add", f"10.77.{net}.1/24", "dev", "vxhere")
            ip("addr", "add", f"10.77.{net}.2/24", "dev", "vxthere", there=self)
        return [f"10.77.{net}.1" for net in range(1, count + 1)]

    def vanish(self):
        """Takes all addresses from the other side, as if it had left a wireless network: the cable
        stays, but nobody answers for them any more. Once forgotten, what is sent there waits until the
        kernel has asked for them in vain for 3 s."""
        ip("addr", "flush", "dev", "vxthere", there=self)

    def receive_on_cable(self):
        """Joins this side's multicast to the cable instead of the loopback interface."""
        ip("route", "replace", f"{DISCOVERY_GROUP}/32", "dev", "vxhere")
