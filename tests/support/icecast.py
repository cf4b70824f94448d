"""icecast2 on the loopback interface."""

import os

from support.processes import NOT_ROOT, Process, wait_until

SECRET = "kept-to-ourselves"
MOUNT = "/velantrix.ogg"

CONFIGURATION = """<icecast>
  <limits><clients>2000</clients><sources>2</sources><burst-size>{burst}</burst-size></limits>
  <authentication>
    <source-password>{secret}</source-password>
    <admin-user>admin</admin-user><admin-password>{secret}</admin-password>
  </authentication>
  <hostname>127.0.0.1</hostname>
  <master-update-interval>1</master-update-interval>
  <listen-socket><port>{port}</port><bind-address>127.0.0.1</bind-address></listen-socket>
  {relay}
  <paths>
    <basedir>{folder}</basedir><logdir>{folder}</logdir>
    <webroot>/usr/share/icecast2/web</webroot><adminroot>/usr/share/icecast2/admin</adminroot>
  </paths>
  <logging><accesslog>access.log</accesslog><errorlog>error.log</errorlog><loglevel>3</loglevel></logging>
</icecast>
"""
RELAY = """<relay>
    <server>127.0.0.1</server><port>{port}</port><mount>{mount}</mount>
    <local-mount>{mount}</local-mount><on-demand>0</on-demand>
  </relay>"""
READY = ("No SSL capability", "YP update thread started")
"""In its log, in any order. A connection before both may crash it, although the port is open."""


class Icecast(Process):
    """A private icecast2. A new listener gets ``burst`` bytes at once."""

    def __init__(self, folder, port, relayed_port=None, burst=65535):
        folder.mkdir(exist_ok=True)
        folder.chmod(0o777)
        relay = RELAY.format(port=relayed_port, mount=MOUNT) if relayed_port else ""
        (folder / "icecast.xml").write_text(CONFIGURATION.format(
            secret=SECRET, port=port, relay=relay, folder=folder, burst=burst))
        super().__init__([*(NOT_ROOT if os.geteuid() == 0 else []), "icecast2", "-c",
                          folder / "icecast.xml"], None, name=f"icecast2 {folder.name}")
        self.address = f"http://127.0.0.1:{port}{MOUNT}"
        log = folder / "error.log"
        wait_until(lambda: log.exists() and all(line in log.read_text() for line in READY),
                   f"{self.name} is ready")
