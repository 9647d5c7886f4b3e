"""From the first log line to READY=1, the two ways in which the start fails, and the heartbeat."""

from __future__ import annotations

import errno
import re
import time
from pathlib import Path

import pytest
from odd_bus import HANGS_UP, OddBus
from vantora_sim import DEADLINE, Process, World, call, command, log, notify
from vantora_sim.client import SERVICE, Client

BASE = "com.vantora.common.Settings1"
STARTING = ("info", "[Main] Starting Vantora Network service")
READY = notify("READY=1")
KILL = "killWifiOnBoot"


def logs_until_setup(world: World) -> list[tuple[str, str]]:
    """All log lines before the deferred start-up, the listener's address in memory made the same for all."""
    last = world.journal.wait_for(log("info", "Setup initial WiFi mode"))
    lines = [
        (entry.priority, entry.text) for entry in world.journal.since() if entry.kind == "log" and entry.index <= last.index
    ]
    return [(priority, re.sub(r"0x[0-9a-f]+$", "ADDRESS", text)) for priority, text in lines]


STATION_LISTENER = [
    ("info", "[WPA] Initialize WPA Supplicant"),
    ("info", "[WPA Listener] Start. ADDRESS"),
    ("info", "[WPA Listener] Start listening"),
    ("info", "[WPA Listener] Start completed"),
]
SETUP = ("info", "Setup initial WiFi mode")


def test_log_lines_come_under_the_programs_own_name_without_a_process_id(world: World) -> None:
    world.up()
    assert {(entry.ident, entry.pid) for entry in world.journal.since() if entry.kind == "log"} == {("vantora-network", None)}


def test_start_up_takes_its_steps_in_order_and_logs_nothing_else(world: World) -> None:
    world.up()
    assert logs_until_setup(world) == [STARTING, *STATION_LISTENER, SETUP]
    world.journal.expect_in_order(
        [
            log(*STARTING),
            log("info", "[WPA] Initialize WPA Supplicant"),
            log("info", "[WPA Listener] Start completed"),
            call(
                "Get",
                BASE,
                KILL,
                bus="user",
                destination=BASE,
                path="/com/vantora/common/Settings1/development",
                interface="org.freedesktop.DBus.Properties",
                signature="ss",
            ),
            READY,
            log(*SETUP),
        ]
    )
    first_command = world.journal.find(command())[0]
    assert first_command.index > world.journal.find(READY)[0].index, "the radio was touched before the deferred start-up"


def test_ready_is_told_once_and_nothing_else_is(world: World) -> None:
    world.up()
    world.set("Mode", "Client")
    world.settle()
    assert [entry.text for entry in world.journal.find(notify())] == ["READY=1"]


def test_the_object_answers_by_the_time_of_ready(world: World) -> None:
    world.start_daemon()
    world.wait_ready()
    assert world.name_owned()
    assert world.get("WiFiAvailableFrequencies") == ["5", "2.4"]


def test_arguments_are_ignored(world: World, build_dir: Path) -> None:
    script = world.sandbox.path("/run/with-arguments")
    script.write_text(f"#!/bin/sh\nexec {build_dir}/vantora-network --help -v extra\n")
    script.chmod(0o755)
    world.start_daemon(Path("/run/with-arguments"))
    world.wait_up()
    assert logs_until_setup(world)[0] == STARTING
    assert world.daemon is not None and world.daemon.stdout == world.daemon.stderr == ""


# The start fails

BUS_LOST = {"DBUS_SESSION_BUS_ADDRESS": None, "XDG_RUNTIME_DIR": None}


@pytest.mark.parametrize(
    ("environment", "error"),
    [
        pytest.param(BUS_LOST, -123, id="no address"),
        pytest.param({"DBUS_SESSION_BUS_ADDRESS": "unix:path=/run/user/0/absent"}, -2, id="no socket"),
        pytest.param({"DBUS_SESSION_BUS_ADDRESS": None, "XDG_RUNTIME_DIR": "/run"}, -2, id="no bus in the runtime folder"),
    ],
)
def test_without_a_user_bus_it_says_so_once_and_exits_1(world: World, environment: dict[str, str | None], error: int) -> None:
    daemon = world.start_daemon(environment=environment)
    assert daemon.wait() == 1
    assert_failed_start(world, error)


def test_a_user_bus_at_which_nobody_listens_any_more_ends_it_likewise(world: World) -> None:
    world.sandbox.path("/run/listen").write_text(
        "import socket; s = socket.socket(socket.AF_UNIX); s.bind('/run/dead'); s.listen(); s.close()"
    )
    assert world.sandbox.run(["/usr/bin/python3", "/run/listen"]).status == 0
    daemon = world.start_daemon(environment={"DBUS_SESSION_BUS_ADDRESS": "unix:path=/run/dead"})
    assert daemon.wait() == 1
    assert_failed_start(world, -111)


@pytest.mark.parametrize("moment", HANGS_UP)
def test_a_user_bus_that_takes_the_connection_and_hangs_up_ends_it_likewise(world: World, moment: str) -> None:
    # Several times: at which of its own steps the daemon finds out differs from start to start.
    with OddBus(world, world.user_bus) as bus:
        bus.hang_up(moment)
        for _ in range(5):
            mark = world.journal.mark()
            assert world.start_daemon(environment=dict(bus.environment)).wait() == 1
            assert_failed_start_by_one_of(world, {-errno.EPIPE, -errno.ECONNRESET, -errno.ENOTCONN}, mark)


@pytest.mark.parametrize("address", ["tcp:host=127.0.0.1,port=1", "unixexec:path=/bin/false", "unixexec:path=/bin/true"])
def test_an_address_behind_which_there_is_no_bus_ends_it_likewise(world: World, address: str) -> None:
    assert world.start_daemon(environment={"DBUS_SESSION_BUS_ADDRESS": address}).wait() == 1
    assert_failed_start_by_one_of(world, {-errno.EPIPE, -errno.ECONNRESET, -errno.ENOTCONN, -errno.ECONNREFUSED})


def test_a_user_bus_that_is_killed_while_it_is_waited_for_ends_it_likewise(world: World) -> None:
    world.user_bus.freeze()
    daemon = world.start_daemon()
    world.journal.wait_for(log(*STARTING))
    world.user_bus.stop()
    assert daemon.wait() == 1
    assert_failed_start_by_one_of(world, {-errno.ENOENT, -errno.EPIPE, -errno.ECONNRESET, -errno.ENOTCONN, -errno.ECONNREFUSED})


def test_a_name_that_another_process_owns_ends_it_likewise(world: World) -> None:
    world.up()
    first, mark = world.daemon, world.journal.mark()
    second = world.start_daemon()
    assert second.wait() == 1
    assert_failed_start(world, -17, mark)
    assert first is not None and first.running
    assert world.get("Mode") == "Host"
    world.daemon = first


def test_a_name_that_its_owner_would_give_away_is_not_taken_either(world: World) -> None:
    allow_replacement = 1
    owner = world.loop.run(Client.open(world.user_bus.address))
    assert world.loop.run(owner.ask_bus("RequestName", "su", [SERVICE, allow_replacement])) == [1]
    assert world.start_daemon().wait() == 1
    assert_failed_start(world, -17)
    world.loop.run(owner.close())


def assert_failed_start_by_one_of(world: World, errors: set[int], since: int = 0) -> None:
    """The same where it depends on the moment which of the daemon's steps fails."""
    found = re.fullmatch(r"\[Main\] Failed to connect to dbus: (-\d+), exiting \.\.\.", world.journal.logs(since)[-1][1])
    assert found is not None and int(found[1]) in errors, world.journal.logs(since)
    assert_failed_start(world, int(found[1]), since)


def assert_failed_start(world: World, error: int, since: int = 0) -> None:
    assert world.journal.logs(since) == [STARTING, ("err", f"[Main] Failed to connect to dbus: {error}, exiting ...")]
    assert world.journal.count(notify(), since) == 0
    assert world.journal.count(call(), since) == 0
    assert world.journal.count(command(), since) == 0


# Killing the radio at boot


def test_radio_is_blocked_before_ready_when_the_setting_says_so(world: World) -> None:
    world.settings.set("development", KILL, True)
    world.settings.set("network", "enabled", False)
    world.up()
    assert logs_until_setup(world) == [
        STARTING,
        *STATION_LISTENER,
        ("info", "[Main] main: Killing Wi-Fi on boot"),
        ("info", "[WiFi] Enable wifi: False"),
        ("info", 'utils_do_system_call: trying "rfkill block wlan"...'),
        SETUP,
    ]
    world.journal.expect_in_order([call("Get"), command("rfkill block wlan"), READY, log(*SETUP)])
    assert world.get("WiFiState") == 0


def test_deferred_start_up_may_switch_a_killed_radio_on_again(world: World) -> None:
    world.settings.set("development", KILL, True)
    world.up()
    world.journal.expect_in_order([command("rfkill block wlan"), READY, log(*SETUP), command("rfkill unblock wlan")])
    assert world.get("WiFiState") == 1


def test_a_radio_that_cannot_be_killed_holds_up_nothing(world: World) -> None:
    world.settings.set("development", KILL, True)
    world.tools.rfkill.fail(on="block wlan")
    world.up()
    failed = [
        ("err", "utils_do_system_call: system call failed: 256"),
        ("err", 'utils_do_system_call: retrying "rfkill block wlan"...'),
    ]
    assert logs_until_setup(world)[len(STATION_LISTENER) + 1 :] == [
        ("info", "[Main] main: Killing Wi-Fi on boot"),
        ("info", "[WiFi] Enable wifi: False"),
        ("info", 'utils_do_system_call: trying "rfkill block wlan"...'),
        *failed * 3,
        ("err", "wifi_set_enabled: Unable to power off wifi, error: 256"),
        SETUP,
    ]


@pytest.mark.parametrize("fault", ["refused", "absent", "wrong type"])
def test_a_setting_that_cannot_be_read_counts_as_false(world: World, fault: str) -> None:
    if fault == "refused":
        world.settings.refuse("Get", on="development.killWifiOnBoot")
    elif fault == "absent":
        world.settings.go()
    else:
        world.settings.set("development", KILL, "true")
    world.start_daemon()
    lines = logs_until_setup(world)
    assert lines[: len(STATION_LISTENER) + 1] == [STARTING, *STATION_LISTENER]
    assert lines[-2:] == [("warning", f"Failed to get '{KILL}' setting"), SETUP]
    assert len(lines) == len(STATION_LISTENER) + 4  # and one line of the settings client itself
    assert world.journal.count(READY) == 1
    assert world.journal.count(command("rfkill block wlan")) == 0


# The heartbeat


def voluntary_switches(daemon: Process, thread: int) -> int:
    """How often a thread has gone to sleep by itself: once for each time that it was woken."""
    status = Path(f"/proc/{daemon.pid}/task/{thread}/status").read_text(encoding="utf-8")
    return int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status, re.MULTILINE)[1])  # type: ignore[index]


def wait_for_switches(daemon: Process, count: int) -> float:
    """Wait until the main thread has gone to sleep so many times; returns the time at which it was seen."""
    deadline = time.monotonic() + DEADLINE
    while voluntary_switches(daemon, daemon.pid) < count:
        assert time.monotonic() < deadline, "the main loop sleeps"
        time.sleep(0.002)
    return time.monotonic()


def test_an_idle_loop_wakes_once_a_second_and_no_more(world: World) -> None:
    beats = 4
    daemon = world.up()
    start = voluntary_switches(daemon, daemon.pid) + 1
    begin = wait_for_switches(daemon, start)  # right after a beat
    elapsed = wait_for_switches(daemon, start + beats) - begin
    # The timer may be up to a quarter of a second late each time; a loaded machine adds to the end only.
    assert beats * 1.0 - 0.1 < elapsed < beats * 1.25 + 2
