"""The client never has the bus start the daemon: where nobody runs it, somebody decided that."""

from __future__ import annotations

from pathlib import Path

import pytest
from vantora_sim import DEADLINE, World
from vantora_sim.dbus_fake import CallRefused
from wifi_client import COMMANDS, UNREACHABLE, Way

NAME = "com.vantora.Network1"


@pytest.fixture
def started(world: World) -> Path:
    """A file that appears when the user bus starts what its activation file says."""
    trace = world.work / "started"
    folder = world.work / "dbus-1/services"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / f"{NAME}.service").write_text(f"[D-BUS Service]\nName={NAME}\nExec=/bin/sh -c '/usr/bin/touch {trace}; exit 1'\n")
    world.call_service_async("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReloadConfig").result(
        DEADLINE
    )
    return trace


def test_no_command_starts_the_daemon(world: World, started: Path, way: Way) -> None:
    for arguments in COMMANDS:
        assert way.run(world, *arguments) == way.ended(
            UNREACHABLE, stderr=f"vantora-wifi: the daemon is not running (nobody owns {NAME})\n"
        ), arguments
    assert not started.exists()


def test_any_other_caller_does_start_it(world: World, started: Path) -> None:
    """So the test above has something to avoid."""
    with pytest.raises(CallRefused):
        world.call("Scan")
    assert started.exists()
