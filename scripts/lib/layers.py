"""Fails when a file of the programs includes one that its layer may not know.

Usage: layers.py   (scripts/check layers runs it)

A room may include itself, common/ and what its line names. A path names a file, else a folder
with all below it; the longest that fits decides. The CMake files link the libraries in the same
order.
"""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
CORE = ("app/base", "stream", "audio", "stream/network_host", "discovery", "gui/Settings", "update")
SMALL = tuple(f"listen/{name}" for name in ("background", "clock", "retry_pause", "stop_request",
                                            "utf8"))
GROUND = ("stream/wire_format", *SMALL)
# The library vx_receive, which receives, finds and decodes.
RECEIVE = (*GROUND, "listen/network", "listen/audio", "listen/find_server")
WEB_SMALL = ("web/channel", "web/local_addresses", "web/log", "web/options", "web/packet")
ROOMS = {
    "common": (),
    "app/base": (),
    "stream": ("app/base",),
    "audio": ("app/base", "stream"),
    "stream/network_host": ("app/base", "stream", "audio"),
    "gui/Settings": (),
    "discovery": ("app/base", "stream/wire_format"),
    "update": ("app/base", "gui/Settings"),
    "app": CORE,
    "gui": ("app", *CORE),
    "app/main": ("app", "gui", *CORE),
    **{name: () for name in SMALL},
    "listen/network": GROUND,
    "listen/find_server": ("listen/network", *GROUND),
    "listen/audio": ("listen/network", *GROUND),
    "listen/playout": RECEIVE,
    "listen/device/playback": ("listen/playout",),
    "listen/device": ("listen/device/playback", "listen/playout", *RECEIVE),
    "listen/sinks": RECEIVE,
    "listen/options": ("listen/playout", *RECEIVE),
    "listen/console": ("listen/options", "listen/device/playback", *RECEIVE),
    "listen": ("listen/playout", "listen/device", "listen/sinks", "listen/options",
               "listen/console", *RECEIVE),
    "web/page": (),
    "web/streams": RECEIVE,
    **{name: ("web/streams", *WEB_SMALL, *RECEIVE) for name in WEB_SMALL},
    "web/upstream": ("web/streams", *WEB_SMALL, *RECEIVE),
    "web/http": ("web/page", "web/upstream", *WEB_SMALL, *RECEIVE),
    "web": ("web/streams", "web/upstream", "web/http", *WEB_SMALL, *RECEIVE),
}
# "wire_format" is a room for those who may include nothing else of stream/.
FILES_OF_THEIR_OWN = {"stream/wire_format": ()}


def room_of(path):
    """The room of a source path without its ending."""
    rooms = (*ROOMS, *FILES_OF_THEIR_OWN)
    fitting = [room for room in rooms if path == room or path.startswith(room + "/")]
    return max(fitting, key=len, default=None)


def main():
    wrong = []
    folders = {room.partition("/")[0] for room in ROOMS}
    for file in sorted(path for folder in folders for path in (ROOT / folder).rglob("*.[ch]*")):
        room = room_of(str(file.relative_to(ROOT).with_suffix("")))
        allowed = ROOMS.get(room, ())
        for line in file.read_text(encoding="utf-8").splitlines():
            found = re.match(r'#include "([\w/]+)\.h"', line)
            other = room_of(found[1]) if found else None
            if other and other not in (room, "common", *allowed) and not (
                    other in FILES_OF_THEIR_OWN and other.split("/")[0] in (room, *allowed)):
                wrong.append(f"{file.relative_to(ROOT)} may not include {found[1]}.h")
    if wrong:
        sys.exit("\n".join(wrong))


if __name__ == "__main__":
    main()
