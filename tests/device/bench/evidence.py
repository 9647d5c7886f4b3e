"""What a scenario saw, kept for the results page."""

from __future__ import annotations

import json
from dataclasses import asdict, dataclass, field
from pathlib import Path

BUS, LOG, TOOL, FIGURE = "bus", "log", "tool", "figure"
"""Where evidence comes from: our D-Bus face, the journal, another program's own view, a measurement."""


@dataclass
class Evidence:
    """The evidence of one scenario, in the order in which it was found."""

    entries: list[tuple[str, str]] = field(default_factory=list)

    def add(self, kind: str, text: str) -> None:
        """Keeps one piece. The same thing seen twice in a row is kept once."""
        if not self.entries or self.entries[-1] != (kind, text):
            self.entries.append((kind, text))

    def figure(self, name: str, value: str) -> None:
        """Keeps a measurement, which the page also puts into its table of figures."""
        self.add(FIGURE, f"{name}: {value}")


@dataclass
class Result:
    """One scenario as the results page tells it."""

    module: str
    name: str
    outcome: str
    seconds: float
    story: str
    entries: list[tuple[str, str]]
    problem: str = ""
    """What pytest says about a failure."""

    def write(self, folder: Path) -> None:
        """Leaves it in the folder that the page is made from."""
        folder.mkdir(parents=True, exist_ok=True)
        safe = "".join(character if character.isalnum() else "-" for character in f"{self.module}-{self.name}")
        (folder / f"{safe}.json").write_text(json.dumps(asdict(self), ensure_ascii=False, indent=1))
