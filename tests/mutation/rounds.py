"""Has faults judged, one after the other, until there are enough verdicts."""

from __future__ import annotations

import queue
import threading
import tomllib
from collections.abc import Callable
from dataclasses import dataclass, replace
from functools import cache
from pathlib import Path

from mutant import Mutant
from run import Failure, Tree
from verdicts import Record, Verdict, moved

ROOT = Path(__file__).resolve().parents[2]
SURVIVORS = Path(__file__).with_name("survivors.toml")


@dataclass(frozen=True)
class Excuse:
    """A mutant that is known to survive, as survivors.toml names it."""

    file: str
    function: str
    line: str
    change: str
    reason: str
    equivalent: bool = False
    behind: str = ""

    def is_for(self, mutant: Mutant) -> bool:
        named = (self.file, self.function, self.change) == (mutant.file, mutant.function, mutant.title)
        return named and text_from(mutant).startswith(self.line) and text_before(mutant).endswith(self.behind)


NO_EXCUSE = Excuse("", "", "", "", "")


def excuses() -> list[Excuse]:
    return [Excuse(**each) for each in tomllib.loads(SURVIVORS.read_text(encoding="utf-8")).get("survivor", [])]


def text_from(mutant: Mutant) -> str:
    """The text from the line on that a mutant begins in, with one blank for all that is blank."""
    return " ".join(" ".join(lines_of(mutant.file)[mutant.line - 1 : mutant.line + 4]).split())


def text_before(mutant: Mutant) -> str:
    """The text between the beginning of the line and the mutant, with one blank for all that is blank."""
    text = (ROOT / mutant.file).read_bytes()[: mutant.begin]
    return " ".join(text[text.rfind(b"\n") + 1 :].decode(errors="replace").split())


def line_of(mutant: Mutant) -> str:
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
        self._known = excuses()
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
            if again and place and self.is_survivor(replace(verdict, mutant=place)):
                self._drawn.put((verdict.mutant, place))
            elif verdict.compiles:
                self.verdicts.append(replace(verdict, mutant=place or verdict.mutant))
        for place in places:
            if place not in known and not self.excuse(place).equivalent:
                self._drawn.put((place, place))
        threads = [threading.Thread(target=self._work, args=(tree,)) for tree in self._trees]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def counted(self) -> list[Verdict]:
        """The verdicts about mutants that are faults: they compile, and somebody could tell them from the sound code."""
        return [each for each in self.verdicts if self.is_fault(each)]

    def is_fault(self, verdict: Verdict) -> bool:
        return verdict.compiles and not verdict.same and not self.excuse(verdict.mutant).equivalent

    def is_survivor(self, verdict: Verdict) -> bool:
        return self.is_fault(verdict) and not verdict.caught_by

    def excuse(self, mutant: Mutant) -> Excuse:
        """What is known of a mutant that survives."""
        return next((each for each in self._known if each.is_for(mutant)), NO_EXCUSE)

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
        excuse = self.excuse(mutant)
        text = (
            f"caught by {found.caught_by}"
            if found.caught_by
            else "compiles to the same"
            if found.same
            else f"SURVIVED{' (no difference)' if excuse.equivalent else ''}"
        )
        print(
            f"{text}: {mutant.file}:{mutant.line} {mutant.function}: {mutant.title} ({found.seconds:.0f} s)"
            + (f"; {excuse.reason}" if excuse.reason and not found.caught_by else ""),
            flush=True,
        )
