"""What the page knows of the daemon's object, where two ways of hearing of it cross."""

from __future__ import annotations

import asyncio
from typing import Any

import pytest
from dbus_next import Variant
from vantora_sim.desk import surface as module
from vantora_sim.desk.surface import Surface

NAME = "WiFiAccessPointInitialised"


class SlowReader:
    """A connection on which an answer is under way for as long as a test wants."""

    unique_name = ":1.1"

    def __init__(self) -> None:
        self.asked = asyncio.Event()
        self.arrives = asyncio.Event()

    async def get(self, _name: str) -> Variant:
        """Read a property: it was false when the daemon answered."""
        self.asked.set()
        await self.arrives.wait()
        return Variant("b", False)

    async def close(self) -> None:
        """Disconnect."""


@pytest.mark.parametrize("announced", [True, False], ids=["announced meanwhile", "left alone"])
def test_what_is_announced_is_newer_than_an_answer_that_was_under_way(monkeypatch: pytest.MonkeyPatch, announced: bool) -> None:
    async def cross() -> dict[str, Any]:
        reader, read = SlowReader(), asyncio.Event()

        async def open_reader(_address: str) -> SlowReader:
            return reader

        monkeypatch.setattr(module.Client, "open", open_reader)
        surface = Surface(lambda: read.set() if reader.arrives.is_set() else None)
        await surface.open("nowhere")
        surface.members["properties"] = [{"name": NAME, "signature": "b", "access": "read"}]
        surface.refresh()
        await asyncio.wait_for(reader.asked.wait(), 30)
        if announced:
            surface.announced({NAME: True})
        reader.arrives.set()
        await asyncio.wait_for(read.wait(), 30)
        await surface.close()
        return surface.values

    assert asyncio.run(cross()) == {NAME: announced}
