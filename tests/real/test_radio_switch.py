"""The real rfkill, in front of a kernel that is a pipe: one event for each radio at a listing, one order at a switch."""

from __future__ import annotations

import os
import struct
from collections.abc import Iterator
from contextlib import contextmanager

from vantora_sim import World, command

_EVENT = "=IBBBB"
_WLAN = 1
_ADD, _CHANGE_ALL = 0, 3


@contextmanager
def radio(world: World) -> Iterator[int]:
    """/dev/rfkill of the sandbox as a pipe, open for reading and writing."""
    path = world.sandbox.path("/dev/rfkill")
    os.mkfifo(path, 0o666)
    device = os.open(path, os.O_RDWR | os.O_NONBLOCK)
    try:
        yield device
    finally:
        os.close(device)


def feed(device: int, *, soft: bool) -> None:
    """What the kernel says of the one radio to the next listing."""
    os.write(device, struct.pack(_EVENT, 0, _WLAN, _ADD, soft, False))


def order(device: int) -> tuple[int, ...]:
    """The order that rfkill has given."""
    return struct.unpack(_EVENT, os.read(device, 8))


def test_state_of_the_radio_is_read_from_the_real_rfkill(world: World) -> None:
    world.up()
    with radio(world) as device:
        world.tools.rfkill.real(on="list wlan")
        for soft in (True, False):
            feed(device, soft=soft)
            assert world.get("WiFiState") == (0 if soft else 1)


def test_radio_is_switched_by_the_real_rfkill(world: World) -> None:
    world.up()
    with radio(world) as device:
        world.tools.rfkill.real(on="block wlan")
        mark = world.journal.mark()
        world.set("WiFiState", 0)
        world.journal.wait_for(command("rfkill block wlan"), mark)
        assert order(device) == (0, _WLAN, _CHANGE_ALL, 1, 0)
        world.tools.rfkill.real(on="unblock wlan")
        world.radio.soft_blocked = True
        world.set("WiFiState", 1)
        assert order(device) == (0, _WLAN, _CHANGE_ALL, 0, 0)
