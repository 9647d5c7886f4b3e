"""Faults that take as long as the daemon waits on a device. All are tried at once, each in a world of its own: they only wait."""

from __future__ import annotations

from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor

import pytest
from fault_table import MODULES, neighbours_of
from faults import Neighbour, Row, try_row
from vantora_sim import World


def slow_rows() -> list[tuple[Neighbour, Row]]:
    return [(neighbour, row) for module in MODULES for neighbour in neighbours_of(module) for row in neighbour.slow_rows()]


@pytest.mark.timeout(240)
def test_neighbours_that_hang_are_waited_for_as_long_as_on_a_device(make_world: Callable[..., World]) -> None:
    rows = slow_rows()
    assert len(rows) == 8
    worlds = [make_world() for _ in rows]
    with ThreadPoolExecutor(len(rows)) as pool:
        tried = [
            (f"{neighbour.title}: {row.how}", pool.submit(try_row, world, row, neighbour.prepare))
            for (neighbour, row), world in zip(rows, worlds)
        ]
    failed = {name: future.exception() for name, future in tried if future.exception() is not None}
    assert failed == {}
