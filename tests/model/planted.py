"""Puts faults into a copy of the code, one at a time, and shows within how many steps the search finds each.

A search that finds nothing says little unless it is known what it would find. These are faults that this code has had, each
of which needs two things to happen together.
"""

from __future__ import annotations

import argparse
import re
import sys
import time
import tomllib
from contextlib import ExitStack
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/mutation"))

from run import Failure, Tree, as_program, planted  # noqa: E402  (found through the line above)

from .search import Found, Search, report  # noqa: E402

FAULTS = Path(__file__).with_name("faults.toml")
TARGETS = ["vantora-network", "vantora-settingsd", "vantora-sim-sandbox", "vantora-sim-tool", "failing-calls"]
MOST_STEPS = 10_000
SHORTENING = 40.0


@dataclass(frozen=True)
class Fault:
    """A fault, and what the finding says that shows it."""

    name: str
    shows: str
    changes: tuple[dict[str, str], ...]

    def is_shown_by(self, found: Found) -> bool:
        """Whether this is what was looked for."""
        return re.search(self.shows, found.text) is not None

    @staticmethod
    def read() -> "list[Fault]":
        """All of them."""
        tables = tomllib.loads(FAULTS.read_text(encoding="utf-8"))["fault"]
        return [Fault(table["name"], table["shows"], tuple(table["change"])) for table in tables]


def find(tree: Tree, fault: Fault, seed: int, most: int) -> tuple[Found | None, Search]:
    """Search the copy with this fault until something is found."""
    with ExitStack() as broken:
        for change in fault.changes:
            broken.enter_context(planted(tree, fault.name, change["file"], change["old"], change["new"]))
        if not tree.make(TARGETS):
            raise Failure(f"{fault.name}: does not build")
        search = Search(tree.build, seed, lambda line: print(f"   {line}", flush=True), shortening=SHORTENING)
        search.search(steps=most, until=fault.is_shown_by)
        return next(filter(fault.is_shown_by, search.found), None), search


def main() -> int:
    """The command-line program."""
    parser = argparse.ArgumentParser(prog="scripts/chaos --find-planted", description=__doc__.splitlines()[0])
    parser.add_argument("words", nargs="*", metavar="WORD", help="only faults with one of these in their name")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--steps", type=int, default=MOST_STEPS, help="give up after so many (default: %(default)s)")
    options = parser.parse_args()
    faults = [fault for fault in Fault.read() if not options.words or any(word in fault.name for word in options.words)]
    tree = Tree(ROOT / "build/planted", "release")
    tree.refresh()
    tree.configure()
    count = 0
    for fault in faults:
        print(f"-- {fault.name}", flush=True)
        began = time.monotonic()
        found, search = find(tree, fault, options.seed, options.steps)
        took = f"{time.monotonic() - began:.0f} s with its shortening"
        for other in search.found:
            if other is not found:
                print(f"\nsomething else: {report(other)}", flush=True)
        if found is None:
            print(f"NOT FOUND in {search.steps} steps: {fault.name}", flush=True)
        else:
            count += 1
            print(f"\n{report(found)}\nfound at step {found.at_step} ({took}): {fault.name}\n", flush=True)
    print(f"{count} found, {len(faults) - count} not found")
    return 0 if count == len(faults) else 1


if __name__ == "__main__":
    as_program("scripts/chaos", main)
