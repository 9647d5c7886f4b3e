"""System calls, messages and processes, counted by strace.

A program's own calls are counted, and those of its children up to the program that they become; what that program does is
its own affair. What comes by the clock is left out: the turns of the loop that only serve its timer, and a listener's turns in which
nothing came.
"""

from __future__ import annotations

import re
from collections import Counter
from collections.abc import Iterable
from dataclasses import dataclass, field

from .counts import Counts

OPTIONS = ("-f", "-xx", "-s", "64", "--quiet=attach,exit,personality,thread-execve")

_LINE = re.compile(r"^(?P<pid>\d+)\s+(?P<call>\w+)\((?P<arguments>.*)\)\s+= (?P<result>.*)$")
_BEGUN = re.compile(r"^(?P<pid>\d+)\s+(?P<call>\w+)\((?P<arguments>.*?)\s*<unfinished \.\.\.>$")
_RESUMED = re.compile(r"^(?P<pid>\d+)\s+<\.\.\. (?P<call>\w+) resumed>(?P<rest>.*)$")
_HEX = re.compile(r'"((?:\\x[0-9a-f]{2})*)"')

_FORKS = {"clone", "clone3", "fork", "vfork"}
_WAITS = {"epoll_wait", "poll", "select", "pselect6", "wait4", "waitid"}
_LISTENING = {"pselect6", "select", "poll", "ppoll"}
_PEERS = {"bus/system": "system bus", "user/": "user bus", "/dev/log": "log", "hostapd": "hostapd", "tool": "tool"}


@dataclass
class Call:
    """One system call."""

    pid: int
    name: str
    arguments: str
    result: str
    is_message: bool = False
    may_sleep: bool = False

    @property
    def value(self) -> int:
        """What it returned."""
        match = re.match(r"-?\d+", self.result)
        return int(match[0]) if match else -1

    @property
    def fd(self) -> int:
        """Its first argument."""
        match = re.match(r"\d+", self.arguments)
        return int(match[0]) if match else -1

    @property
    def data(self) -> bytes:
        """The first bytes that it carried."""
        match = _HEX.search(self.arguments)
        return bytes.fromhex(match[1].replace("\\x", "")) if match else b""


@dataclass
class Window:
    """What was seen of a program in a while."""

    turns: list[list[Call]] = field(default_factory=list)
    children: list[Call] = field(default_factory=list)
    processes: int = 0
    traffic: Counter[str] = field(default_factory=Counter)


class Trace:
    """Reads what strace writes of one program, piece by piece."""

    def __init__(self) -> None:
        self._begun: dict[int, tuple[str, str]] = {}
        self._seen: set[int] = set()  # threads whose new thread or child has been seen before the call returned
        self._main: int | None = None
        self._threads: set[int] = set()
        self._children: set[int] = set()  # until they become a program
        self._others: set[int] = set()
        self._peers: dict[int, str] = {}
        self._pipes: set[int] = set()
        self._timers: set[int] = set()
        self._turn: dict[int, list[Call]] = {}

    def window(self, lines: Iterable[str]) -> Window:
        """The next lines; those of a call that has not returned yet count when it does."""
        window = Window()
        for line in lines:
            call = self._parse(line)
            if call is not None:
                self._take(call, window)
        return window

    def counts(self, window: Window) -> Counts:
        """The numbers of a window."""
        counts: Counter[str] = Counter()
        for turn in window.turns:
            calls = self._without_clock(turn)
            for number, call in enumerate(calls):
                counts[f"calls.{call.name}"] += 1
                # What a loop has been woken for is there already; every other message is an answer that is waited for.
                awaited = number > 0 and call.is_message and call.name == "recvmsg"
                counts["waits"] += call.may_sleep or awaited
        for call in window.children:
            counts[f"child.{call.name}"] += 1
        counts["processes"] = window.processes
        counts.update(window.traffic)
        return dict(counts)

    def _parse(self, line: str) -> Call | None:
        if match := _BEGUN.match(line):
            self._begun[int(match["pid"])] = (match["call"], match["arguments"])
            self._classify(int(match["pid"]))
            return None
        if match := _RESUMED.match(line):
            name, arguments = self._begun.pop(int(match["pid"]), (match["call"], ""))
            line = f"{match['pid']} {name}({arguments}{match['rest']}"
        match = _LINE.match(line)
        if match is None:
            return None  # a signal, an end
        self._classify(int(match["pid"]))
        return Call(int(match["pid"]), match["call"], match["arguments"], match["result"])

    def _classify(self, pid: int) -> None:
        """Who somebody new is: the call that makes a thread or a child has usually not returned when it is first seen."""
        if self._main is None:
            self._main = pid
            self._threads.add(pid)
        if pid in self._threads | self._children | self._others:
            return
        for maker, (name, arguments) in self._begun.items():
            if maker in self._threads and name in _FORKS and maker not in self._seen:
                self._seen.add(maker)
                (self._threads if "CLONE_THREAD" in arguments else self._children).add(pid)
                return
        self._others.add(pid)

    def _take(self, call: Call, window: Window) -> None:
        if call.name in _FORKS and call.value > 0:
            if "CLONE_THREAD" in call.arguments:
                self._threads.add(call.value)
            else:
                window.processes += 1
                if call.pid in self._threads - self._seen:
                    self._children.add(call.value)
            self._seen.discard(call.pid)
        if call.pid in self._children:
            window.children.append(call)
            if call.name == "execve" and call.value == 0:
                self._children.remove(call.pid)
                self._others.add(call.pid)
        if call.name == "exit_group":
            # Its number may be given to somebody else.
            self._children.discard(call.pid)
            self._others.discard(call.pid)
        if call.pid not in self._threads or _is_chance(call):
            return
        call.is_message = self._is_message(call)
        call.may_sleep = self._may_sleep(call)
        self._count_traffic(call, window)
        self._follow(call)
        turn = self._turn.setdefault(call.pid, [])
        turn.append(call)
        if call.name == "epoll_wait" or (call.pid != self._main and call.name in _LISTENING):
            window.turns.append(turn)
            self._turn[call.pid] = []

    def rest(self, window: Window) -> Window:
        """A window with what is left of turns that have not ended: for programs that are over."""
        window.turns.extend(self._turn.values())
        self._turn = {}
        return window

    def _follow(self, call: Call) -> None:
        """Which descriptor is what."""
        if call.name == "connect" and call.value in (0, -1):
            path = call.data.decode(errors="replace").lstrip("\0")
            self._peers[call.fd] = next((peer for part, peer in _PEERS.items() if part in path), path)
        elif call.name == "close":
            for known in (self._pipes, self._timers):
                known.discard(call.fd)
            self._peers.pop(call.fd, None)
        elif call.name == "pipe2":
            self._pipes.update(int(number) for number in re.findall(r"\d+", call.arguments.split("]")[0]))
        elif call.name == "timerfd_create":
            self._timers.add(call.value)

    def _count_traffic(self, call: Call, window: Window) -> None:
        peer = self._peers.get(call.fd)
        if peer is None or call.value <= 0:
            return
        if call.name in ("sendmsg", "sendto", "write", "writev", "send"):
            direction = "sent"
        elif call.name in ("recvmsg", "recvfrom", "read"):
            direction = "received"
        else:
            return
        window.traffic[f"{peer}.{direction}"] += call.is_message or not peer.endswith(" bus")
        window.traffic[f"{peer}.{direction}_bytes"] += call.value

    def _is_message(self, call: Call) -> bool:
        """Whether a call carries the beginning of a D-Bus message: byte order, type, flags, version 1."""
        data = call.data
        on_bus = self._peers.get(call.fd, "").endswith(" bus")
        return on_bus and len(data) > 3 and data[0] in b"lB" and 1 <= data[1] <= 4 and data[3] == 1

    def _without_clock(self, turn: list[Call]) -> list[Call]:
        """A turn without its timer: nothing at all, where it was for that only."""
        if turn[0].pid != self._main:
            # How many events a listener finds when it looks is chance; that it looks once more than it finds is left out.
            woken = any(call.name == "recvfrom" and call.value > 0 for call in turn)
            return turn if woken else []
        calls = [
            call for call in turn if call.name != "timerfd_settime" and not (call.name == "read" and call.fd in self._timers)
        ]
        only_timer = len(calls) < len(turn) and all(call.name in ("gettid", "epoll_wait") for call in calls)
        return [] if only_timer else calls

    def _may_sleep(self, call: Call) -> bool:
        forks = call.name in ("clone3", "clone", "vfork") and (call.name == "vfork" or "CLONE_VFORK" in call.arguments)
        return forks or call.name in _WAITS or (call.name == "read" and call.fd in self._pipes)


def _is_chance(call: Call) -> bool:
    """Whether a lock is free just then, and whether an answer is there when it is first looked for, is how programs take
    turns: what is done in vain, and the sleep that follows, is left out."""
    return call.name in ("futex", "ppoll") or (call.name == "recvmsg" and "EAGAIN" in call.result)
