"""The one totally ordered record of what the daemon did to the world.

Every entry has a kind and named fields; tests describe what they expect with patterns of the same shape:

    journal.wait_for(log("info", "[Main] Starting Vantora Network service"))
    journal.expect_in_order([command("rfkill unblock wlan"), call("Start", path=UNIT), changed("Mode", "Host")])

A field of a pattern may be a value (equal), a compiled regular expression (matches somewhere in the text) or a function.
"""

from __future__ import annotations

import re
import threading
import time
from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from typing import Any

DEADLINE = 20.0
"""Seconds that a wait lasts before it fails. Generous: a loaded machine must not fail a test."""


@dataclass(frozen=True)
class Entry:
    """One thing that happened. The fields of its kind can be read as attributes: `entry.text`, `entry.argv`, ..."""

    index: int
    kind: str
    fields: dict[str, Any] = field(hash=False)
    when: float = field(default_factory=time.monotonic, compare=False)
    """When it was written down, by the monotonic clock."""

    def __getattr__(self, name: str) -> Any:
        try:
            return self.fields[name]
        except KeyError:
            raise AttributeError(f"a {self.kind} entry has no {name!r}, only {', '.join(self.fields)}") from None

    def __str__(self) -> str:
        return f"{self.index:5d}  {self.kind:8s} {_describe(self.kind, self.fields)}"


@dataclass(frozen=True)
class Pattern:
    """What an entry is expected to be: its kind, and a condition for each field that matters."""

    kind: str
    conditions: dict[str, Any] = field(hash=False)

    def matches(self, entry: Entry) -> bool:
        """Whether the entry is of this kind and every condition holds."""
        if entry.kind != self.kind:
            return False
        return all(
            name in entry.fields and _holds(condition, entry.fields[name]) for name, condition in self.conditions.items()
        )

    def __str__(self) -> str:
        conditions = ", ".join(f"{name}={condition!r}" for name, condition in self.conditions.items())
        return f"{self.kind}({conditions})"


def _holds(condition: Any, value: Any) -> bool:
    if isinstance(condition, re.Pattern):
        return isinstance(value, str) and condition.search(value) is not None
    if callable(condition):
        return bool(condition(value))
    return bool(condition == value)


def _pattern(kind: str, **conditions: Any) -> Pattern:
    return Pattern(kind, {name: condition for name, condition in conditions.items() if condition is not ...})


def log(priority: Any = ..., text: Any = ..., **more: Any) -> Pattern:
    """A line of syslog: priority "err", "warning", "info", "debug", ...; the whole text. Further: ident, pid."""
    return _pattern("log", priority=priority, text=text, **more)


def command(line: Any = ..., **more: Any) -> Pattern:
    """A shell tool that was run, as one line ("rfkill unblock wlan"). Further: argv (a list)."""
    return _pattern("command", line=line, **more)


def call(member: Any = ..., *args: Any, **more: Any) -> Pattern:
    """A D-Bus call that reached a fake. Positional: member, then its arguments, all of them, if any is given.

    Further: bus ("system" or "user"), destination, path, interface, signature, args (a list).
    """
    if args:
        more["args"] = list(args)
    return _pattern("call", member=member, **more)


def changed(name: Any = ..., value: Any = ..., **more: Any) -> Pattern:
    """A PropertiesChanged of the daemon that carries this one property with this value (plain Python)."""
    return _pattern("changed", name=name, value=value, **more)


def signal(member: Any = ..., *body: Any, **more: Any) -> Pattern:
    """Any other signal of the daemon. Positional: member, then the whole body if given. Further: path, interface, signature."""
    if body:
        more["body"] = list(body)
    return _pattern("signal", member=member, **more)


def notify(text: Any = ...) -> Pattern:
    """A message to the service manager, for instance "READY=1"."""
    return _pattern("notify", text=text)


def hostapd_request(request: Any = ...) -> Pattern:
    """A command on hostapd's control socket, for instance "ATTACH" or "STA-FIRST"."""
    return _pattern("hostapd", request=request)


def exited(program: Any = ..., status: Any = ...) -> Pattern:
    """A program started in the sandbox ended: its name, and its exit status (minus the signal number if killed)."""
    return _pattern("exit", program=program, status=status)


def _describe(kind: str, fields: dict[str, Any]) -> str:
    match kind:
        case "log":
            return f"{fields['priority']:7s} {fields['text']!r}"
        case "command":
            return str(fields["line"])
        case "call":
            return (
                f"{fields['bus']} {fields['destination']} {fields['path']} "
                f"{fields['interface']}.{fields['member']} {fields['signature']} {fields['args']!r}"
            )
        case "changed":
            return f"{fields['name']} = {fields['value']!r}"
    return " ".join(f"{name}={value!r}" for name, value in fields.items())


class Journal:
    """The ordered list of entries; safe to read from any thread while the world writes it."""

    def __init__(self, keep: int | None = None) -> None:
        """With `keep`, only about so many of the last entries are kept: for a world that lives for days."""
        self._keep = keep
        self._entries: list[Entry] = []
        self._forgotten = 0
        self._condition = threading.Condition()

    def add(self, kind: str, **fields: Any) -> Entry:
        """Append an entry (called by the world)."""
        with self._condition:
            entry = Entry(self._end(), kind, fields)
            self._entries.append(entry)
            if self._keep is not None and len(self._entries) > 2 * self._keep:
                superfluous = len(self._entries) - self._keep
                self._forgotten += superfluous
                del self._entries[:superfluous]
            self._condition.notify_all()
            return entry

    def poke(self) -> None:
        """Make every waiter look again: something other than the journal has changed (called by the world)."""
        with self._condition:
            self._condition.notify_all()

    def mark(self) -> int:
        """Now, to be given to the other functions as `since`."""
        with self._condition:
            return self._end()

    def since(self, mark: int = 0) -> list[Entry]:
        """All entries from the mark on."""
        with self._condition:
            return self._entries[max(mark - self._forgotten, 0) :]

    def _end(self) -> int:
        return self._forgotten + len(self._entries)

    def find(self, pattern: Pattern, since: int = 0) -> list[Entry]:
        """All entries from the mark on that match."""
        return [entry for entry in self.since(since) if pattern.matches(entry)]

    def count(self, pattern: Pattern, since: int = 0) -> int:
        """How many entries from the mark on match."""
        return len(self.find(pattern, since))

    def logs(self, since: int = 0, **conditions: Any) -> list[tuple[str, str]]:
        """The syslog lines from the mark on as (priority, text), in order; `ident="..."` narrows to one program."""
        return [(entry.priority, entry.text) for entry in self.find(log(**conditions), since)]

    def commands(self, since: int = 0) -> list[str]:
        """The lines of the tools run from the mark on, in order."""
        return [entry.line for entry in self.find(command(), since)]

    def changes(self, since: int = 0) -> list[tuple[str, Any]]:
        """The properties announced from the mark on as (name, value), in order."""
        return [(entry.name, entry.value) for entry in self.find(changed(), since)]

    def wait_for(self, pattern: Pattern, since: int = 0, timeout: float = DEADLINE) -> Entry:
        """Wait until an entry from the mark on matches; return the first that does."""
        position = since

        def look() -> Entry | None:
            nonlocal position
            for entry in self.since(position):
                position = entry.index + 1
                if pattern.matches(entry):
                    return entry
            return None

        return self.wait_until(look, str(pattern), timeout, since)

    def wait_until(self, condition: Callable[[], Any], what: str, timeout: float = DEADLINE, since: int = 0) -> Any:
        """Wait until the condition, looked at again after every change of the world, yields something true."""
        deadline = time.monotonic() + timeout
        with self._condition:
            while True:
                found = condition()
                if found:
                    return found
                left = deadline - time.monotonic()
                if left <= 0 or not self._condition.wait(left):
                    found = condition()
                    if found:
                        return found
                    raise AssertionError(f"waited {timeout:g} s in vain for {what}\n{self.dump(since)}")

    def follow(self, mark: int, timeout: float) -> list[Entry]:
        """The entries from the mark on as soon as there are any; none when the time is over."""
        with self._condition:
            if self._end() <= mark:
                self._condition.wait(timeout)
            return self.since(mark)

    def expect_in_order(self, patterns: Iterable[Pattern], since: int = 0, timeout: float = DEADLINE) -> list[Entry]:
        """Wait until all patterns have matched one after the other; other entries may stand between them."""
        found: list[Entry] = []
        start = since
        for pattern in patterns:
            try:
                entry = self.wait_for(pattern, start, timeout)
            except AssertionError as error:
                before = "\n".join(f"    {entry}" for entry in found) or "    (nothing)"
                raise AssertionError(f"found in order so far:\n{before}\nbut then {error}") from None
            found.append(entry)
            start = entry.index + 1
        return found

    def expect_logs_in_order(self, lines: Iterable[tuple[str, str]], since: int = 0, timeout: float = DEADLINE) -> list[Entry]:
        """Wait until these lines of syslog, (priority, text), have come with no other line of syslog between them."""
        expected = list(lines)

        def look() -> list[Entry] | None:
            entries = [entry for entry in self.since(since) if entry.kind == "log"]
            texts = [(entry.priority, entry.text) for entry in entries]
            for start in range(len(texts) - len(expected) + 1):
                if texts[start : start + len(expected)] == expected:
                    return entries[start : start + len(expected)]
            return None

        what = "these log lines, one directly after the other:\n" + "\n".join(f"    {line!r}" for line in expected)
        found: list[Entry] = self.wait_until(look, what, timeout, since)
        return found

    def dump(self, since: int = 0, last: int = 120) -> str:
        """The tail of the journal as readable text."""
        entries = self.since(since)
        head = [f"journal ({len(entries)} entries since {since}):"]
        if len(entries) > last:
            head.append(f"  ... {len(entries) - last} earlier entries left out")
        return "\n".join(head + [str(entry) for entry in entries[-last:]])
