"""The worlds of the contract tests, with real programs in the place of the scripted hostapd and wpa_supplicant."""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/support"), str(ROOT / "simulator")]

from programs import ACCESS_POINT  # noqa: E402  (found through the line above)
from real_device import RealDevice  # noqa: E402
from vantora_sim import World  # noqa: E402

pytest_plugins = ["world_fixtures"]


@pytest.fixture
def make_device(make_world: Callable[..., World], build_dir: Path) -> Iterator[Callable[..., RealDevice]]:
    """Makes devices: `make_device("Host", hostapd_template=ACCESS_POINT)`; the daemon is up when it is returned."""
    devices: list[RealDevice] = []

    def make(mode: str, **arguments: Any) -> RealDevice:
        device = RealDevice(make_world(**arguments), build_dir)
        devices.append(device)
        device.up(mode)
        return device

    yield make
    for device in devices:
        device.close()
        assert device.services.failures == []


@pytest.fixture
def access_point(make_device: Callable[..., RealDevice]) -> RealDevice:
    """An access point without security, to whose hostapd the daemon has attached."""
    device = make_device("Host", hostapd_template=ACCESS_POINT)
    device.hostapd.wait_attached()
    return device


@pytest.fixture
def station(make_device: Callable[..., RealDevice]) -> RealDevice:
    """A station that has joined nothing, with wpa_supplicant ready."""
    device = make_device("Client")
    device.supplicant.wait_present()
    return device
