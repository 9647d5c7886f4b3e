"""The list of access points where wpa_supplicant has only its newer bus name, and the older one is stood in for."""

from __future__ import annotations

import time
from contextlib import ExitStack
from pathlib import Path

from vantora_sim import DEADLINE

from .device import DAEMON, Device
from .measure import Times, measure, ratio_of_medians
from .reads import row
from .report import Section, seconds

_COUNT = 1000
_GOAL = 1.60
_LIST = f"get:{DAEMON}:AccessPoints"


def older_name(build: Path, quick: bool) -> Section:
    """The daemon's list on two devices that take turns: one whose wpa_supplicant has both names, and one with the program."""
    count = 50 if quick else _COUNT
    turns = 4 if quick else 30
    with ExitStack() as stack:
        direct, through = (stack.enter_context(Device.booted(build, "Client")) for _ in range(2))
        direct.start_stand_in("access-points", str(count))
        through.start_stand_in("access-points", str(count), "newer")
        through.world.sandbox.start([build / "vantora-supplicant-names"])
        for device in (direct, through):
            device.start_daemon()
            _wait_for_list(device, count)
        value, floor = _in_turns(through, direct, turns)
    more = (value.median - floor.median) / count
    return Section(
        "9. AccessPoints through the older name",
        [row(f"AccessPoints, {count:,} BSSs", ratio_of_medians(value, floor), _GOAL)],
        [f"each BSS costs {seconds(more)} more; the floor is a wpa_supplicant that has both names"],
    )


def _wait_for_list(device: Device, count: int) -> None:
    deadline = time.monotonic() + DEADLINE
    while len(device.world.get("AccessPoints")) != count:
        assert time.monotonic() < deadline, "the list does not come"


def _in_turns(value: Device, floor: Device, turns: int) -> tuple[Times, Times]:
    times: dict[Device, list[list[float]]] = {value: [], floor: []}
    for turn in range(turns):
        for device in (value, floor) if turn % 2 == 0 else (floor, value):
            times[device] += measure(device.world, 1, 1, _LIST)[0].blocks
    return Times(times[value]), Times(times[floor])
