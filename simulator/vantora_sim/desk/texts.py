"""How what happened is put into words: values as JSON can carry them, and the line of an entry."""

from __future__ import annotations

import json
from typing import Any

from dbus_next import Variant

from ..dbus_fake import PROPERTIES
from ..plan import printable

_LONGEST = 200
_MANY = 5


def wire(value: Any) -> Any:
    """A D-Bus value as JSON carries it; bytes as text and as hexadecimal digits."""
    if isinstance(value, Variant):
        return wire(value.value)
    if isinstance(value, (bytes, bytearray)):
        return {"text": printable(bytes(value)), "hex": bytes(value).hex()}
    if isinstance(value, dict):
        return {str(key): wire(item) for key, item in value.items()}
    if isinstance(value, (list, tuple)):
        return [wire(item) for item in value]
    return value


def brief(value: Any) -> str:
    """A value in a few words."""
    if isinstance(value, dict) and set(value) == {"text", "hex"}:
        return json.dumps(value["text"], ensure_ascii=False)
    if isinstance(value, list) and value and isinstance(value[0], list):
        return f"{len(value)} entries"
    if isinstance(value, list) and len(value) > _MANY:
        return f"{len(value)} values"
    return shorten(json.dumps(value, ensure_ascii=False))


def shorten(text: str) -> str:
    """A text that fits on a line, with what is no letter made visible."""
    line = printable(text.encode(errors="surrogateescape"))
    return line if len(line) <= _LONGEST else line[: _LONGEST - 1] + "…"


def call_title(interface: str, member: str, body: list[Any]) -> str:
    """A call on one line."""
    if interface == PROPERTIES and member == "Set" and len(body) == 3:
        return f"Set {body[1]} = {brief(body[2])}"
    if interface == PROPERTIES and member == "Get" and len(body) == 2:
        return f"Get {body[1]}"
    if interface == PROPERTIES and member == "GetAll":
        return "Get all properties"
    return f"{member}({', '.join(brief(argument) for argument in body)})"


def signal_title(interface: str, member: str, body: list[Any]) -> str:
    """A signal on one line."""
    if member == "PropertiesChanged" and body:
        values = body[1] if interface == PROPERTIES and len(body) > 1 else body[0]
        if isinstance(values, dict) and values:
            return ", ".join(f"{name} = {brief(value)}" for name, value in values.items())
    return f"signal {member}({', '.join(brief(value) for value in body)})"
