"""What the machine tells as it happens: its journal, and the signals on its user bus."""

from __future__ import annotations

import json
import socket
import threading
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

from .deadline import EVENT, Deadline

PRIORITIES = ("emerg", "alert", "crit", "err", "warning", "notice", "info", "debug")


@dataclass(frozen=True)
class Event:
    """One line of the stream."""

    fields: dict[str, Any]

    @property
    def message(self) -> str:
        """The text of a journal entry."""
        text = self.fields.get("MESSAGE", "")
        return text if isinstance(text, str) else bytes(text or b"").decode(errors="replace")

    @property
    def priority(self) -> str:
        """The priority of a journal entry, as a word."""
        return PRIORITIES[int(self.fields.get("PRIORITY", 6))]

    @property
    def unit(self) -> str:
        """The unit that wrote a journal entry, or the one that systemd writes about."""
        return str(self.fields.get("UNIT") or self.fields.get("_SYSTEMD_UNIT") or "")

    @property
    def seconds(self) -> float:
        """When a journal entry was written: seconds since the machine's start, by its own clock."""
        return int(self.fields["__MONOTONIC_TIMESTAMP"]) / 1e6

    def __str__(self) -> str:
        if "__MONOTONIC_TIMESTAMP" in self.fields:
            return f"{self.seconds:9.3f} {self.fields.get('SYSLOG_IDENTIFIER', '?')} {self.priority}: {self.message}"
        return signal_text(self.fields)


def plain(value: Any) -> Any:
    """A D-Bus value as busctl writes it, without the types."""
    if isinstance(value, dict) and set(value) == {"type", "data"}:
        return plain(value["data"])
    if isinstance(value, dict):
        return {key: plain(entry) for key, entry in value.items()}
    if isinstance(value, list):
        return [plain(entry) for entry in value]
    return value


def signal_text(fields: dict[str, Any]) -> str:
    """A signal on one line."""
    return f"{fields.get('path')} {fields.get('member')} {json.dumps(plain(fields.get('payload')), ensure_ascii=False)}"


Match = Callable[[Event], bool]


def log(text: str, *, priority: str | None = None) -> Match:
    """Matches a line that the daemon logged, whole."""
    return lambda event: (
        event.fields.get("SYSLOG_IDENTIFIER") == "vantora-network"
        and event.message == text
        and priority in (None, event.priority)
    )


def unit_log(unit: str, part: str) -> Match:
    """Matches an entry of a unit, or of systemd about it, that holds a text."""
    return lambda event: event.unit == unit and part in event.message


class Stream:
    """Collects the lines of one stream in a thread of its own and lets others wait for them."""

    def __init__(self, name: str, line: socket.socket) -> None:
        self.name = name
        self._line = line
        self._events: list[Event] = []
        self._changed = threading.Condition()
        self._ended = False
        threading.Thread(target=self._collect, name=name, daemon=True).start()

    def _collect(self) -> None:
        rest = b""
        try:
            while part := self._line.recv(1 << 16):
                *lines, rest = (rest + part).split(b"\n")
                with self._changed:
                    for text in lines:
                        try:
                            self._events.append(Event(json.loads(text)))
                        except ValueError:
                            continue  # the tail of a line that began before the machine was saved
                    self._changed.notify_all()
        except OSError:
            pass
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    @property
    def position(self) -> int:
        """How much has arrived."""
        with self._changed:
            return len(self._events)

    def since(self, position: int = 0) -> list[Event]:
        """Everything after a position."""
        with self._changed:
            return self._events[position:]

    def count(self, match: Match, *, since: int = 0) -> int:
        """How many match after a position."""
        return sum(match(event) for event in self.since(since))

    def wait_for(self, match: Match, *, since: int = 0, seconds: float = EVENT, what: str = "") -> Event:
        """The first that matches after a position, waited for."""
        return self.wait_for_position(match, since=since, seconds=seconds, what=what)[1]

    def wait_for_position(self, match: Match, *, since: int, seconds: float = EVENT, what: str = "") -> tuple[int, Event]:
        """The same, with its position."""
        deadline = Deadline(seconds)
        position = since
        with self._changed:
            while True:
                while position < len(self._events):
                    if match(self._events[position]):
                        return position, self._events[position]
                    position += 1
                if self._ended or deadline.over:
                    tail = "\n".join(str(event) for event in self._events[since:][-60:])
                    raise AssertionError(f"{self.name}: no {what or 'such event'} within {seconds:.0f} s; since then:\n{tail}")
                self._changed.wait(deadline.left)
