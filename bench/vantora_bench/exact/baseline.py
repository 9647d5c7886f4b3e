"""The counts that a change is compared with: bench/baseline.toml."""

from __future__ import annotations

import json
import re
import subprocess
import tomllib
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from .counts import Counts

Figures = dict[str, dict[str, Counts]]

ALLOWED = 0.02
"""A count may grow by this part of it before somebody has to say that it is meant."""

_LIBRARIES = ("libc6", "libsystemd0", "libstdc++6", "libsigc++-2.0-0v5", "libgcc-s1", "valgrind")
_MADE = ("instructions", "allocations", "peak_bytes")
"""What depends on the compiler and the libraries."""

_NEEDED = "instructions"
_HEAD = """\
# What each figure takes, and its floor: written by ./scripts/bench --exact, compared by ./scripts/bench --exact --check.
# docs/cost.md tells what the numbers are. Whoever makes something dearer writes the new numbers into the same commit.
"""


@dataclass(frozen=True)
class Comparison:
    """What a comparison has found: reasons to fail, and what is only worth knowing."""

    failures: list[str]
    notes: list[str]


@dataclass(frozen=True)
class Baseline:
    """Counts, and what they were made with."""

    made_with: dict[str, str]
    figures: Figures

    @classmethod
    def load(cls, path: Path) -> "Baseline":
        """From its file."""
        table = tomllib.loads(path.read_text())
        made_with = table.pop("made with")
        return cls(made_with, {name: {side: _flat(counts) for side, counts in sides.items()} for name, sides in table.items()})

    def save(self, path: Path) -> None:
        """To its file, a line for each number."""
        lines = [_HEAD, '["made with"]']
        lines += [f"{_key(name)} = {json.dumps(version)}" for name, version in self.made_with.items()]
        for figure, sides in self.figures.items():
            for side, counts in sides.items():
                lines += ["", f"[{_key(figure)}.{_key(side)}]"]
                lines += [f"{'.'.join(map(_key, name.split('.')))} = {value}" for name, value in counts.items()]
        path.write_text("\n".join(lines) + "\n")

    def compare(self, found: "Baseline") -> Comparison:
        """What is dearer, cheaper or missing in what was found now."""
        failures: list[str] = []
        notes: list[str] = []
        for name in sorted({*self.made_with, *found.made_with}):
            before, now = self.made_with.get(name, "none"), found.made_with.get(name, "none")
            if before != now:
                notes.append(f"made with another {name} ({now}, not {before}): only what does not depend on it is compared")
        same = self.made_with == found.made_with
        for figure, side in sorted({*_sides(self.figures), *_sides(found.figures)}):
            before, now = self.figures.get(figure, {}).get(side), found.figures.get(figure, {}).get(side)
            title = f"{figure}, {side}"
            if now is None or (before is not None and _NEEDED in before and _NEEDED not in now):
                failures.append(f"{title}: not counted")
            elif before is None:
                failures.append(f"{title}: not in the baseline")
            else:
                _compare_side(title, before, now, same, failures, notes)
        return Comparison(failures, notes)


def made_with(build: Path) -> dict[str, str]:
    """The compiler of a build and the libraries here, each with its version."""
    cache = (build / "CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.MULTILINE)
    assert compiler, "the build names no compiler"
    version = _output([compiler[1], "--version"]).splitlines()[0]
    libraries = {}
    for name in _LIBRARIES:
        libraries[name] = _output(["dpkg-query", "-W", "-f", "${Version}", f"{name}"])
    return {"compiler": version, **libraries}


def _output(command: list[str]) -> str:
    return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip() or "unknown"


def _sides(figures: Figures) -> set[tuple[str, str]]:
    return {(figure, side) for figure, sides in figures.items() for side in sides}


def _compare_side(
    title: str, before: Mapping[str, float], now: Mapping[str, float], same: bool, failures: list[str], notes: list[str]
) -> None:
    for name in sorted({*before, *now}):
        if name in _MADE and not same:
            continue
        old, new = before.get(name, 0), now.get(name, 0)
        text = f"{title}: {name} {old:,} -> {new:,}"
        if new > old * (1 + ALLOWED):
            failures.append(f"{text} ({_growth(old, new)}): dearer")
        elif new < old * (1 - ALLOWED):
            notes.append(f"{text} ({_growth(old, new)}): cheaper; lower the baseline")


def _growth(old: float, new: float) -> str:
    return f"{new / old - 1:+.1%}" if old else "new"


def _flat(table: Mapping[str, Any], prefix: str = "") -> Counts:
    flat: Counts = {}
    for name, value in table.items():
        if isinstance(value, Mapping):
            flat.update(_flat(value, f"{prefix}{name}."))
        else:
            flat[prefix + name] = value
    return flat


def _key(name: str) -> str:
    return name if re.fullmatch(r"[A-Za-z0-9_-]+", name) else json.dumps(name)
