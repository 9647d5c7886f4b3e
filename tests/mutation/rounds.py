"""Has faults judged, one after the other, until there are enough verdicts."""

from __future__ import annotations

import queue
import threading
import tomllib
from collections.abc import Callable
from dataclasses import replace
from pathlib import Path

from mutant import Mutant
from run import Failure, Tree
from verdicts import Record, Verdict, moved

SURVIVORS = Path(__file__).with_name("survivors.toml")


def excused() -> dict[tuple[str, str, str], tuple[bool, str]]:
    """Mutants that are known to survive: (file, function, change) -> (whether nobody can tell it from the sound code, reason)."""
    listed = tomllib.loads(SURVIVORS.read_text(encoding="utf-8")).get("survivor", []) if SURVIVORS.exists() else []
    return {
        (each["file"], each["function"], each["change"]): (bool(each.get("equivalent", False)), each["reason"])
        for each in listed
    }


class Rounds:
    """Draws mutants until enough of them were faults, on as many trees as there are."""

    def __init__(self, trees: list[Tree], judge: Callable[[Tree, Mutant], Verdict], record: Record) -> None:
        self._trees, self._judge, self._record = trees, judge, record
        self._drawn: queue.SimpleQueue[tuple[Mutant, Mutant]] = queue.SimpleQueue()
        self._lock = threading.Lock()
        self._known = excused()
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
            if again and place and verdict.compiles and not verdict.caught_by and not self._reason(place)[0]:
                self._drawn.put((verdict.mutant, place))
            elif verdict.compiles:
                self.verdicts.append(verdict)
        for place in places:
            if place not in known:
                self._drawn.put((place, place))
        threads = [threading.Thread(target=self._work, args=(tree,)) for tree in self._trees]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def counted(self) -> list[Verdict]:
        """The verdicts about mutants that are faults: they compile, and somebody could tell them from the sound code."""
        return [each for each in self.verdicts if each.compiles and not self._reason(each.mutant)[0]]

    def _reason(self, mutant: Mutant) -> tuple[bool, str]:
        return self._known.get((mutant.file, mutant.function, mutant.title), (False, ""))

    def _work(self, tree: Tree) -> None:
        while True:
            with self._lock:
                if len(self.counted()) >= self._wanted or self.failures or self._drawn.empty():
                    return
                recorded, mutant = self._drawn.get()
            try:
                found = replace(self._judge(tree, mutant), mutant=recorded)
            except Failure as failure:
                self.failures.append(f"{mutant.file}:{mutant.line}: {failure}")
                return
            with self._lock:
                self._record.add(found)
                if found.compiles and len(self.counted()) < self._wanted:
                    self.verdicts.append(found)
                    self._say(found)

    def _say(self, found: Verdict) -> None:
        mutant = found.mutant
        equivalent, reason = self._reason(mutant)
        text = f"caught by {found.caught_by}" if found.caught_by else f"SURVIVED{' (no difference)' if equivalent else ''}"
        print(
            f"{text}: {mutant.file}:{mutant.line} {mutant.function}: {mutant.title} ({found.seconds:.0f} s)"
            + (f"; {reason}" if reason and not found.caught_by else ""),
            flush=True,
        )
