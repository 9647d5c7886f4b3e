"""One row of the table of faults in docs/reliability.md, and how it is tried out.

A row is a fault of one neighbour, the requests that are made while it lasts, and for each of them what the caller sees,
every line that is logged and how long it takes. The table in the documentation is written from the rows (see
fault_table.py), so what it says is what is asserted.
"""

from __future__ import annotations

import json
import re
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field
from enum import StrEnum
from typing import Any

import pytest
from vantora_sim import CallRefused, World

Line = tuple[str, str]
"""Priority and text of a line of the log."""


class Kind(StrEnum):
    """What may be wrong with a neighbour. Its part of the table has at least one row for each, in this order."""

    ABSENT = "absent at start"
    REFUSES = "refuses"
    HANGS = "hangs"
    WRONG_TYPE = "answers the wrong type"
    GARBAGE = "answers garbage"
    DIES = "dies in the middle of a call"
    RESTARTS = "restarts"
    FLOODS = "floods"


SHORT_TIMEOUT = 1.0
"""Seconds that a bus call is waited for in most rows that hang, in place of the 25 s of a device."""
SHORT = {"SYSTEMD_BUS_TIMEOUT": "1s"}
"""The environment that makes the bus library's own time-out the short one."""
REAL_TIMEOUT = 25.0

SLACK = 10.0
"""Seconds that a request may take longer on a loaded machine than what it waits for."""

SUCCESS = "success"

_CHANGING = ((re.compile(r"/job/\d+"), "/job/N"), (re.compile(r"/Networks/\d+"), "/Networks/N"))


class Said(str):
    """What a request came to, where it is no value: shown as it is."""


@dataclass(frozen=True)
class Request:
    """Something that a client asks of the daemon, and what comes of it when all is well. It can be asked again and again."""

    name: str
    ask: Callable[[World], Any]
    seen: str = SUCCESS
    logs: Sequence[Line] = ()


@dataclass(frozen=True)
class Asked:
    """A request during a fault. What is None is as when all is well."""

    request: Request
    seen: str | None = None
    logs: Sequence[Line] | None = None
    waits: float = 0.0
    """Seconds that the daemon waits for the neighbour in it."""
    cause: Callable[[World], Any] = lambda world: None
    """What is done to the neighbour right before this request, beside what began the fault."""
    ask: Callable[[World], Any] | None = None
    """How it is asked during the fault, where something must happen in the middle."""


@dataclass(frozen=True)
class Row:
    """A fault of a neighbour. It begins in a running daemon, unless `before` says what is done before the start."""

    kind: Kind
    how: str
    """What the neighbour does, for the table."""
    asked: Sequence[Asked] = ()
    begin: Callable[[World], Any] = lambda world: None
    before: Callable[[World], Any] | None = None
    end: Callable[[World], Any] = World.clear_faults
    after: str = ""
    """For the table: what is different after the fault, or how the daemon comes back."""
    environment: dict[str, str] = field(default_factory=dict)
    name: str = ""
    """The test's id, where a neighbour has several rows of a kind."""
    slow: bool = False
    """Whether it takes so long that all such rows are tried at once, in test_faults_in_real_time.py."""
    text: str = ""
    """For a test that is written out: what the caller sees and what is logged, in words and lines."""
    lines: Sequence[Line] = ()
    takes: str = ""
    test: str = ""
    """The test, where it is not test_fault of the neighbour's own file."""

    @property
    def id(self) -> str:
        return self.name or str(self.kind)


@dataclass(frozen=True)
class Impossible:
    """Faults that the neighbour cannot have, and why."""

    kinds: tuple[Kind, ...]
    reason: str


@dataclass(frozen=True)
class Neighbour:
    """All rows of a neighbour, with what the table says above them."""

    title: str
    about: str
    rows: Sequence[Row | Impossible]
    prepare: Callable[[World], Any] = lambda world: None
    """Makes a world fit for the rows."""

    def parameters(self) -> list[Any]:
        """Those rows that test_fault of the neighbour's file tries, as parameters of it."""
        return [pytest.param(row, id=row.id) for row in self.rows if isinstance(row, Row) and not row.test and not row.slow]

    def slow_rows(self) -> list[Row]:
        """Those rows that are tried with all other slow ones."""
        return [row for row in self.rows if isinstance(row, Row) and row.slow]


def shown(lines: Sequence[Line]) -> list[Line]:
    """Lines without the numbers that depend on what came before."""
    changed = []
    for priority, text in lines:
        for pattern, replacement in _CHANGING:
            text = pattern.sub(replacement, text)
        changed.append((priority, text))
    return changed


def seen_by_caller(ask: Callable[[], Any]) -> str:
    """What the caller of a request sees, as text."""
    try:
        value = ask()
    except CallRefused as refused:
        return f'{refused.name} "{refused.text}"'
    if isinstance(value, Said):
        return value
    return SUCCESS if value is None else json.dumps(value, ensure_ascii=False)


def check(world: World, asked: Asked, when: str) -> None:
    """Make a request and compare everything that comes of it."""
    asked.cause(world)
    world.settle()
    mark = world.journal.mark()
    begin = time.monotonic()
    seen = seen_by_caller(lambda: (asked.ask or asked.request.ask)(world))
    took = time.monotonic() - begin
    world.settle()
    expected = asked.request.seen if asked.seen is None else asked.seen
    assert seen == expected, f"{asked.request.name} {when}"
    logs = asked.request.logs if asked.logs is None else asked.logs
    assert shown(world.journal.logs(mark)) == shown(logs), f"{asked.request.name} {when}"
    assert 0.9 * asked.waits <= took <= asked.waits + SLACK, f"{asked.request.name} {when} took {took:.1f} s"


def try_row(world: World, row: Row, prepare: Callable[[World], Any] = lambda world: None) -> None:
    """Try a row: the fault, the requests during it, and the same requests when it is over, all as if nothing had been."""
    prepare(world)
    if row.before is not None:
        row.before(world)
    world.up(environment=dict(row.environment))
    row.begin(world)
    for asked in row.asked:
        check(world, asked, "during the fault")
    row.end(world)
    for request in {asked.request.name: asked.request for asked in row.asked}.values():
        check(world, Asked(request), "after the fault")
