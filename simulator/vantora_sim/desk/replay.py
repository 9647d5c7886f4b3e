"""What a person did to a run, as something that does it again: a shell script, or a world file."""

from __future__ import annotations

import bisect
import copy
import json
import shlex
from dataclasses import dataclass, replace
from typing import Any

from .. import words
from ..client import INTERFACE, PATH, SERVICE
from ..plan import Event, Plan
from ..world_file import as_document

_TARGET = f"{SERVICE} {PATH} {INTERFACE}"


@dataclass(frozen=True)
class Deed:
    """One thing that was done, `at` seconds after the start: a command of vantora-simctl, or a line for a shell."""

    at: float
    line: str
    command: str | None = None
    arguments: dict[str, Any] | None = None


def write_line(name: str, signature: str, text: str) -> str:
    """The shell's line for a write to a property."""
    return f"busctl --user set-property {_TARGET} {name} {signature} {shlex.quote(text)}"


def call_line(member: str, signature: str, texts: list[str]) -> str:
    """The shell's line for a call. What begins with a hyphen is no option."""
    call = (
        f"busctl --user call -- {_TARGET} {member}"
        if any(text.startswith("-") for text in texts)
        else (f"busctl --user call {_TARGET} {member}")
    )
    return " ".join([call, *([signature] if signature else []), *map(shlex.quote, texts)])


class Deeds:
    """All of them, in their order, and the world as it was at first."""

    def __init__(self, plan: Plan) -> None:
        self.plan = copy.deepcopy(plan)
        """Before anything was done: commands change the networks in place."""
        self._done: list[Deed] = []

    def command(self, at: float, command: str, arguments: dict[str, Any]) -> Deed:
        """A command of vantora-simctl was done."""
        return self._add(Deed(at, words.command_line(command, arguments), command, arguments))

    def line(self, at: float, line: str) -> Deed:
        """The device was asked for something, as this line does it."""
        return self._add(Deed(at, line))

    def _add(self, deed: Deed) -> Deed:
        # In the order in which they began: what the device takes its time for is told after what was done meanwhile.
        bisect.insort(self._done, deed, key=lambda one: one.at)
        return deed

    def script(self) -> str:
        """A script for a shell in reach of a device, with the pauses that there were."""
        lines = [
            "#!/bin/sh",
            f"# What was done to the world {json.dumps(self.plan.name)}. To do it again, with its pauses:",
            f"#   vantora-sim --world {shlex.quote(self.plan.name)} -- sh THIS-FILE",
            "set -e",
        ]
        before = self._done[0].at if self._done else 0.0
        for deed in self._done:
            if deed.at - before >= 0.1:
                lines.append(f"sleep {deed.at - before:.1f}")
            before = deed.at
            lines.append(deed.line)
        return "\n".join(lines) + "\n"

    def world_file(self) -> str:
        """The world as it was at first, in which the same happens by itself. What was asked of the device is not the world's."""
        events = [
            Event(round(deed.at, 1), deed.command, deed.arguments or {}) for deed in self._done if deed.command is not None
        ]
        return (
            json.dumps(as_document(replace(self.plan, events=[*self.plan.events, *events])), indent=2, ensure_ascii=False)
            + "\n"
        )
