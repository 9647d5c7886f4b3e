"""One random fault."""

from __future__ import annotations

from dataclasses import dataclass


@dataclass(frozen=True, order=True)
class Mutant:
    """One fault: bytes `begin` to `end` of `file` become `new`."""

    file: str
    line: int
    begin: int
    end: int
    old: str
    new: str
    function: str

    @property
    def title(self) -> str:
        """The fault on one line, the same for the same text: what a list of survivors names it by."""
        return f"{' '.join(self.old.split())} -> {' '.join(self.new.split()) or 'nothing'}"
