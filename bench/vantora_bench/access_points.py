"""The list of access points, which is one call for each of them."""

from __future__ import annotations

from pathlib import Path

from .device import DAEMON, Device
from .measure import Times, measure, ratio_of_medians
from .reads import row
from .report import Row, Section, seconds

_COUNTS = (10, 100, 1000)
_GOAL = 1.10
_GOAL_GROWTH = 0.10


def access_points(build: Path, quick: bool) -> Section:
    """Reading the list beside the same commands and calls made bare, for short and long lists."""
    counts = (10, 50, 100) if quick else _COUNTS
    rows: list[Row] = []
    times: list[Times] = []
    bare: list[Times] = []
    with Device.booted(build, "Client") as device:
        device.start_daemon()
        for count in counts:
            stand_in = device.start_stand_in("access-points", str(count))
            blocks = 4 if quick else max(30, min(120, 12_000 // count))
            value, floor, reading = measure(
                device.world, blocks, 1, f"get:{DAEMON}:AccessPoints", "access-points", "access-points:read"
            )
            stand_in.stop()
            rows += [
                row(f"AccessPoints, {count:,} BSSs", ratio_of_medians(value, floor), _GOAL),
                row(f"AccessPoints, {count:,} BSSs; the floor reads the answers", ratio_of_medians(value, reading), _GOAL),
            ]
            times.append(value)
            bare.append(reading)
    first, second = _cost_of_one(times, counts)
    bare_first, bare_second = _cost_of_one(bare, counts)
    # Calls cost more each where there are more of them, bare ones as well: only what is beyond that is ours.
    growth = second / first / (bare_second / bare_first) - 1
    rows.append(
        Row(
            f"cost of a BSS, {counts[1]:,} to {counts[2]:,} beside {counts[0]:,} to {counts[1]:,}",
            f"{second / first - 1:+.1%}",
            f"{bare_second / bare_first - 1:+.1%}",
            f"{growth:+.1%}",
            f"{_GOAL_GROWTH:+.0%}",
            growth <= _GOAL_GROWTH,
        )
    )
    return Section(
        "4. AccessPoints",
        rows,
        [
            f"cost of a BSS: {seconds(first)} in the short list, {seconds(second)} in the long one; "
            f"bare: {seconds(bare_first)} and {seconds(bare_second)}"
        ],
    )


def _cost_of_one(times: list[Times], counts: tuple[int, int, int]) -> tuple[float, float]:
    """Seconds for each BSS more, between the two short lists and between the two long ones."""
    few, some, many = (time.median for time in times)
    return (some - few) / (counts[1] - counts[0]), (many - some) / (counts[2] - counts[1])
