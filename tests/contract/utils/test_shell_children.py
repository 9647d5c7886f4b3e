"""What the commands that the daemon runs inherit from it: the standard descriptors, and no signal blocked or ignored."""

from __future__ import annotations

import contextlib
import os
import re
import time
from pathlib import Path

import pytest
from vantora_sim import DEADLINE, Variant, World, command

C_LIBRARYS_OWN = (1 << (32 - 1)) | (1 << (33 - 1))
"""Signals with which the C library manages threads: it sees to them itself in every program."""


def descendants(pid: int) -> list[int]:
    """All processes below a process, its threads' children included."""
    found: list[int] = []
    for children in Path(f"/proc/{pid}/task").glob("*/children"):
        for child in map(int, children.read_text().split()):
            found += [child, *descendants(child)]
    return found


def wait_for_descendants(pid: int, names: set[str]) -> dict[int, str]:
    """Wait until the processes below a process are the ones of these names; returns them by process id."""
    deadline = time.monotonic() + DEADLINE
    while True:
        try:
            found = {child: Path(f"/proc/{child}/comm").read_text(encoding="utf-8").strip() for child in descendants(pid)}
        except OSError:  # one has just ended
            found = {}
        if sorted(found.values()) == sorted(names):
            return found
        assert time.monotonic() < deadline, found
        time.sleep(0.005)


def signal_mask(pid: int, name: str) -> int:
    """One of the signal masks in /proc/PID/status, for instance "SigBlk"."""
    status = Path(f"/proc/{pid}/status").read_text(encoding="utf-8")
    return int(re.search(rf"^{name}:\s*([0-9a-f]+)$", status, re.MULTILINE)[1], 16)  # type: ignore[index]


def wait_for_open_mask(pid: int) -> None:
    """Wait until a process blocks no signal: the shell does for a moment while it starts a command."""
    deadline = time.monotonic() + DEADLINE
    while signal_mask(pid, "SigBlk") != 0:
        assert time.monotonic() < deadline, f"blocked: {signal_mask(pid, 'SigBlk'):x}"
        time.sleep(0.005)


def descriptors(pid: int) -> dict[int, str]:
    """The open descriptors of a process; one that is closed meanwhile is left out."""
    found: dict[int, str] = {}
    for entry in Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):
            found[int(entry.name)] = os.readlink(entry)
    return found


def wait_for_descriptors(pid: int, numbers: set[int]) -> None:
    """Wait until a process has exactly these open: the shell closes its pipe a moment after it has started the last command."""
    deadline = time.monotonic() + DEADLINE
    while set(opened := descriptors(pid)) != numbers:
        assert time.monotonic() < deadline, opened
        time.sleep(0.005)


@pytest.mark.parametrize(
    ("tool", "line", "processes"),
    [
        ("rfkill", "rfkill list wlan", {"sh", "rfkill", "tail"}),  # its output is read through a pipe
        ("rfkill", "rfkill block wlan", {"sh", "rfkill"}),  # it is only waited for
    ],
)
def test_commands_start_with_default_signals_and_standard_descriptors_only(
    world: World, tool: str, line: str, processes: set[str]
) -> None:
    daemon = world.up()
    world.hostapd.wait_attached()  # its socket is one that the library does not close in children
    assert signal_mask(daemon.pid, "SigBlk") != 0, "the daemon itself takes its signals from a descriptor"
    world.tools[tool].hang(on=line.split(maxsplit=1)[1])
    mark = world.journal.mark()
    writing = world.call_async(
        "Set", "ssv", ["com.vantora.Network1.WiFi", "WiFiState", Variant("u", 0)], interface="org.freedesktop.DBus.Properties"
    )
    world.journal.wait_for(command(line), mark)
    children = wait_for_descendants(daemon.pid, processes)
    for pid, name in children.items():
        wait_for_open_mask(pid)
        assert signal_mask(pid, "SigIgn") & ~C_LIBRARYS_OWN == 0
        wait_for_descriptors(pid, {0, 1, 2, 3} if name == tool else {0, 1, 2})  # 3: the stand-in's connection to the world
    world.clear_faults()
    writing.result(20)
