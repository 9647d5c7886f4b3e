"""The watchdog: a daemon whose loop goes round says so, one that hangs falls silent and is replaced by its service manager."""

from __future__ import annotations

import time
from pathlib import Path

import pytest
from vantora_sim import DEADLINE, Entry, World, changed, command, notify

PERIOD = 8.0
"""Seconds of the watchdog. A report is due after a quarter, at the latest after three quarters of it; the rest is for the
machine that runs the tests."""

WATCHED = {"WATCHDOG_USEC": str(int(PERIOD * 1e6))}
ALIVE = notify("WATCHDOG=1")


def reports_in_time(world: World, number: int) -> list[float]:
    """Wait for so many reports, and return the seconds that passed before each. The first is due at once."""
    passed: list[float] = []
    since, last = world.journal.find(notify("READY=1"))[0].index, time.monotonic()
    for _ in range(number):
        since = world.journal.wait_for(ALIVE, since=since).index + 1
        passed.append(time.monotonic() - last)
        last += passed[-1]
    return passed


def silent_for(world: World, seconds: float, since: int) -> bool:
    """Whether no report comes for so long: what a service manager waits for, and it knows no other way either."""
    end = time.monotonic() + seconds
    while time.monotonic() < end and world.journal.count(ALIVE, since) == 0:
        time.sleep(0.05)
    return world.journal.count(ALIVE, since) == 0


def test_a_daemon_that_is_watched_reports_itself_alive_within_each_period(world: World) -> None:
    world.up(environment=WATCHED)
    assert max(reports_in_time(world, 4)) < PERIOD


def test_reports_are_rare_however_busy_the_daemon_is(world: World) -> None:
    world.up(environment=WATCHED)
    began, mark = time.monotonic(), world.journal.mark()
    while time.monotonic() - began < PERIOD / 2:
        world.get("WiFiAvailableFrequencies")
    # One for each quarter that has begun, and one that was due before.
    assert world.journal.count(ALIVE, mark) <= (time.monotonic() - began) / (PERIOD / 4) + 2


def test_a_daemon_that_is_not_watched_reports_nothing(world: World) -> None:
    world.up()
    world.set("Mode", "Client")
    mark = world.journal.mark()
    # The name of a fresh association is announced two seconds later: two heartbeats, each an iteration of the loop.
    world.wpa.report_state("completed")
    world.journal.wait_for(changed("SSID"), since=mark)
    assert [entry.text for entry in world.journal.find(notify())] == ["READY=1"]


def test_a_daemon_that_hangs_in_a_tool_falls_silent_until_the_tool_is_let_go(world: World) -> None:
    world.up(environment=WATCHED)
    world.tools.iw.hang()
    mark = world.journal.mark()
    read = world.call_async("Get", "ss", ["com.vantora.Network1.WiFi", "Mode"], interface="org.freedesktop.DBus.Properties")
    hanging: Entry = world.journal.wait_for(command("iw dev wlan0 info"), since=mark)
    assert silent_for(world, PERIOD, hanging.index)
    assert not read.done()

    world.tools.iw.release()
    read.result(DEADLINE)
    world.journal.wait_for(ALIVE, since=hanging.index)


@pytest.mark.parametrize("environment", [pytest.param(WATCHED, id="watched"), pytest.param({}, id="not watched")])
def test_the_settings_daemon_reports_itself_alive_where_it_is_watched(
    world: World, build_dir: Path, environment: dict[str, str]
) -> None:
    world.settings.go()
    settingsd = world.sandbox.start(
        [build_dir / "vantora-settingsd", "--state", "/etc/korrin/settings.json"],
        {"NOTIFY_SOCKET": "/run/sim/notify", **environment},
    )
    world.journal.wait_for(notify("READY=1"))
    if environment:
        assert max(reports_in_time(world, 3)) < PERIOD
    assert settingsd.stop() == 0
    world.journal.wait_for(notify("STOPPING=1"))
    assert (world.journal.count(ALIVE) > 0) == bool(environment)
