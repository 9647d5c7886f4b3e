"""The user bus, on which the daemon is reached: every way in which it may fail.

Nearly all of them end the daemon, and what is shown is that it comes back with its state.
"""

from __future__ import annotations

import time
from collections.abc import Callable

import pytest
from dbus_next.aio import MessageBus
from faults import SHORT, SHORT_TIMEOUT, SLACK, Kind, Line, Neighbour, Row, try_row
from odd_bus import OddBus, odd_bus
from supervisor import Supervisor
from test_faults_settings_daemon import asked as settings_fail
from test_faults_settings_daemon import prepare
from vantora_sim import DEADLINE, Variant, World, call, changed, log
from vantora_sim.client import SERVICE
from vantora_sim.dbus_fake import connect, disconnect

STARTING = ("info", "[Main] Starting Vantora Network service")
ODD = {"DBUS_SESSION_BUS_ADDRESS": "unix:path=/run/odd-user-bus"}
NOT_LET_IN = "Transport endpoint is not connected"
COMES_UP = "the next start after the fault succeeds"
COMES_BACK = "started again by its unit; mode, SSID and all announcements are back"
ENDS = "the connection breaks; the daemon ends with status 0"


def failed_start(error: int) -> Line:
    return "err", f"[Main] Failed to connect to dbus: {error}, exiting ..."


def not_started(
    kind: Kind,
    how: str,
    test: str,
    error: int,
    *,
    name: str = "",
    takes: str = "at once",
    text: str = "nobody can ask; exit status 1",
) -> Row:
    """A fault with which no start succeeds."""
    return Row(kind, how, name=name, test=test, text=text, lines=[failed_start(error)], takes=takes, after=COMES_UP)


ABOUT = "A daemon that nobody can reach is worth nothing: without its bus it ends, and its unit starts it anew."

NEIGHBOUR = Neighbour(
    "User bus",
    ABOUT,
    [
        not_started(Kind.ABSENT, "no socket", "test_without_a_bus_it_is_started_until_there_is_one", -2),
        not_started(
            Kind.REFUSES, "lets nobody in", "test_a_bus_that_lets_nobody_in_is_tried_again", -107, name="lets nobody in"
        ),
        not_started(
            Kind.REFUSES,
            "the name is somebody else's",
            "test_a_name_that_is_taken_is_asked_for_again",
            -17,
            name="name taken",
            text="the other one answers; exit status 1",
        ),
        Row(
            Kind.REFUSES,
            "refuses further connections, and so those to the settings daemon",
            settings_fail(NOT_LET_IN),
            lambda world: odd_bus(world).reject(),
            end=lambda world: odd_bus(world).behave(),
            environment=ODD,
            name="refuses further connections",
        ),
        not_started(
            Kind.HANGS,
            "takes the connection and says nothing, at the start",
            "test_a_bus_that_hangs_at_the_start_is_given_up_and_tried_again",
            -107,
            name="hangs at the start",
            takes="25 s",
        ),
        Row(
            Kind.HANGS,
            "passes nothing on for a while",
            name="hangs while the daemon runs",
            test="test_a_bus_that_hangs_for_a_while_loses_nothing",
            text="requests and announcements come when it goes on",
            takes="as long as it hangs",
        ),
        Row(
            Kind.HANGS,
            "takes no further connection in, and so none to the settings daemon",
            settings_fail(NOT_LET_IN, SHORT_TIMEOUT),
            lambda world: odd_bus(world).be_silent(),
            end=lambda world: odd_bus(world).behave(),
            environment={**ODD, **SHORT},
            name="hangs for further connections",
        ),
        not_started(
            Kind.WRONG_TYPE,
            "answers the request for the name with another type",
            "test_an_answer_of_another_type_ends_the_start",
            -6,
        ),
        Row(
            Kind.GARBAGE,
            "sends bytes that mean nothing",
            test="test_bytes_that_mean_nothing_end_the_daemon_which_comes_back",
            text=ENDS,
            takes="at once",
            after=COMES_BACK,
        ),
        Row(
            Kind.DIES,
            "is killed while a mode is being changed",
            test="test_a_bus_that_dies_in_the_middle_of_a_change_keeps_what_was_stored",
            text=ENDS + ", after the change",
            takes="at once",
            after=COMES_BACK + "; the mode is the new one",
        ),
        not_started(
            Kind.DIES,
            "hangs up on the daemon that is being let in, at the start",
            "test_start_up.py::test_a_user_bus_that_takes_the_connection_and_hangs_up_ends_it_likewise",
            -107,
            name="hangs up at the start",
        ),
        Row(
            Kind.RESTARTS,
            "with `user@0.service`",
            test="test_a_restart_of_the_bus_is_one_of_the_daemon",
            text=ENDS,
            takes="under 1 s (`test_clean_end.py`)",
            after=COMES_BACK,
        ),
        Row(
            Kind.FLOODS,
            "1,500 notifications of the settings daemon",
            text="a request is answered between two of them",
            takes="under 1 s",
            test="test_settings_notifications.py::test_a_flood_of_notifications_keeps_a_request_waiting_for_less_than_a_second",
        ),
        Row(
            Kind.FLOODS,
            "2,000 requests of four clients, wrong in most ways",
            text="each is answered; nothing is changed",
            takes="at once",
            test="test_bus_load.py::test_two_thousand_random_requests_are_all_answered_and_change_nothing",
        ),
    ],
    prepare,
)


@pytest.mark.parametrize("row", NEIGHBOUR.parameters())
def test_fault(world: World, row: Row) -> None:
    with OddBus(world, world.user_bus):
        try_row(world, row, NEIGHBOUR.prepare)
        assert world.stop_daemon() == 0


def furnish(world: World) -> None:
    """A device whose state is not the default one."""
    world.settings.set("device", "deviceName", "Attic")
    world.settings.set("network", "frequency", "5")


def assert_state_is_back(world: World, since: int, mode: str = "Host") -> None:
    """A restarted daemon is what it was, and has said so."""
    world.journal.expect_in_order([log(*STARTING), changed("WiFiState", 1), changed("Mode", mode)], since)
    assert (world.get("WiFiState"), world.get("Mode")) == (1, mode)
    assert (world.get("SSID"), world.get("WiFiFrequency")) == (("Attic", "5") if mode == "Host" else ("", ""))
    if mode == "Host":
        world.hostapd.wait_attached()


def assert_comes_up_after(
    world: World, error: int, mend: Callable[[], None], environment: dict[str, str | None] | None = None, waits: float = 0.0
) -> None:
    """Each start fails with this error; after the mending one succeeds."""
    furnish(world)
    begin = time.monotonic()
    with Supervisor(world, environment) as supervisor:
        supervisor.wait_started_again()
        took = time.monotonic() - begin
        with supervisor.holding_back():
            world.journal.wait_until(lambda: len(supervisor.ends) == supervisor.starts, "the end of what was started")
            assert set(supervisor.ends) == {1}
            assert world.journal.logs() == [STARTING, failed_start(error)] * supervisor.starts
            mend()
            mark = world.journal.mark()
        supervisor.wait_up_again(mark)
    assert waits <= took <= waits + SLACK
    assert_state_is_back(world, mark)


def test_without_a_bus_it_is_started_until_there_is_one(world: World) -> None:
    world.user_bus.stop()
    assert_comes_up_after(world, -2, world.bring_user_bus_back)


def test_a_bus_that_lets_nobody_in_is_tried_again(world: World) -> None:
    with OddBus(world, world.user_bus) as bus:
        bus.reject()
        assert_comes_up_after(world, -107, bus.behave, dict(bus.environment))
        assert world.stop_daemon() == 0


def test_a_name_that_is_taken_is_asked_for_again(world: World) -> None:
    async def take() -> MessageBus:
        other = await connect(world.user_bus.address)
        await other.request_name(SERVICE)
        return other

    other = world.loop.run(take())
    assert_comes_up_after(world, -17, lambda: world.loop.run(disconnect(other)))


def test_a_bus_that_hangs_at_the_start_is_given_up_and_tried_again(world: World) -> None:
    world.user_bus.freeze()
    assert_comes_up_after(world, -107, world.user_bus.thaw, dict(SHORT), SHORT_TIMEOUT)


def test_an_answer_of_another_type_ends_the_start(world: World) -> None:
    with OddBus(world, world.user_bus) as bus:
        bus.retype("RequestName")
        assert_comes_up_after(world, -6, bus.behave, dict(bus.environment))
        assert world.stop_daemon() == 0


def test_a_bus_that_hangs_for_a_while_loses_nothing(world: World) -> None:
    furnish(world)
    daemon = world.up()
    world.hostapd.wait_attached()
    mark = world.journal.mark()
    world.user_bus.freeze()
    try:
        asked = world.call_async(
            "Get", "ss", ["com.vantora.Network1.WiFi", "Mode"], interface="org.freedesktop.DBus.Properties"
        )
        world.hostapd.enable()
        world.journal.wait_for(log("info", "wifi_host_ap_initialised: AP State: READY"), mark)
        assert daemon.running and not asked.done()
    finally:
        world.user_bus.thaw()
    assert asked.result(DEADLINE)[0].value == "Host"
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)
    assert world.journal.logs(mark) == [
        ("info", "ListenTask: Recv <3>AP-ENABLED "),
        ("info", "wifi_host_ap_initialised: AP State: READY"),
    ]


def test_bytes_that_mean_nothing_end_the_daemon_which_comes_back(world: World) -> None:
    furnish(world)
    with OddBus(world, world.user_bus) as bus:
        with Supervisor(world, dict(bus.environment)) as supervisor:
            world.wait_up()
            mark = world.journal.mark()
            bus.inject_garbage()
            supervisor.wait_up_again(mark)
        assert supervisor.ends == [0]
        assert_state_is_back(world, mark)
        assert world.stop_daemon() == 0


def test_a_restart_of_the_bus_is_one_of_the_daemon(world: World) -> None:
    furnish(world)
    with Supervisor(world) as supervisor:
        world.wait_up()
        with supervisor.holding_back():
            mark = world.journal.mark()
            world.user_bus.stop()
            world.journal.wait_until(lambda: supervisor.ends, "the end of the daemon")
            assert world.journal.logs(mark) == []
            world.bring_user_bus_back()
        supervisor.wait_up_again(mark)
    assert supervisor.ends == [0]
    assert_state_is_back(world, mark)


def test_a_bus_that_dies_in_the_middle_of_a_change_keeps_what_was_stored(world: World) -> None:
    furnish(world)
    with Supervisor(world) as supervisor:
        world.wait_up()
        with supervisor.holding_back():
            mark = world.journal.mark()
            world.systemd.hang("Stop", times=1)
            write = world.call_async(
                "Set",
                "ssv",
                ["com.vantora.Network1.WiFi", "Mode", Variant("s", "Client")],
                interface="org.freedesktop.DBus.Properties",
            )
            world.journal.wait_for(call("Stop"), mark)
            world.user_bus.stop()
            world.systemd.release()
            world.journal.wait_until(lambda: supervisor.ends, "the end of the daemon")
            assert isinstance(write.exception(DEADLINE), BaseException)
            mark = world.journal.mark()
            world.bring_user_bus_back()
        supervisor.wait_up_again(mark)
    assert supervisor.ends == [0]
    assert_state_is_back(world, mark, "Client")
