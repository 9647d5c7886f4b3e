"""How long a bus that does not answer, or answers late, can put READY=1 off, and whether its unit waits that long."""

from __future__ import annotations

import contextlib
import re
import time
from pathlib import Path

import pytest
from faults import SHORT, SHORT_TIMEOUT, SLACK
from odd_bus import OddBus
from vantora_sim import World, log

ROOT = Path(__file__).parents[3]
CALL_TIMEOUT = 25
"""Seconds, where nothing shortens them."""


def documented_waits() -> int:
    """How many waits stand before READY=1, by the page on reliability: each as long as a call takes at most."""
    text = (ROOT / "docs/reliability.md").read_text().split("\n## How long may the start take?\n")[1].split("\n## ")[0]
    waits = [int(number) for number in re.findall(r"^\|(?! together).*\| (\d+) \|$", text, re.MULTILINE)]
    (total,) = (int(number) for number in re.findall(r"^\| together \| (\d+) \|$", text, re.MULTILINE))
    assert len(waits) == 4
    assert sum(waits) == total
    assert total % CALL_TIMEOUT == 0
    return total // CALL_TIMEOUT


def seconds_to_ready(world: World, environment: dict[str, str | None]) -> float:
    begin = time.monotonic()
    world.start_daemon(environment=environment)
    world.wait_ready()
    return time.monotonic() - begin


def test_the_unit_waits_longer_than_all_waits_together() -> None:
    text = (ROOT / "packaging/systemd/vantora-network.service.in").read_text()
    (minutes,) = re.findall(r"^TimeoutStartSec=(\d+)min$", text, re.MULTILINE)
    # Beside the waits there is a command that may be run three times; half a minute is plenty for that.
    assert int(minutes) * 60 >= documented_waits() * CALL_TIMEOUT + 30


@pytest.mark.parametrize("user", ["answers", "is silent", "lets in and is silent"])
@pytest.mark.parametrize("system", ["answers", "is silent", "lets in and is silent"])
def test_silent_buses_are_waited_for_no_longer_than_a_call_each_time(world: World, user: str, system: str) -> None:
    waits = 0
    with OddBus(world, world.user_bus) as users, OddBus(world, world.system_bus) as systems:
        if user != "answers":
            # The first connection is the one on which the daemon is reached: without it there is no start at all.
            users.admit(1, let_in_the_others=user.startswith("lets in"))
            waits += 2  # the settings daemon's signals, and the setting that is read
        if system != "answers":
            systems.admit(0, let_in_the_others=system.startswith("lets in"))
            waits += 1  # wpa_supplicant's signals
        took = seconds_to_ready(world, {**users.environment, **systems.environment, **SHORT})
        assert waits * SHORT_TIMEOUT - 0.1 <= took <= waits * SHORT_TIMEOUT + SLACK
        assert waits <= documented_waits()
        assert world.stop_daemon() == 0


def test_a_user_bus_that_never_lets_the_daemon_in_is_given_up_after_one_wait(world: World) -> None:
    with OddBus(world, world.user_bus) as bus:
        bus.be_silent()
        begin = time.monotonic()
        assert world.start_daemon(environment={**bus.environment, **SHORT}).wait() == 1
        assert SHORT_TIMEOUT - 0.1 <= time.monotonic() - begin <= SHORT_TIMEOUT + SLACK


def test_buses_that_answer_everything_late_are_waited_for_as_often_as_documented(world: World) -> None:
    late = 0.6
    with OddBus(world, world.user_bus) as users, OddBus(world, world.system_bus) as systems:
        users.slow_down(late)
        systems.slow_down(late)
        took = seconds_to_ready(world, {**users.environment, **systems.environment})
        # Each message is a wait, and the next one, of the start-up proper, is still being held back.
        assert users.handled + systems.handled == documented_waits()
        assert took >= documented_waits() * late
        users.behave()
        systems.behave()
        world.wait_up()
        assert world.stop_daemon() == 0


@pytest.mark.parametrize("verb", ["enable", "disable"])
def test_enabling_and_disabling_are_over_after_five_seconds_also_when_the_bus_lets_nobody_in(world: World, verb: str) -> None:
    begun = {
        "enable": log("info", "[Utils] Trying to enable /etc/korrin/udhcpd_eth0.service"),
        "disable": log("err", "[Utils] Failed to stop '' unit. Invalid argument (r = -22)"),
    }[verb]
    text = f"[Utils] utils_{verb}_service Error building/calling {verb.capitalize()}UnitFiles: -107"
    # A little longer than five seconds: what comes before is waited for so long, and it shows what ends the wait.
    world.start_daemon(environment={"SYSTEMD_BUS_TIMEOUT": "7s"})
    world.wait_up()
    mark = world.journal.mark()
    if verb == "disable":
        world.add_address("10.0.0.1/24", "eth0")
        world.journal.wait_for(log("info", "Successfully enabled and started udhcpd_eth0.service"), mark)
    with contextlib.ExitStack() as stack:
        world.system_bus.freeze()
        stack.callback(world.system_bus.thaw)
        if verb == "enable":
            world.add_address("10.0.0.1/24", "eth0")
        else:
            world.remove_address("10.0.0.1/24", "eth0")
        world.journal.wait_for(begun, mark, timeout=60)
        begin = time.monotonic()
        world.journal.wait_for(log("err", text), mark, timeout=60)
        assert 4.8 <= time.monotonic() - begin <= 5 + 1.5
