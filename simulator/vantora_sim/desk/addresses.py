"""The addresses and cables of the device's interfaces, as the kernel tells them."""

from __future__ import annotations

import asyncio
import re
from collections.abc import Callable

from ..sandbox import Process
from ..world import World
from .recording import Recording

_LOOK = 0.1
_ADDRESS = re.compile(r"(Deleted )?\d+: (\S+)\s+inet (\S+)")
_LINK = re.compile(r"\d+: ([^:@ ]+)[@:][^<]*<([^>]*)>")
INTERFACES = ("wlan0", "eth0")


class Addresses:
    """Follows them from the start of a world on. All functions are for the loop."""

    def __init__(self, world: World, recording: Recording, changed: Callable[[], None]) -> None:
        self._world = world
        self._recording = recording
        self._changed = changed
        self._monitor: Process | None = None
        self._rest = b""
        self._position = 0
        self.of: dict[str, list[str]] = {name: [] for name in INTERFACES}
        self.cable = False
        """Whether eth0 has a carrier."""

    def start(self) -> None:
        """Have the kernel's messages written down. Not for the loop's thread."""
        self._monitor = self._world.sandbox.start(["/usr/sbin/ip", "-o", "monitor", "link", "address"])

    async def follow(self) -> None:
        """Take up what is written down, for ever."""
        while self._monitor is not None:
            new = self._monitor.stdout_since(self._position)
            self._position += len(new)
            *lines, self._rest = (self._rest + new).split(b"\n")
            for line in lines:
                self._take(line.decode(errors="replace"))
            await asyncio.sleep(_LOOK)

    def _take(self, line: str) -> None:
        address, link = _ADDRESS.match(line), _LINK.match(line)
        if address is not None and address[2] in INTERFACES:
            known = self.of[address[2]]
            gone = bool(address[1])
            if gone and address[3] in known:
                known.remove(address[3])
            elif not gone and address[3] not in known:
                known.append(address[3])
            self._recording.entry(
                "address",
                f"{address[2]} {'loses' if gone else 'has'} {address[3]}",
                {"interface": address[2], "address": address[3], "present": not gone, "line": line},
                what="address",
                level="warning" if gone else "info",
            )
            self._changed()
        elif link is not None and link[1] == "eth0":
            plugged = "LOWER_UP" in link[2].split(",")
            if plugged != self.cable:
                self.cable = plugged
                self._recording.entry(
                    "address",
                    f"eth0: cable {'plugged' if plugged else 'unplugged'}",
                    {"interface": "eth0", "flags": link[2], "line": line},
                    what="link",
                )
                self._changed()
