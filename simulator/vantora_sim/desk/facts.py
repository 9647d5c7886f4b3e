"""What docs/dbus-api.md says about properties, methods and errors, for the page to say it where it is of use."""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import Path
from typing import Any

_ERROR_PREFIX = "org.freedesktop.DBus.Error."
_ELLIPSIS = "…"


@dataclass(frozen=True)
class _Error:
    name: str
    text: re.Pattern[str]
    sources: str
    why: str
    advice: str


class Facts:
    """The tables of the page. A page that is missing or has no tables leaves everything unsaid."""

    def __init__(self, page: Path) -> None:
        try:
            text = page.read_text(encoding="utf-8")
        except OSError:
            text = ""
        self.properties = {
            _plain(row[0]): {"value": _plain(row[3]), "changes": _plain(row[4]), "words": re.findall(r"`([^`\[\]]+)`", row[3])}
            for row in _table(text, "Property", "Type", "Access")
        }
        self.methods: dict[str, dict[str, Any]] = {}
        for row in _table(text, "Method", "Does"):
            name, _, arguments = _plain(row[0]).partition("(")
            self.methods[name] = {"does": _plain(row[1]), "arguments": re.findall(r"\w+ (\w+)", arguments)}
        self.writes = {
            _plain(row[0]): {"does": _plain(row[2]), "refused": _plain(row[3])} for row in _table(text, "Write", "Stored?")
        }
        self._errors = [_error(row) for row in _table(text, "Error", "Text")]

    def about_error(self, name: str, text: str, member: str) -> dict[str, str] | None:
        """Why a call was refused, and what to do; None when nothing is said about that error."""
        fitting = [error for error in self._errors if name == _ERROR_PREFIX + error.name and error.text.fullmatch(text)]
        fitting.sort(key=lambda error: member not in error.sources)
        return {"why": fitting[0].why, "advice": fitting[0].advice} if fitting else None


def _table(text: str, *head: str) -> list[list[str]]:
    """The rows of the table whose head begins so."""
    rows: list[list[str]] = []
    inside = False
    for line in text.splitlines():
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")] if line.startswith("|") else []
        if not inside:
            inside = tuple(cells[: len(head)]) == head
        elif not cells:
            break
        elif not set(line) <= set("|- :"):
            rows.append(cells)
    return rows


def _error(row: list[str]) -> _Error:
    name, text, sources, why, advice = (_plain(cell) for cell in row)
    pattern = ".*".join(re.escape(part) for part in text.strip('"').split(_ELLIPSIS))
    return _Error(name, re.compile(pattern, re.DOTALL), sources, why, advice)


def _plain(cell: str) -> str:
    """A cell without its mark-up."""
    return re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", cell).replace("`", "")
