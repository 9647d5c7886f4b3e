"""What has happened, in the form in which the page gets it: a list of records that only grows at its end.

Records are plain objects. "e": an entry of the time line, with its number "i", time "t" (seconds since the start), lane, title
and body. "done": what became of entry "i": how long it took, its reply or error. "sig": signals of networks, by address.
"sta": the station's state. "deed": something that a person did, and the line that does it again.
"""

from __future__ import annotations

import asyncio
import time
from typing import Any

KEEP = 300_000
"""Records that are kept; the oldest go first. A day of a busy device; a browser holds as many without effort."""

LANES = ("world", "dbus", "log", "command", "unit", "hostapd", "wpa", "address")
"""The lanes of the time line, from the top."""


class Recording:
    """The records of one run. All functions are for the loop's thread."""

    def __init__(self, keep: int = KEEP) -> None:
        self.begun = time.monotonic()
        self.started = time.time()
        self._keep = keep
        self._records: list[dict[str, Any]] = []
        self._forgotten = 0
        self._entries = 0
        self._changed = asyncio.Event()

    def entry(
        self, lane: str, title: str, body: dict[str, Any], *, what: str, level: str = "info", when: float | None = None
    ) -> int:
        """Add an entry; returns its number."""
        number = self._entries
        self._entries += 1
        self._add(
            {
                "k": "e",
                "i": number,
                "t": self.time(when),
                "lane": lane,
                "what": what,
                "title": title,
                "level": level,
                "body": body,
            }
        )
        return number

    def done(self, number: int, began: float, *, reply: Any = None, error: dict[str, str] | None = None) -> None:
        """Say what has become of an entry, a call for instance."""
        self._add({"k": "done", "i": number, "d": round(time.monotonic() - began, 6), "reply": reply, "error": error})

    def signals(self, values: dict[str, int | None], names: dict[str, str]) -> None:
        """Signals that have changed, in dBm, by address; None for a network that is gone. `names` are those of new ones."""
        self._add({"k": "sig", "t": self.time(), "v": values, "n": names})

    def deed(self, when: float, text: str, line: str, *, world: bool) -> None:
        """Something was done to the world, or else to the device, and can be repeated with this line."""
        self._add({"k": "deed", "t": when, "text": text, "line": line, "world": world})

    def station(self, state: str) -> None:
        """The station's new state."""
        self._add({"k": "sta", "t": self.time(), "state": state})

    def time(self, when: float | None = None) -> float:
        """Seconds since the start."""
        return round(max((time.monotonic() if when is None else when) - self.begun, 0.0), 6)

    def since(self, position: int, most: int) -> tuple[list[dict[str, Any]], int, int]:
        """Up to so many records from the position on, the position after them, and how many had been forgotten before."""
        lost = max(self._forgotten - position, 0)
        start = max(position - self._forgotten, 0)
        found = self._records[start : start + most]
        return found, self._forgotten + start + len(found), lost

    def poke(self) -> None:
        """Wake those who wait."""
        self._changed.set()
        self._changed = asyncio.Event()

    async def wait(self, timeout: float) -> None:
        """Return when something is new, or the time is over."""
        try:
            await asyncio.wait_for(self._changed.wait(), timeout)
        except asyncio.TimeoutError:
            pass

    def _add(self, record: dict[str, Any]) -> None:
        self._records.append(record)
        if len(self._records) > self._keep + self._keep // 10:
            gone = len(self._records) - self._keep
            del self._records[:gone]
            self._forgotten += gone
        self.poke()
