"""The settings daemon on the user bus: every way in which it may fail."""

from __future__ import annotations

import time
from collections.abc import Sequence

import pytest
from fault_requests import BLOCK, CHANGE_MODE, POWER_OFF, READ_SETTINGS, STOP_HOST, still_station
from faults import REAL_TIMEOUT, SHORT, SHORT_TIMEOUT, Asked, Kind, Line, Neighbour, Request, Row, Said, check, try_row
from settings_texts import ABSENT as NOT_THERE
from settings_texts import PROPERTIES_CHANGED, get_failed, set_failed
from vantora_sim import DEADLINE, Variant, World, changed, log

VANISHED = "Message recipient disconnected from message bus without replying"
TIMED_OUT = "Connection timed out"
STORED, NOT_STORED = "success, stored", "success, not stored"

LAST = ("err", "[Main] set_wifi_mode: Unknown mode:last")
DISABLED = ("err", "[Main] set_wifi_mode: Cannot change mode, wifi is disabled")
SAFE_NAME = [("info", "model name: Korrin One"), ("info", "serial number : 12-3456"), ("info", "default ssid: Korrin One-3456")]


def write_mode(world: World) -> Said:
    """Write a mode while the radio is off, so that it is stored and nothing else."""
    world.radio.soft_blocked = True
    world.settings.set("network", "mode", "Client")
    world.set("Mode", "Host")
    return Said(STORED if world.settings.get("network", "mode") == "Host" else NOT_STORED)


WRITE = Request('`Mode` = "Host", radio off', write_mode, STORED, [CHANGE_MODE, DISABLED])

SAFE_LINES = [
    *get_failed("killWifiOnBoot", NOT_THERE),
    *get_failed("enabled", NOT_THERE),
    ("err", "[Main] Failed to read initial wifi configuration, use safe config"),
    *get_failed("deviceName", NOT_THERE),
    ("warning", "[WiFi] Failed to get AP ssid, use default"),
    *get_failed("frequency", NOT_THERE),
    ("warning", "[WiFi] Failed to get AP freq, use default (2.4)"),
]


def unreadable(lines: Sequence[Line]) -> list[Line]:
    """Switching off with settings that cannot be read: the safe configuration's mode is stopped."""
    return [READ_SETTINGS, *lines, *SAFE_NAME, *BLOCK, *STOP_HOST]


def asked(text: str, waits: float = 0.0) -> list[Asked]:
    """Both requests, each failing with this text of the settings client."""
    return [
        Asked(WRITE, NOT_STORED, [CHANGE_MODE, *set_failed("mode", text), DISABLED], waits),
        Asked(POWER_OFF, logs=unreadable(get_failed("enabled", text)), waits=waits),
    ]


def prepare(world: World) -> None:
    still_station(world)
    world.hostapd.start()  # for the safe configuration, which wants an access point


def dies(member: str, index: int) -> Asked:
    def cause(world: World) -> None:
        world.settings.come_back()
        world.settings.vanish(member)

    failed = asked(VANISHED)[index]
    return Asked(failed.request, failed.seen, failed.logs, cause=cause)


def start_again(world: World) -> None:
    world.settings.go()
    world.settings.come_back()


def garbage(world: World) -> None:
    world.settings.reply("Get", "", [], on="network.enabled")
    world.settings.reply("Set", "a{sv}", [{"odd": Variant("s", "\x7f")}])


ABOUT = (
    "Each read and write opens a connection to the user bus of its own. What cannot be read is replaced by the safe "
    "configuration; what cannot be stored is applied."
)

NEIGHBOUR = Neighbour(
    "Settings daemon",
    ABOUT,
    [
        Row(
            Kind.ABSENT,
            "not on the bus, and the bus cannot start it",
            asked(NOT_THERE),
            before=lambda world: world.settings.go(),
            end=lambda world: world.settings.come_back(),
            after="its changes are heard as soon as it is there",
        ),
        Row(
            Kind.ABSENT,
            "the same, while the device comes up",
            name="absent while the device comes up",
            lines=SAFE_LINES,
            takes="at once",
            text="an access point with the default SSID",
            test="test_a_device_without_settings_is_a_safe_access_point_until_the_next_start",
            after="its changes are heard; the stored mode is in effect with the next start",
        ),
        Row(Kind.REFUSES, "answers every call with an error", asked("refused"), lambda world: world.settings.refuse()),
        Row(
            Kind.HANGS,
            "answers no call",
            asked(TIMED_OUT, SHORT_TIMEOUT),
            lambda world: world.settings.hang(),
            environment=SHORT,
        ),
        Row(
            Kind.HANGS,
            "answers no write, at the real time-out",
            asked(TIMED_OUT, REAL_TIMEOUT)[:1],
            lambda world: world.settings.hang("Set"),
            slow=True,
            name="hangs for 25 s",
        ),
        Row(
            Kind.WRONG_TYPE,
            "a value of another type than the setting's",
            [Asked(POWER_OFF, logs=unreadable(get_failed("enabled", "Property enabled is of type 'u', not 'b'")))],
            lambda world: world.settings.reply("Get", "v", [Variant("u", 1)], on="network.enabled"),
        ),
        Row(
            Kind.WRONG_TYPE,
            "notifies of a setting with another type",
            name="notifies of another type",
            text="the setting is passed over",
            takes="at once",
            test="test_settings_notifications.py::test_known_names_of_another_type_are_ignored",
        ),
        Row(
            Kind.GARBAGE,
            "a reply with nothing in it to a read, with too much to a write",
            [
                Asked(WRITE, NOT_STORED),
                Asked(
                    POWER_OFF,
                    logs=unreadable(get_failed("enabled", "The reply for property enabled holds '' in place of a variant")),
                ),
            ],
            garbage,
        ),
        Row(
            Kind.GARBAGE,
            "notifies with a body or path that cannot be read",
            name="notifies with garbage",
            text="the notification is dropped",
            lines=[("err", f"{PROPERTIES_CHANGED}: Failed to skip interface string")],
            takes="at once",
            test="test_settings_notifications.py::test_a_malformed_notification_is_dropped_with_a_message",
        ),
        Row(
            Kind.DIES,
            "ends instead of answering",
            [dies("Set", 0), dies("Get", 1)],
            end=lambda world: world.settings.come_back(),
        ),
        Row(
            Kind.RESTARTS,
            "gone and back",
            [Asked(WRITE), Asked(POWER_OFF)],
            start_again,
            after="its changes are heard from the new one",
        ),
        Row(
            Kind.FLOODS,
            "3,000 notifications at once",
            test="test_a_flood_of_notifications_holds_requests_up_for_a_moment_and_loses_none",
            text="both requests: success",
            takes="under 20 s in all",
        ),
    ],
    prepare,
)


@pytest.mark.parametrize("row", NEIGHBOUR.parameters())
def test_fault(world: World, row: Row) -> None:
    try_row(world, row, NEIGHBOUR.prepare)
    hears_changes(world)


def hears_changes(world: World) -> None:
    """Another program's change reaches the daemon."""
    mark = world.journal.mark()
    world.radio.soft_blocked = True
    world.settings.change("network", enabled=True)
    world.journal.wait_for(changed("WiFiState", 1), mark)


def test_a_device_without_settings_is_a_safe_access_point_until_the_next_start(world: World) -> None:
    prepare(world)
    world.settings.go()
    world.radio.interface_type = "AP"
    world.up()
    assert [line for line in world.journal.logs() if line[0] != "info"] == SAFE_LINES
    assert (world.get("WiFiState"), world.get("Mode"), world.get("SSID")) == (1, "Host", "Korrin One-3456")
    world.settings.come_back()
    hears_changes(world)
    assert world.stop_daemon() == 0
    world.radio.interface_type = "managed"
    mark = world.journal.mark()
    world.up()
    assert world.get("Mode") == "Client"
    assert [line for line in world.journal.logs(mark) if line[0] != "info"] == []


def test_a_flood_of_notifications_holds_requests_up_for_a_moment_and_loses_none(world: World) -> None:
    prepare(world)
    world.up()
    mark = world.journal.mark()
    begin = time.monotonic()
    for number in range(3000):
        world.settings.notify("network", {"other": str(number)})
    world.settings.notify("network", {"mode": "last"})
    assert WRITE.ask(world) == STORED
    world.journal.wait_for(log(*LAST), mark)
    assert time.monotonic() - begin < DEADLINE
    world.settle()
    lines = world.journal.logs(mark)  # the request came another way, so it may overtake notifications
    assert sorted(lines) == sorted([LAST, *WRITE.logs])
    for request in (WRITE, POWER_OFF):
        check(world, Asked(request), "after the flood")
    hears_changes(world)
