"""The system bus, on which systemd and wpa_supplicant are: every way in which it may fail."""

from __future__ import annotations

import time
from collections.abc import Callable

import pytest
from dbus_next import Message
from fault_requests import ACCESS_POINTS, CONNECT, DISCONNECT, NOT_CONNECTED, SCAN, TO_CLIENT_MODE, still_station
from faults import REAL_TIMEOUT, SHORT, SHORT_TIMEOUT, SLACK, Asked, Kind, Neighbour, Row, check, seen_by_caller, try_row
from odd_bus import OddBus, odd_bus
from station import INTERFACE, STATION
from test_faults_systemd import not_found, to_client
from test_faults_wpa_supplicant import NO_LIST, SCAN_FAILED, answers_nothing
from vantora_sim import DEADLINE, Variant, World, call, log
from vantora_sim.dbus_fake import connect, disconnect

ODD = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/odd-system-bus"}
NOT_LET_IN = "Transport endpoint is not connected (r = -107)"
NOT_OPENED = "Failed to open system bus"
NOT_SENT = ("err", "[WPA] wpa_supplicant_add_network: Method call failed")


def at_each_call(failed: Asked) -> Asked:
    """The same, with the words for a bus that cannot even be opened."""
    assert failed.logs is not None
    changed = [
        (priority, text.replace("Failed to call dbus method", NOT_OPENED).replace("Method call failed", NOT_OPENED))
        for priority, text in failed.logs
    ]
    if NO_LIST in changed:
        changed.insert(1, ("err", f"wpa_supplicant_get_access_points: {NOT_OPENED}"))
    return Asked(failed.request, failed.seen, changed)


WITHOUT_A_BUS = [
    *(at_each_call(failed) for failed in answers_nothing()),
    Asked(TO_CLIENT_MODE, logs=to_client(lambda verb, unit: [])),
]


def all_fail(reason: str, waits: float = 0.0) -> list[Asked]:
    """The bus can be opened, and no call comes through."""
    return [*answers_nothing(waits), Asked(TO_CLIENT_MODE, logs=not_found(reason), waits=3 * waits)]


def odd_row(kind: Kind, how: str, begin: Callable[[OddBus], None]) -> Row:
    """A fault of the bus at each new connection, until it behaves again."""
    return Row(
        kind,
        how,
        all_fail(NOT_LET_IN),
        lambda world: begin(odd_bus(world)),
        end=lambda world: odd_bus(world).behave(),
        environment=ODD,
    )


EVERYTHING = [Asked(request) for request in (SCAN, CONNECT, DISCONNECT, ACCESS_POINTS, TO_CLIENT_MODE)]


def prepare(world: World) -> None:
    still_station(world)
    world.wpa.add_bss("cafe")


def stop_bus(world: World) -> None:
    world.wpa.go()
    world.systemd.go()
    world.system_bus.stop()


def start_bus(world: World) -> None:
    world.clear_faults()
    world.loop.call(world.system_bus.start)
    world.system_bus.wait_ready()
    for service in (world.systemd, world.wpa):
        service.go()
        service.come_back()


def restart_bus(world: World) -> None:
    stop_bus(world)
    start_bus(world)


def ask_and_stop_bus(world: World) -> None:
    """Scan, and take the bus away when wpa_supplicant has the question."""
    mark = world.journal.mark()
    world.wpa.hang("Scan")
    answer = world.call_async("Scan")
    world.journal.wait_for(call("Scan"), mark)
    world.system_bus.stop()
    assert answer.result(DEADLINE) == []


NEIGHBOUR = Neighbour(
    "System bus",
    "Each call opens a connection of its own; one more stays, for wpa_supplicant's signals.",
    [
        Row(
            Kind.ABSENT,
            "no socket",
            WITHOUT_A_BUS,
            before=stop_bus,
            end=start_bus,
            after="used as soon as it is there; the signals of " "wpa_supplicant are heard from the daemon's next start on",
            name=Kind.ABSENT,
        ),
        odd_row(Kind.REFUSES, "lets nobody in", OddBus.reject),
        Row(
            Kind.HANGS,
            "takes connections and messages, and never answers",
            all_fail(NOT_LET_IN, SHORT_TIMEOUT),
            lambda world: world.system_bus.freeze(),
            end=lambda world: world.system_bus.thaw(),
            environment=SHORT,
        ),
        Row(
            Kind.HANGS,
            "the same, at the real time-out",
            [Asked(SCAN, logs=SCAN_FAILED, waits=REAL_TIMEOUT)],
            lambda world: world.system_bus.freeze(),
            end=lambda world: world.system_bus.thaw(),
            slow=True,
            name="hangs for 25 s",
        ),
        Row(
            Kind.HANGS,
            "stops reading in the middle of a message that its socket cannot hold",
            name="stops reading",
            takes="25 s",
            text=f"`Connect` with a name of 30 MB: `{NOT_CONNECTED}`",
            lines=[NOT_SENT],
            test="test_a_bus_that_stops_reading_in_the_middle_of_a_call_is_given_up_in_time",
        ),
        odd_row(Kind.WRONG_TYPE, "greets with a value of another type", lambda bus: bus.retype("Hello")),
        odd_row(Kind.GARBAGE, "greets with bytes that mean nothing", OddBus.garble),
        Row(
            Kind.GARBAGE,
            "sends such bytes to the connection that stays",
            EVERYTHING,
            lambda world: odd_bus(world).inject_garbage(),
            environment=ODD,
            name="garbage on the connection that stays",
            after="signals are heard again after 1 s",
        ),
        Row(
            Kind.DIES,
            "its connections break in the middle of a call",
            [Asked(SCAN, logs=SCAN_FAILED, ask=ask_and_stop_bus)],
            end=start_bus,
            after="signals are heard again after 1 s, or up to 30 s where it stays away long",
        ),
        Row(Kind.RESTARTS, "its connections break", EVERYTHING, restart_bus, after="signals are heard again after 1 s"),
        Row(
            Kind.FLOODS,
            "3,000 signals of somebody else, sent straight to the daemon",
            name="floods",
            test="test_a_flood_of_signals_of_somebody_else_is_passed_over",
            text="`Scan`: success",
            takes="under 20 s in all",
        ),
    ],
    prepare,
)


@pytest.mark.parametrize("row", NEIGHBOUR.parameters())
def test_fault(world: World, row: Row) -> None:
    with OddBus(world, world.system_bus):
        try_row(world, row, NEIGHBOUR.prepare)
        if row.kind != Kind.ABSENT:
            hear_signals(world)


def hear_signals(world: World) -> None:
    """wpa_supplicant's notifications reach the daemon, at the latest when its listener is back."""
    mark = world.journal.mark()
    deadline = time.monotonic() + DEADLINE
    while not world.journal.count(log("info", "[WPA Supplicant] State change: '' -> 'scanning'"), mark):
        assert time.monotonic() < deadline, world.journal.dump()
        world.wpa.changed(State=Variant("s", "scanning"))
        time.sleep(0.05)  # what is sent before it is back is lost: again


COMPLETED = {"State": Variant("s", "completed")}


def test_a_bus_that_stops_reading_in_the_middle_of_a_call_is_given_up_in_time(world: World) -> None:
    prepare(world)
    with OddBus(world, world.system_bus) as bus:
        world.up(environment={**bus.environment, **SHORT})
        bus.stop_reading(1 << 20)
        # The bus library asks for a socket that holds 8 MB.
        mark, begin = world.journal.mark(), time.monotonic()
        seen = seen_by_caller(lambda: world.call("Connect", "ss", ["x" * (30 << 20), "secret12"]))
        assert SHORT_TIMEOUT <= time.monotonic() - begin < SHORT_TIMEOUT + SLACK
        assert seen == NOT_CONNECTED
        assert world.journal.count(log(*NOT_SENT), mark) == 1
        bus.behave()
        check(world, Asked(CONNECT), "after the fault")


async def flood(world: World, count: int) -> None:
    """Send notifications to every connection of the daemon, past the matches of the bus."""
    assert world.daemon is not None
    bus = await connect(world.system_bus.address)
    try:
        names = (await ask(bus, "ListNames"))[0]
        own = [
            name
            for name in names
            if name.startswith(":") and (await ask(bus, "GetConnectionUnixProcessID", "s", [name]))[0] == world.daemon.pid
        ]
        assert len(own) == 1
        for number in range(count):
            if number % 100 == 0:
                await ask(bus, "GetId")  # the library does not send more than the socket takes
            notification = Message.new_signal(STATION, INTERFACE, "PropertiesChanged", "a{sv}", [COMPLETED])
            notification.destination = own[0]
            bus.send(notification)
        await ask(bus, "GetId")
    finally:
        await disconnect(bus)


async def ask(bus: object, member: str, signature: str = "", body: list[object] | None = None) -> list[object]:
    """Ask the bus itself."""
    reply = await bus.call(
        Message(
            destination="org.freedesktop.DBus",
            path="/org/freedesktop/DBus",  # type: ignore[attr-defined]
            interface="org.freedesktop.DBus",
            member=member,
            signature=signature,
            body=body or [],
        )
    )
    return list(reply.body)


def test_a_flood_of_signals_of_somebody_else_is_passed_over(world: World) -> None:
    prepare(world)
    world.up()
    world.settle()
    mark = world.journal.mark()
    begin = time.monotonic()
    world.loop.run(flood(world, 3000))
    SCAN.ask(world)
    assert time.monotonic() - begin < DEADLINE
    world.settle()
    assert world.journal.logs(mark) == list(SCAN.logs)
    for request in (SCAN, CONNECT, DISCONNECT, ACCESS_POINTS):
        check(world, Asked(request), "after the flood")
    hear_signals(world)
