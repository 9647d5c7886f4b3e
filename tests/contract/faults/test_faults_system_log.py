"""The log daemon behind syslog(3): every way in which it may fail."""

from __future__ import annotations

import time
from concurrent.futures import Future
from pathlib import Path
from typing import Any

from faults import Impossible, Kind, Neighbour, Row
from vantora_sim import DEADLINE, Variant, World, log, notify

PERIOD = 4.0
WATCHED = {"WATCHDOG_USEC": str(int(PERIOD * 1e6))}
ALIVE = notify("WATCHDOG=1")

LOGGED = log("info", "Set 'SSID' property")
"""The only line of a write of the name that the access point has already."""

ANSWERED = "every request is answered"
LOST = "what is logged meanwhile is lost; the next line arrives"

NEIGHBOUR = Neighbour(
    "System log",
    "`/dev/log`, to which syslog(3) writes every line before the daemon goes on.",
    [
        Row(
            Kind.ABSENT,
            "no socket",
            text=ANSWERED,
            takes="at once",
            test="test_without_a_log_everything_else_works",
            after=LOST,
        ),
        Row(
            Kind.REFUSES,
            "nobody is behind the socket",
            text=ANSWERED,
            takes="at once",
            name="dead log",
            test="test_a_log_that_is_dead_holds_nothing_up",
            after=LOST,
        ),
        Row(
            Kind.HANGS,
            "takes nothing out of a queue that is full (10 lines, 512 with systemd)",
            takes="as long as it hangs, until the " "watchdog or SIGTERM ends the daemon",
            text="requests are answered when it goes on",
            after="nothing is lost",
            test="test_a_log_that_hangs_stops_the_daemon_until_it_goes_on",
        ),
        Row(
            Kind.HANGS,
            "the same, when the daemon is to end",
            takes="under 1 s",
            text="exit status 0",
            name="hangs at the end",
            after="the next start after the fault succeeds",
            test="test_a_log_that_hangs_does_not_keep_the_daemon_from_ending",
        ),
        Impossible((Kind.WRONG_TYPE, Kind.GARBAGE), "it is told and says nothing"),
        Row(
            Kind.DIES,
            "ends while the daemon waits for it",
            text="requests that waited are answered at once",
            takes="at once",
            after=LOST,
            test="test_a_log_that_dies_lets_go_of_the_daemon",
        ),
        Row(
            Kind.RESTARTS,
            "its socket is replaced by a new one",
            text=ANSWERED,
            takes="at once",
            after="the next line arrives at the new one",
            test="test_a_log_that_restarts_is_found_again",
        ),
        Impossible((Kind.FLOODS,), "it says nothing"),
    ],
)


def write_name(world: World) -> "Future[list[Any]]":
    """Write the SSID that the access point has: one line of the log, and nothing else is asked or done."""
    return world.call_async(
        "Set",
        "ssv",
        ["com.vantora.Network1.WiFi", "SSID", Variant("s", "Korrin One")],
        interface="org.freedesktop.DBus.Properties",
    )


def queue_length() -> int:
    """How many lines the log's socket holds at most."""
    return int(Path("/proc/sys/net/unix/max_dgram_qlen").read_text(encoding="utf-8"))


def silent(world: World) -> bool:
    """Whether the daemon does not report itself alive for a whole period of its watchdog."""
    since, end = world.journal.mark(), time.monotonic() + PERIOD
    while time.monotonic() < end and world.journal.count(ALIVE, since) == 0:
        time.sleep(0.05)
    return world.journal.count(ALIVE, since) == 0


def stand_still(world: World) -> "Future[list[Any]]":
    """Have the log hang and the daemon wait for it; returns the last of the requests that wait."""
    world.loop.call(world.log_daemon.hang)
    requests = [write_name(world) for _ in range(queue_length() + 100)]
    requests[0].result(DEADLINE)
    deadline = time.monotonic() + DEADLINE
    while not silent(world):
        assert time.monotonic() < deadline, "the daemon goes on"
    assert not requests[-1].done()
    return requests[-1]


def expect_logged(world: World) -> None:
    mark = world.journal.mark()
    assert write_name(world).result(DEADLINE) == []
    world.journal.wait_for(LOGGED, mark)


def test_without_a_log_everything_else_works(world: World) -> None:
    world.loop.call(world.log_daemon.die)
    world.log_daemon.path.unlink()
    world.start_daemon()
    world.wait_ready()
    world.wait_follows_addresses()
    assert write_name(world).result(DEADLINE) == []
    assert world.get("Mode") == "Host"
    assert world.journal.logs() == []
    world.loop.call(world.log_daemon.start)
    expect_logged(world)


def test_a_log_that_is_dead_holds_nothing_up(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    world.loop.call(world.log_daemon.die)
    for _ in range(queue_length() + 100):
        assert write_name(world).result(DEADLINE) == []
    assert world.journal.logs(mark) == []
    world.loop.call(world.log_daemon.start)
    expect_logged(world)


def test_a_log_that_hangs_stops_the_daemon_until_it_goes_on(world: World) -> None:
    world.up(environment=WATCHED)
    mark = world.journal.mark()
    last = stand_still(world)
    world.loop.call(world.log_daemon.release)
    assert last.result(DEADLINE) == []
    world.settle()
    assert world.journal.count(LOGGED, mark) == queue_length() + 100
    mark = world.journal.mark()
    world.journal.wait_for(ALIVE, mark)


def test_a_log_that_hangs_does_not_keep_the_daemon_from_ending(world: World) -> None:
    world.up(environment=WATCHED)
    stand_still(world)
    begin = time.monotonic()
    assert world.stop_daemon() == 0
    assert time.monotonic() - begin < 5  # 0.8 s, on a machine that has nothing else to do
    world.loop.call(world.log_daemon.release)
    world.up()


def test_a_log_that_dies_lets_go_of_the_daemon(world: World) -> None:
    world.up(environment=WATCHED)
    last = stand_still(world)
    world.loop.call(world.log_daemon.die)
    assert last.result(DEADLINE) == []
    world.loop.call(world.log_daemon.start)
    expect_logged(world)


def test_a_log_that_restarts_is_found_again(world: World) -> None:
    world.up()
    expect_logged(world)
    world.loop.call(world.log_daemon.die)
    world.loop.call(world.log_daemon.start)
    expect_logged(world)
