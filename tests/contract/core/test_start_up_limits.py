"""A system that has no descriptor or no thread to spare: the start ends with a line, or the daemon runs and can be ended."""

from __future__ import annotations

import errno
import re
from pathlib import Path

import pytest
from model.life import is_sanitized
from vantora_sim import Process, World, exited, log, notify

LOADER_NEEDS = 4
"""With fewer descriptors no program can even be loaded: the loader says so, and nothing of the daemon has run."""
ENOUGH = 25
ENDS = re.compile(rf"\[Main\] Failed to .*: -{errno.EMFILE}, exiting \.\.\.")
"""Whichever step lacks a descriptor, the line has its error, and not one that follows from it."""
READY = notify("READY=1")


def start_limited(world: World, build_dir: Path, limit: str) -> Process:
    script = world.sandbox.path("/run/limited")
    script.write_text(f"#!/bin/bash\nulimit {limit}\nexec {build_dir}/vantora-network\n")
    script.chmod(0o755)
    return world.start_daemon(Path("/run/limited"))


def ready_or_ended(world: World, daemon: Process, since: int) -> bool:
    """Wait for the one or the other; whether it was READY=1."""
    ended = exited(daemon.name)
    entry = world.journal.wait_until(
        lambda: next((entry for entry in world.journal.since(since) if READY.matches(entry) or ended.matches(entry)), None),
        "the daemon to be ready, or to end",
    )
    return READY.matches(entry)


def test_with_any_number_of_descriptors_it_ends_with_a_line_or_can_be_ended(world: World, build_dir: Path) -> None:
    outcomes = {}
    # A sanitizer that looks at an object's type opens a pipe for it, and without one takes the object for a broken one.
    fewest = ENOUGH - 2 if is_sanitized(build_dir) else LOADER_NEEDS
    for number in range(fewest, ENOUGH + 1):
        mark = world.journal.mark()
        daemon = start_limited(world, build_dir, f"-n {number}")
        if ready_or_ended(world, daemon, mark):
            assert daemon.stop() == 0, f"{number} descriptors"
            outcomes[number] = "runs"
        else:
            lines = world.journal.logs(mark)
            assert daemon.wait() == 1, f"{number} descriptors"
            assert lines[0] == ("info", "[Main] Starting Vantora Network service"), f"{number} descriptors"
            assert lines[-1][0] == "err" and ENDS.fullmatch(lines[-1][1]), f"{number} descriptors: {lines}"
            outcomes[number] = lines[-1][1]
    assert outcomes[ENOUGH] == "runs"
    if fewest == LOADER_NEEDS:
        assert outcomes[LOADER_NEEDS] == "[Main] Failed to set up the stop signals: -24, exiting ..."
        assert "[Main] Failed to connect to dbus: -24, exiting ..." in outcomes.values()
    # Once there are enough to run there are with each further one.
    first = min(number for number, outcome in outcomes.items() if outcome == "runs")
    assert all(outcomes[number] == "runs" for number in range(first, ENOUGH + 1))


def test_without_even_enough_to_be_loaded_the_start_ends_by_itself(world: World, build_dir: Path) -> None:
    assert start_limited(world, build_dir, f"-n {LOADER_NEEDS - 1}").wait() not in (0, 1)
    assert world.journal.count(READY) == 0


def test_a_thread_that_cannot_be_created_ends_the_start(world: World, build_dir: Path) -> None:
    if b"__tsan_init" in (build_dir / "vantora-network").read_bytes():
        pytest.skip("the thread sanitizer itself cannot run under such a limit; thread_start_test lacks threads under it, too")
    # A thread's stack is as large as the limit, and of this size there is none to be had.
    daemon = start_limited(world, build_dir, "-s 70000000000")
    assert daemon.wait() == 1
    assert world.journal.logs() == [
        ("info", "[Main] Starting Vantora Network service"),
        ("err", "[Main] Failed to create a thread: -11, exiting ..."),
    ]
    assert world.journal.count(READY) == 0


@pytest.mark.parametrize("missing", ["/run/nowhere/notify"])
def test_a_service_manager_that_cannot_be_told_that_it_is_ready_ends_the_start(world: World, missing: str) -> None:
    assert world.start_daemon(environment={"NOTIFY_SOCKET": missing}).wait() == 1
    world.journal.wait_for(log("err", "[Main] Failed to set up the word that the start is over: -2, exiting ..."))


def test_a_watchdog_that_cannot_be_set_up_ends_the_start(world: World) -> None:
    # A time span that is no number.
    assert world.start_daemon(environment={"WATCHDOG_USEC": "soon"}).wait() == 1
    assert world.journal.logs()[-1] == ("err", "[Main] Failed to set up the watchdog: -22, exiting ...")
    assert world.journal.count(READY) == 0
