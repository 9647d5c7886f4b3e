"""Has faults judged, one after the other, until there are enough verdicts."""

from __future__ import annotations

import queue
import threading
import tomllib
from collections.abc import Callable
from dataclasses import replace
from functools import cache
from pathlib import Path

from mutant import Mutant
from run import Failure, Tree
from verdicts import Record, Verdict, moved

ROOT = Path(__file__).resolve().parents[2]
SURVIVORS = Path(__file__).with_name("survivors.toml")


def excused() -> dict[tuple[str, str, str, str], tuple[bool, str]]:
    """Mutants that are known to survive: (file, function, line's text, change) -> (whether nobody can tell it, reason)."""
    listed = tomllib.loads(SURVIVORS.read_text(encoding="utf-8")).get("survivor", []) if SURVIVORS.exists() else []
    return {
        (each["file"], each["function"], each["line"], each["change"]): (bool(each.get("equivalent", False)), each["reason"])
        for each in listed
    }


def line_of(mutant: Mutant) -> str:
    """The text of the line that a mutant begins in."""
    return lines_of(mutant.file)[mutant.line - 1].strip()


@cache
def lines_of(file: str) -> list[str]:
    return (ROOT / file).read_text(encoding="utf-8").splitlines()


class Rounds:
    """Draws mutants until enough of them were faults, on as many trees as there are."""

    def __init__(self, trees: list[Tree], judge: Callable[[Tree, Mutant], Verdict], record: Record) -> None:
        self._trees, self._judge, self._record = trees, judge, record
        self._drawn: queue.SimpleQueue[tuple[Mutant, Mutant]] = queue.SimpleQueue()
        self._lock = threading.Lock()
        self._known = excused()
        self._reasons: dict[Mutant, tuple[bool, str]] = {}
        self.verdicts: list[Verdict] = []
        self.failures: list[str] = []
        self._wanted = 0

    def run(self, places: list[Mutant], wanted: int, again: bool) -> None:
        """Take what the record has, and judge further ones of these places, in this order; `again`: also the survivors anew."""
        self._wanted = wanted
        known = set()
        for verdict in self._record.read().values():
            place = moved(verdict.mutant, places)
            known.add(place)
            if again and place and verdict.compiles and not verdict.caught_by and not self.reason(place)[0]:
                self._drawn.put((verdict.mutant, place))
            elif verdict.compiles:
                self.verdicts.append(replace(verdict, mutant=place or verdict.mutant))
        for place in places:
            if place not in known and not self.reason(place)[0]:
                self._drawn.put((place, place))
        threads = [threading.Thread(target=self._work, args=(tree,)) for tree in self._trees]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def counted(self) -> list[Verdict]:
        """The verdicts about mutants that are faults: they compile, and somebody could tell them from the sound code."""
        return [each for each in self.verdicts if each.compiles and not self.reason(each.mutant)[0]]

    def reason(self, mutant: Mutant) -> tuple[bool, str]:
        """Whether nobody can tell a mutant from the sound code, and why it is borne; an empty reason for one that is not known."""
        if mutant not in self._reasons:
            found = (mutant.file, mutant.function, line_of(mutant), mutant.title)
            self._reasons[mutant] = self._known.get(found, (False, ""))
        return self._reasons[mutant]

    def _work(self, tree: Tree) -> None:
        while True:
            with self._lock:
                if len(self.counted()) >= self._wanted or self.failures or self._drawn.empty():
                    return
                recorded, mutant = self._drawn.get()
            try:
                found = self._judge(tree, mutant)
            except Failure as failure:
                self.failures.append(f"{mutant.file}:{mutant.line}: {failure}")
                return
            with self._lock:
                self._record.add(replace(found, mutant=recorded))
                if found.compiles and len(self.counted()) < self._wanted:
                    self.verdicts.append(found)
                    self._say(found)

    def _say(self, found: Verdict) -> None:
        mutant = found.mutant
        equivalent, reason = self.reason(mutant)
        text = f"caught by {found.caught_by}" if found.caught_by else f"SURVIVED{' (no difference)' if equivalent else ''}"
        print(
            f"{text}: {mutant.file}:{mutant.line} {mutant.function}: {mutant.title} ({found.seconds:.0f} s)"
            + (f"; {reason}" if reason and not found.caught_by else ""),
            flush=True,
        )
