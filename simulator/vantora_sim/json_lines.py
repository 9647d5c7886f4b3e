"""JSON whose values know the line they stand on, so that a complaint about one can name it."""

from __future__ import annotations

import json
from dataclasses import dataclass
from json import JSONDecodeError, decoder, scanner
from typing import Any


@dataclass(frozen=True)
class Located:
    """A value and its line. Objects hold Located values by name, arrays hold Located items."""

    value: Any
    line: int


class DuplicateName(ValueError):
    """An object has two values of one name."""

    def __init__(self, name: str, line: int) -> None:
        super().__init__(name)
        self.name = name
        self.line = line


def loads(text: str) -> Located:
    """Parse a text. Raises json.JSONDecodeError, DuplicateName, or another ValueError for what nobody means: values nested too
    deep, a number of thousands of digits, half of a character ("\\ud800"), which no file could hold and no terminal show."""
    try:
        return _loads(text)
    except RecursionError:
        raise ValueError("nested too deep") from None


def _loads(text: str) -> Located:
    reader = json.JSONDecoder(object_pairs_hook=_as_object, parse_constant=_refuse_constant)
    # Only the scanner in Python calls these hooks, and only they know where each value begins.

    def locate(scan: Any) -> Any:
        def scan_located(string: str, index: int) -> tuple[Located, int]:
            value, end = scan(string, index)
            _refuse_half_characters(value)
            return Located(value, string.count("\n", 0, index) + 1), end

        return scan_located

    reader.parse_object = lambda at, strict, scan, *hooks: decoder.JSONObject(at, strict, locate(scan), *hooks)
    reader.parse_array = lambda at, scan, *hooks: decoder.JSONArray(at, locate(scan), *hooks)
    reader.scan_once = scanner.py_make_scanner(reader)
    start = len(text) - len(text.lstrip())
    value, end = reader.raw_decode(text, start)
    _refuse_half_characters(value)
    rest = text[end:].lstrip()
    if rest:
        raise JSONDecodeError("Extra data", text, len(text) - len(rest))
    return Located(value, text.count("\n", 0, start) + 1)


def _as_object(pairs: list[tuple[str, Located]]) -> dict[str, Located]:
    found: dict[str, Located] = {}
    for name, value in pairs:
        _refuse_half_characters(name)
        if name in found:
            raise DuplicateName(name, value.line)
        found[name] = value
    return found


def _refuse_half_characters(value: Any) -> None:
    if isinstance(value, str) and any("\ud800" <= letter <= "\udfff" for letter in value):
        raise ValueError("half of a character: a surrogate without its other half")


def _refuse_constant(name: str) -> Any:
    raise ValueError(f"{name} is no JSON")


def plain(located: Located) -> Any:
    """The value without lines."""
    if isinstance(located.value, dict):
        return {name: plain(value) for name, value in located.value.items()}
    if isinstance(located.value, list):
        return [plain(item) for item in located.value]
    return located.value
