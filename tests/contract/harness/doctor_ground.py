"""Running `vantora-doctor` in a world that is furnished like a device: fixture `device`, and what a run comes to."""

from __future__ import annotations

import contextlib
import json
import socket
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from typing import Any

import pytest

from vantora_sim import World
from vantora_sim.furniture import furnish

WORKS, WARNS, BROKEN, FAILED, USAGE = 0, 1, 2, 3, 64
"""The exit statuses."""

LONGEST = 75.0
"""Seconds within which it always ends, with a few to spare for a busy computer."""


@dataclass(frozen=True)
class Seen:
    """What the doctor said, as programs get it."""

    status: int
    findings: list[dict[str, Any]]
    mended: list[dict[str, Any]]

    @property
    def complaints(self) -> list[str]:
        """All that is neither good nor worth a note, as "level check: text"."""
        return [
            f"{one['level']} {one['check']}: {one['text']}" for one in self.findings if one["level"] not in ("good", "note")
        ]

    def text(self, check: str) -> str:
        """What is said of one matter."""
        return next(str(one["text"]) for one in self.findings if one["check"] == check)

    def mend(self, check: str) -> str:
        """What mends it."""
        return next(str(one["mend"]) for one in self.findings if one["check"] == check)


def look(world: World, *options: str, **environment: str) -> Seen:
    """Run it in the world's sandbox."""
    ran = world.sandbox.run([world.build / "vantora-doctor", "--json", *options], environment, timeout=LONGEST)
    assert ran.stderr == "", ran.stderr
    said = json.loads(ran.stdout)
    assert said["status"] == ran.status
    return Seen(ran.status, said["findings"], said["mended"])


@contextlib.contextmanager
def silent_bus(world: World) -> Iterator[str]:
    """A bus that takes connections and never says a word, for the time of this; its address within the sandbox."""
    path = world.sandbox.path("/run/silent-bus")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listening:
        listening.bind(str(path))
        listening.listen(8)
        yield "unix:path=/run/silent-bus"
    path.unlink()


@pytest.fixture
def bare(make_world: Callable[..., World]) -> World:
    """A device before the daemon is first started."""
    world = make_world()
    furnish(world)
    return world


@pytest.fixture
def device(bare: World) -> World:
    """A device on which all is well, in Host mode."""
    bare.up()
    return bare
