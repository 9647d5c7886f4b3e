"""wpa_supplicant on the system bus: every way in which it may fail."""

from __future__ import annotations

import signal as signals
import time

import pytest
from fault_requests import (
    ACCESS_POINTS,
    ADD_NETWORK,
    CONNECT,
    CONNECT_OPENING,
    DISCONNECT,
    DISCONNECT_CALLED,
    GET_ACCESS_POINTS,
    NETWORK_ADDED,
    NOT_CONNECTED,
    SCAN,
    select,
    still_station,
)
from faults import REAL_TIMEOUT, SHORT, SHORT_TIMEOUT, Asked, Kind, Line, Neighbour, Row, check, try_row
from station import network, wait_first_state
from supervisor import Supervisor
from vantora_sim import DEADLINE, Variant, World, call, changed, log

NOTIFIED = ("info", "[WPA Supplicant] Properties changed")
NO_LIST = ("err", "[Main]  Something went wrong with getting APs")
STATE_READ = ("info", "Get 'WiFiClientState' property")


def call_failed(function: str) -> Line:
    return "err", f"[WPA] {function}: Failed to call dbus method"


SCAN_FAILED = [*SCAN.logs, call_failed("wpa_supplicant_scan")]
DISCONNECT_FAILED = [
    DISCONNECT_CALLED,
    call_failed("wpa_supplicant_disconnect_network"),
    ("err", "[Main] disconnect_from_ap: Failed to connect to AP"),
]


def not_selected(path: str) -> list[Line]:
    """The lines of a network that could not be selected and is removed again."""
    return [
        *select(path),
        call_failed("wpa_supplicant_select_network"),
        ("err", "[Main] connect_to_ap: Failed to connect to AP"),
        ("info", f"[WPA] Remove network: {path}"),
        call_failed("wpa_supplicant_remove_network"),
        STATE_READ,
    ]


NOT_ADDED = [*CONNECT_OPENING, *ADD_NETWORK, ("err", "[WPA] wpa_supplicant_add_network: Method call failed"), *not_selected("")]
UNREADABLE = [
    *CONNECT_OPENING,
    *ADD_NETWORK,
    ("err", "[WPA] wpa_supplicant_add_network: Failed to read response"),
    *not_selected(""),
]
ADDED_IN_VAIN = [*CONNECT_OPENING, *ADD_NETWORK, NETWORK_ADDED]


def answers_nothing(waits: float = 0.0) -> list[Asked]:
    """What comes of each request when every call of wpa_supplicant fails after a while."""
    return [
        Asked(SCAN, logs=SCAN_FAILED, waits=waits),
        Asked(CONNECT, NOT_CONNECTED, NOT_ADDED, waits),
        Asked(DISCONNECT, NOT_CONNECTED, DISCONNECT_FAILED, waits),
        Asked(ACCESS_POINTS, "[]", [GET_ACCESS_POINTS, NO_LIST], waits),
    ]


def prepare(world: World) -> None:
    still_station(world)
    world.wpa.add_bss("cafe")


def dies(member: str, request: object, seen: str | None, logs: list[Line], on: str | None = None) -> Asked:
    def cause(world: World) -> None:
        world.wpa.come_back()
        world.wpa.vanish(member, on=on)

    return Asked(request, seen, logs, cause=cause)  # type: ignore[arg-type]


def odd_types(world: World) -> None:
    for member in ("Scan", "AddNetwork", "Disconnect"):
        world.wpa.reply(member, "u", [7])
    world.wpa.reply("Get", "v", [Variant("s", "BSSs")], on="BSSs")


def odd_values(world: World) -> None:
    world.wpa.reply("AddNetwork", "o", ["/no/such/network"])
    world.wpa.reply("Get", "v", [Variant("ao", ["/", "/no/such/bss", *world.wpa.bss])], on="BSSs")
    for member in ("Scan", "Disconnect"):
        world.wpa.reply(member, "", [])
    world.wpa.notify_raw("s", ["State"])
    world.wpa.notify_raw("a{sv}", [{"State": Variant("s", "\x7f" * 5000)}])


def start_again(world: World) -> None:
    """A network is selected, then wpa_supplicant starts anew and knows of nothing."""
    CONNECT.ask(world)
    world.wpa.go()
    mark = world.journal.mark()
    world.wpa.start_anew()
    wait_first_state(world, mark)
    world.wpa.state = "completed"


def hang_in_a_list(world: World) -> None:
    for number in range(4):
        world.wpa.add_bss(f"net {number}", signal=-60)
    world.wpa.hang("GetAll")


def no_longer_hang(world: World) -> None:
    world.clear_faults()
    for path in list(world.wpa.bss)[1:]:
        world.wpa.remove_bss(path)


ABOUT = "Each call opens a connection to the system bus of its own. Its signals come over one that stays."

NEIGHBOUR = Neighbour(
    "wpa_supplicant",
    ABOUT,
    [
        Row(
            Kind.ABSENT,
            "its unit never started",
            answers_nothing(),
            before=lambda world: world.wpa.go(),
            end=lambda world: world.wpa.come_back(),
            after="used and heard as soon as it is there",
        ),
        Row(Kind.REFUSES, "answers every call with an error", answers_nothing(), lambda world: world.wpa.refuse()),
        Row(Kind.HANGS, "answers no call", answers_nothing(SHORT_TIMEOUT), lambda world: world.wpa.hang(), environment=SHORT),
        Row(
            Kind.HANGS,
            "answers no call, at the real time-out",
            [Asked(SCAN, logs=SCAN_FAILED, waits=REAL_TIMEOUT)],
            lambda world: world.wpa.hang(),
            slow=True,
            name="hangs for 25 s",
        ),
        Row(
            Kind.HANGS,
            "answers for the list, not for its BSSs: given up after two",
            [Asked(ACCESS_POINTS, "[]", waits=2 * SHORT_TIMEOUT)],
            hang_in_a_list,
            environment=SHORT,
            name="hangs in the middle of a list",
            end=no_longer_hang,
        ),
        Row(
            Kind.WRONG_TYPE,
            "answers with other types",
            [
                Asked(SCAN),
                Asked(CONNECT, NOT_CONNECTED, UNREADABLE),
                Asked(DISCONNECT),
                Asked(ACCESS_POINTS, "[]", [GET_ACCESS_POINTS, NO_LIST]),
            ],
            odd_types,
        ),
        Row(
            Kind.WRONG_TYPE,
            "`State`, `CurrentBSS`, `BSSs` or a property of a BSS of a type that it never has",
            name="signals a wrong type",
            test="test_a_wrong_type_in_a_signal_ends_the_daemon_which_comes_back",
            text="the daemon ends by SIGABRT, with the C++ runtime's last words on standard error",
            takes="at once",
            after="started again by its unit; the stored mode and all announcements are back",
        ),
        Row(
            Kind.GARBAGE,
            "names what does not exist, signals what cannot be read",
            [
                Asked(SCAN),
                Asked(
                    CONNECT,
                    NOT_CONNECTED,
                    [
                        *CONNECT_OPENING,
                        *ADD_NETWORK,
                        ("info", "[WPA] Network object added '/no/such/network'"),
                        *not_selected("/no/such/network"),
                    ],
                ),
                Asked(DISCONNECT),
                Asked(ACCESS_POINTS),
            ],
            odd_values,
        ),
        Row(
            Kind.DIES,
            "ends instead of answering",
            [
                dies("Scan", SCAN, None, SCAN_FAILED),
                dies("AddNetwork", CONNECT, NOT_CONNECTED, NOT_ADDED),
                dies("SelectNetwork", CONNECT, NOT_CONNECTED, [*ADDED_IN_VAIN, *not_selected(network(0))]),
                dies("Disconnect", DISCONNECT, NOT_CONNECTED, DISCONNECT_FAILED),
                dies("Get", ACCESS_POINTS, "[]", [GET_ACCESS_POINTS, NO_LIST], on="BSSs"),
                dies("GetAll", ACCESS_POINTS, "[]", [GET_ACCESS_POINTS]),
            ],
            end=lambda world: world.wpa.come_back(),
        ),
        Row(
            Kind.RESTARTS,
            "forgets the network that was selected",
            [Asked(CONNECT), Asked(DISCONNECT), Asked(SCAN), Asked(ACCESS_POINTS)],
            start_again,
            after="its signals are heard from the new one",
        ),
        Row(
            Kind.FLOODS,
            "3,000 notifications at once",
            test="test_a_flood_of_notifications_holds_requests_up_for_a_moment_and_loses_none",
            text="`Scan`: success",
            lines=[NOTIFIED],
            takes="under 20 s in all",
        ),
    ],
    prepare,
)


@pytest.mark.parametrize("row", NEIGHBOUR.parameters())
def test_fault(world: World, row: Row) -> None:
    try_row(world, row, NEIGHBOUR.prepare)
    mark = world.journal.mark()
    world.wpa.report_state("scanning")
    world.wpa.report_state("disconnected")
    world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)


@pytest.mark.parametrize(
    "wrong",
    [{"State": Variant("u", 9)}, {"CurrentBSS": Variant("u", 9)}, {"BSSs": Variant("s", "/")}, None],
    ids=["State", "CurrentBSS", "BSSs", "a property of a BSS"],
)
def test_a_wrong_type_in_a_signal_ends_the_daemon_which_comes_back(world: World, wrong: dict[str, Variant] | None) -> None:
    prepare(world)
    with Supervisor(world) as supervisor:
        world.wait_up()
        mark, first = world.journal.mark(), world.daemon
        if wrong is None:
            odd = world.wpa.add_bss("odd", extra={"Signal": Variant("i", -50)})
            world.wpa.report_bsss()
            world.journal.wait_for(call("GetAll", path=odd), mark)
        else:
            world.wpa.changed(**wrong)
        supervisor.wait_started_again()
        world.wait_up()
    assert supervisor.ends == [-signals.SIGABRT]
    assert first is not None and "bad_any_cast" in first.stderr
    world.journal.expect_in_order([log(*NOTIFIED), changed("WiFiState", 1), changed("Mode", "Client")], mark)
    assert (world.get("Mode"), world.get("WiFiState")) == ("Client", 1)
    check(world, Asked(SCAN), "after the restart")


def test_a_flood_of_notifications_holds_requests_up_for_a_moment_and_loses_none(world: World) -> None:
    count = 3000
    prepare(world)
    world.up()
    mark = world.journal.mark()
    begin = time.monotonic()
    for _ in range(count):
        world.wpa.notify_raw("a{sv}", [{"Scanning": Variant("b", True)}])
    SCAN.ask(world)
    world.journal.wait_until(lambda: world.journal.count(log(*NOTIFIED), mark) == count, "all notifications", since=mark)
    assert time.monotonic() - begin < DEADLINE
    world.settle()
    assert sorted(world.journal.logs(mark)) == sorted([NOTIFIED] * count + list(SCAN.logs))
    for asked in (SCAN, CONNECT, DISCONNECT, ACCESS_POINTS):
        check(world, Asked(asked), "after the flood")
