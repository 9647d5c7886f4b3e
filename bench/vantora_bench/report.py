"""How figures are shown: a line each on the terminal, a section each in RESULTS.md."""

from __future__ import annotations

import datetime
import os
import platform
import re
import subprocess
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path

_HEAD = """\
# How fast, how small?

Written by `./scripts/bench`; what is measured and how is told in [README.md](README.md). Each figure stands beside its floor,
which was measured in the same run, taking turns. "Relation" is the median over all turns, with its quartiles: where they lie
far apart, the machine had other things to do.

"""


@dataclass(frozen=True)
class Row:
    """One figure beside its floor, all as text; `reached` is None when it could not be measured."""

    name: str
    value: str
    floor: str
    relation: str
    goal: str
    reached: bool | None


@dataclass(frozen=True)
class Section:
    """What one figure gave."""

    title: str
    rows: list[Row]
    notes: list[str] = field(default_factory=list)


def seconds(value: float) -> str:
    """A time in a unit that suits it."""
    if abs(value) < 1e-3:
        return f"{value * 1e6:.1f} µs"
    return f"{value * 1e3:.2f} ms" if abs(value) < 1 else f"{value:.2f} s"


def verdict(row: Row) -> str:
    """Whether the goal is reached, in a word."""
    return {True: "yes", False: "**no**", None: "not measured"}[row.reached]


def show(section: Section) -> None:
    """Print a section."""
    print(f"\n{section.title}")
    for row in section.rows:
        print(
            f"  {row.name:<58} {row.value:>12} {row.floor:>12}  {row.relation:<28} {row.goal:<14} "
            f"{verdict(row).strip('*')}",
            flush=True,
        )
    for note in section.notes:
        print(f"    {note}", flush=True)


def write(path: Path, section: Section, arguments: Sequence[str]) -> None:
    """Put a section into the file of results; those of other figures stay as they are."""
    head, sections = _read(path)
    sections[section.title] = _text(section, arguments)
    path.write_text(head + "".join(f"## {title}\n{sections[title]}" for title in sorted(sections)))


def _read(path: Path) -> tuple[str, dict[str, str]]:
    if not path.exists():
        return _HEAD, {}
    _, *parts = re.split(r"^## ", path.read_text(), flags=re.MULTILINE)
    return _HEAD, dict(part.split("\n", 1) for part in parts)


def _text(section: Section, arguments: Sequence[str]) -> str:
    command = " ".join(["./scripts/bench", *arguments])
    lines = [
        "",
        f"{_machine()}, {datetime.datetime.now():%Y-%m-%d %H:%M}, commit {_commit()}, `{command}`",
        "",
        "| figure | daemon | floor | relation | goal | reached |",
        "|---|---|---|---|---|---|",
    ]
    lines += [
        f"| {row.name} | {row.value} | {row.floor} | {row.relation} | {row.goal} | {verdict(row)} |" for row in section.rows
    ]
    lines += ["", *[f"- {note}" for note in section.notes]] if section.notes else []
    return "\n".join(lines) + "\n\n"


def _machine() -> str:
    model = re.search(r"^model name\s*:\s*(.*)$", Path("/proc/cpuinfo").read_text(encoding="utf-8"), re.MULTILINE)
    load = os.getloadavg()[0]
    priority = "real-time" if os.sched_getscheduler(0) == os.SCHED_RR else "ordinary"
    return (
        f"{os.cpu_count()} cores ({model[1] if model else platform.machine()}), Linux {platform.release()}, "
        f"load {load:.1f}, {priority} priority"
    )


def _commit() -> str:
    def git(*arguments: str) -> str:
        return subprocess.run(["git", *arguments], capture_output=True, text=True, check=False).stdout.strip()

    changed = git("status", "--porcelain", "--untracked-files=no", "src", "platform")
    return (git("rev-parse", "--short", "HEAD") or "unknown") + (" with changes" if changed else "")
