"""What became of each fault, written down as it is known: a run that is interrupted goes on where it was."""

from __future__ import annotations

import json
from dataclasses import asdict, dataclass
from pathlib import Path

from mutant import Mutant


@dataclass(frozen=True)
class Verdict:
    """What became of one mutant: the test that caught it, None for nobody; or that it is no fault, because it does not compile."""

    mutant: Mutant
    caught_by: str | None
    compiles: bool
    seconds: float
    near: bool
    """Only the nearest tests were asked."""
    same: bool = False
    """The compiler makes the same of it as of the sound code, so nobody can tell them apart."""


class Record:
    """The verdicts of one seed, one a line; of two about the same mutant the later holds."""

    def __init__(self, path: Path) -> None:
        self._path = path

    def read(self) -> dict[Mutant, Verdict]:
        verdicts: dict[Mutant, Verdict] = {}
        for line in self._path.read_text(encoding="utf-8").splitlines() if self._path.exists() else []:
            fields = json.loads(line)
            fields["mutant"] = Mutant(**fields["mutant"])
            verdicts[fields["mutant"]] = Verdict(**fields)
        return verdicts

    def add(self, verdict: Verdict) -> None:
        self._path.parent.mkdir(parents=True, exist_ok=True)
        with self._path.open("a", encoding="utf-8") as file:
            file.write(json.dumps(asdict(verdict)) + "\n")


def moved(mutant: Mutant, places: list[Mutant]) -> Mutant | None:
    """Where a recorded mutant stands in the sources of now: the same change of the same function, nearest to its line."""
    same = [each for each in places if (each.file, each.function, each.title) == (mutant.file, mutant.function, mutant.title)]
    return min(same, key=lambda each: (each != mutant, abs(each.line - mutant.line)), default=None)
