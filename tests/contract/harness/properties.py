"""Reading a property with everything that can be seen of it."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any

from vantora_sim import World


@dataclass
class Reading:
    """One read of a property: type and value, all lines logged meanwhile, and all commands run, each in order."""

    signature: str
    value: Any
    logs: list[tuple[str, str]] = field(default_factory=list)
    commands: list[str] = field(default_factory=list)


def read(world: World, name: str) -> Reading:
    """Read a property of a daemon that has nothing else to do."""
    world.settle()
    mark = world.journal.mark()
    value = world.get_variant(name)
    world.settle()
    return Reading(value.signature, value.value, world.journal.logs(mark), world.journal.commands(mark))
