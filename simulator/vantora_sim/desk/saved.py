"""A run that was saved from the page: JSON lines, to be looked at without a device."""

from __future__ import annotations

import json
from dataclasses import dataclass
from pathlib import Path
from typing import Any

FORMAT = 1
"""Changes when older pages cannot show a saved run any more."""


class SavedRunError(Exception):
    """The file is no saved run; the text says why."""


@dataclass(frozen=True)
class SavedRun:
    """Its first line, and all others."""

    head: dict[str, Any]
    records: list[dict[str, Any]]


def read_saved(path: Path) -> SavedRun:
    """Read a file. Raises SavedRunError."""
    try:
        with open(path, encoding="utf-8") as lines:
            records = [_record(path, number, line) for number, line in enumerate(lines, start=1) if line.strip()]
    except OSError as error:
        raise SavedRunError(f"{path}: {error.strerror}") from None
    except UnicodeDecodeError:
        raise SavedRunError(f"{path}: not UTF-8") from None
    if not records or records[0].get("k") != "run" or records[0].get("format") != FORMAT:
        raise SavedRunError(f"{path}:1: not a saved run of this page")
    return SavedRun(records[0], records[1:])


def _record(path: Path, number: int, line: str) -> dict[str, Any]:
    try:
        record = json.loads(line)
    except ValueError as error:
        raise SavedRunError(f"{path}:{number}: not JSON: {error}") from None
    if not isinstance(record, dict):
        raise SavedRunError(f"{path}:{number}: not an object")
    return record
