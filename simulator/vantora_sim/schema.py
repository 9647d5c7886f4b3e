"""Checks a located JSON value against a JSON schema: those words of it that docs/world.schema.json uses.

Every finding names the field and its line, and says what would have been right.
"""

from __future__ import annotations

import difflib
import json
import math
import re
from collections.abc import Iterator
from dataclasses import dataclass
from typing import Any

from .json_lines import Located

_TYPES = {
    "object": dict,
    "array": list,
    "string": str,
    "boolean": bool,
    "integer": int,
    "number": (int, float),
    "null": type(None),
}
_WORDS = {
    "$defs",
    "$ref",
    "$schema",
    "additionalProperties",
    "default",
    "description",
    "enum",
    "items",
    "maximum",
    "minLength",
    "minimum",
    "pattern",
    "properties",
    "required",
    "title",
    "type",
}


@dataclass(frozen=True)
class Finding:
    """What is wrong with one field."""

    line: int
    field: str
    text: str

    def __str__(self) -> str:
        return f"{self.field}: {self.text}" if self.field else self.text


def check(value: Located, schema: dict[str, Any]) -> list[Finding]:
    """Everything that is wrong with a document."""
    return list(_Checker(schema).check(value, schema, ""))


class _Checker:
    def __init__(self, root: dict[str, Any]) -> None:
        self._root = root

    def check(self, located: Located, schema: dict[str, Any], field: str) -> Iterator[Finding]:
        schema = self._resolve(schema)
        if not self._is_of_type(located.value, schema):
            yield Finding(located.line, field, f"must be {_expected(schema)}, not {_shown(located.value)}")
        elif isinstance(located.value, dict):
            yield from self._object(located, schema, field)
        elif isinstance(located.value, list):
            for index, item in enumerate(located.value):
                yield from self.check(item, schema.get("items", {}), f"{field}[{index}]")
        elif not _is_allowed(located.value, schema):
            yield Finding(located.line, field, f"must be {_expected(schema)}, not {_shown(located.value)}")

    def _resolve(self, schema: dict[str, Any]) -> dict[str, Any]:
        unknown = set(schema) - _WORDS
        assert not unknown, f"the schema uses {unknown}, which nobody checks"
        reference = schema.get("$ref")
        return self._resolve(self._root["$defs"][reference.removeprefix("#/$defs/")]) if reference else schema

    def _is_of_type(self, value: Any, schema: dict[str, Any]) -> bool:
        wanted = schema.get("type", list(_TYPES))
        names = wanted if isinstance(wanted, list) else [wanted]
        # To Python a bool is an int; to JSON it is not.
        return any(isinstance(value, _TYPES[name]) and (name == "boolean") == isinstance(value, bool) for name in names)

    def _object(self, located: Located, schema: dict[str, Any], field: str) -> Iterator[Finding]:
        known: dict[str, Any] = schema.get("properties", {})
        others = schema.get("additionalProperties", {})
        for name, value in located.value.items():
            inner = f"{field}.{name}" if field else name
            if name in known:
                yield from self.check(value, known[name], inner)
            elif others is False:
                close = difflib.get_close_matches(name, known, 1)
                yield Finding(value.line, inner, "there is no such field" + (f'; is "{close[0]}" meant?' if close else ""))
            else:
                yield from self.check(value, others, inner)
        for name in schema.get("required", []):
            if name not in located.value:
                yield Finding(located.line, field, f'"{name}" is missing')


def _is_allowed(value: Any, schema: dict[str, Any]) -> bool:
    if "enum" in schema and value not in schema["enum"]:
        return False
    if isinstance(value, str):
        return len(value) >= schema.get("minLength", 0) and _matches(schema.get("pattern", ""), value)
    if isinstance(value, (int, float)):
        # 1e999 is JSON, and infinite.
        return math.isfinite(value) and bool(schema.get("minimum", value) <= value <= schema.get("maximum", value))
    return True


def _matches(pattern: str, text: str) -> bool:
    """As a JSON schema means it: its "$" is the end, where Python's would let a line break stand behind it."""
    return re.search(re.sub(r"\$$", r"\\Z", pattern), text) is not None


def _expected(schema: dict[str, Any]) -> str:
    """What would be right, in words."""
    if "enum" in schema:
        return "one of " + ", ".join(json.dumps(value) for value in schema["enum"])
    types = schema["type"] if isinstance(schema["type"], list) else [schema["type"]]
    text = " or ".join(("an " if name[0] in "aio" else "a ") + name if name != "null" else name for name in types)
    if "minimum" in schema and "maximum" in schema:
        text += f" from {schema['minimum']} to {schema['maximum']}"
    elif "minimum" in schema:
        text += f" of at least {schema['minimum']}"
    elif schema.get("minLength"):
        text += " that is not empty"
    if "pattern" in schema and "description" in schema:
        text += f" ({schema['description']})"
    return text


def _shown(value: Any) -> str:
    if isinstance(value, dict):
        return "an object"
    if isinstance(value, list):
        return "an array"
    return json.dumps(value, ensure_ascii=False)
