"""The command lines that the daemon can run, as docs/security.md lists them."""

from __future__ import annotations

import re
from dataclasses import dataclass

from conftest import ROOT

PAGE = ROOT / "docs/security.md"
_ROW = re.compile(r"\| `(?P<line>(?:[^`\\]|\\.)+)` \| (?P<variable>.+?) \| `(?P<where>[\w/]+\.cpp)` \|")
_PLACEHOLDER = re.compile(r"<(\w+)>")


@dataclass(frozen=True)
class ListedCommand:
    """One row: the command line, with variable parts as <name>, what is said about those, and its file below src/."""

    line: str
    variable: str
    where: str

    @property
    def never_run(self) -> bool:
        """Whether the table says so."""
        return "never run" in self.variable

    @property
    def constants(self) -> list[str]:
        """The values that the variable part can have."""
        return re.findall(r"constant `([^`]+)`", self.variable)

    def instances(self) -> list[str]:
        """What the shell is given."""
        if not _PLACEHOLDER.search(self.line):
            return [self.line]
        return [_PLACEHOLDER.sub(constant, self.line) for constant in self.constants]


def listed_commands() -> list[ListedCommand]:
    """All rows of the table."""
    section = PAGE.read_text().split("## What reaches a shell")[1].split("\n## ")[0]
    rows = [line for line in section.splitlines() if line.startswith("| `")]
    parsed = [_ROW.fullmatch(row) for row in rows]
    assert all(parsed), f"a row of {PAGE} cannot be read"
    return [ListedCommand(row["line"].replace(r"\|", "|"), row["variable"], row["where"]) for row in parsed if row]


def runnable_lines() -> set[str]:
    """Every command line that the shell may ever be given."""
    return {line for listed in listed_commands() if not listed.never_run for line in listed.instances()}
