"""What the settings daemon tells, and what others pretend that it told."""

from __future__ import annotations

import signal
import time

import pytest
from connections import connections_of_the_daemon
from control import READ_MODE, READ_POWER, RESTART_HOSTAPD, bring_up_quietly, control_logs, logs, steps
from settings_texts import PROPERTIES_CHANGED, set_failed
from vantora_sim import DEADLINE, Variant, World, changed, log

BASE = "/com/vantora/common/Settings1"
SERVICE = "com.vantora.common.Settings1"

EVERY_TYPE = {
    "byte": Variant("y", 1),
    "int16": Variant("n", -1),
    "uint16": Variant("q", 1),
    "int32": Variant("i", -1),
    "uint32": Variant("u", 1),
    "int64": Variant("x", -1),
    "uint64": Variant("t", 1),
    "double": Variant("d", 1.5),
    "path": Variant("o", "/a"),
    "signature": Variant("g", "a{sv}"),
    "bytes": Variant("ay", b"\x00\xff"),
    "texts": Variant("as", ["a", ""]),
    "truths": Variant("ab", [True]),
    "paths": Variant("ao", ["/"]),
    "empty": Variant("as", []),
    "struct": Variant("(sib)", ["a", 1, True]),
    "structs": Variant("a(si)", [["a", 1]]),
    "map": Variant("a{sv}", {"a": Variant("s", "b")}),
    "other map": Variant("a{is}", {1: "a"}),
    "variant": Variant("v", Variant("v", Variant("(ss)", ["a", "b"]))),
    "lists": Variant("aas", [["a"], []]),
}


def test_two_settings_of_one_notification_are_taken_in_key_order(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.change("network", mode="Host", frequency="5")
    assert steps(world, mark) == [
        READ_POWER,
        READ_MODE,
        *RESTART_HOSTAPD,
        READ_POWER,
        READ_MODE,
        "announce WiFiFrequency=5",
        READ_MODE,
    ]
    assert control_logs(world, mark) == [("err", "[Main] set_wifi_mode: already in wifi mode Host")]


def test_both_sections_are_followed_and_a_name_counts_in_either(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.notify("device", {"mode": "nonsense"})
    world.settings.notify("network", {"mode": "nonsense"})
    world.settle()
    assert logs(world, mark) == [("err", "[Main] set_wifi_mode: Unknown mode:nonsense")] * 2


@pytest.mark.parametrize("path", [f"{BASE}/development", f"{BASE}/audio", f"{BASE}/unheard_of", BASE, f"{BASE}/network/more"])
def test_sections_that_do_not_concern_the_radio_are_passed_over(world: World, path: str) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.notify_raw(path, "sa{sv}as", [SERVICE, {"mode": Variant("s", "Client")}, []])
    assert steps(world, mark) == []
    assert logs(world, mark) == []


def test_only_the_last_part_of_the_path_and_no_interface_name_counts(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.notify_raw("/elsewhere/network", "sa{sv}as", ["com.example.Other", {"mode": Variant("s", "x")}, ["enabled"]])
    assert steps(world, mark) == []
    assert logs(world, mark) == [("err", "[Main] set_wifi_mode: Unknown mode:x")]


def test_known_names_of_another_type_are_ignored(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.notify(
        "network", {"enabled": Variant("s", "false"), "mode": Variant("o", "/Client"), "frequency": Variant("d", 5.0)}
    )
    world.settings.notify("device", {"deviceName": Variant("ay", b"Kitchen")})
    assert steps(world, mark) == []
    assert logs(world, mark) == []
    world.settings.notify("network", {"mode": "x"})
    assert steps(world, mark) == []
    assert logs(world, mark) == [("err", "[Main] set_wifi_mode: Unknown mode:x")]


def test_no_type_of_another_setting_keeps_a_known_one_from_being_taken(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.notify("network", {**EVERY_TYPE, "mode": Variant("s", "x"), "zzz": Variant("(s)", ["after"])})
    assert steps(world, mark) == []
    assert logs(world, mark) == [("err", "[Main] set_wifi_mode: Unknown mode:x")]


def test_a_huge_notification_is_taken(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    others = {f"other{number}": Variant("s", "x" * 1000) for number in range(3000)}
    world.settings.notify("network", {**others, "mode": Variant("s", "x"), "bytes": Variant("ay", bytes(1_000_000))})
    world.journal.wait_for(log("err", "[Main] set_wifi_mode: Unknown mode:x"), mark)
    assert steps(world, mark) == []
    assert len(logs(world, mark)) == 1


def test_notifications_without_settings_do_nothing(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.notify("network", {})
    world.settings.notify_raw(f"{BASE}/network", "sa{sv}as", [SERVICE, {}, ["enabled", "mode"]])
    world.settings.notify_raw(f"{BASE}/network", "sa{sv}", [SERVICE, {}])
    assert steps(world, mark) == []
    assert logs(world, mark) == []


@pytest.mark.parametrize(
    ("path", "signature", "body", "text"),
    [
        ("/", "sa{sv}as", [SERVICE, {"enabled": Variant("b", False)}, []], "Mallformed path string"),
        (f"{BASE}/network", "u", [1], "Failed to skip interface string"),
        (f"{BASE}/network", "", [], "Failed to skip interface string"),
        (f"{BASE}/network", "ss", [SERVICE, "enabled"], "ParsePropertiesWithType failed:-6"),
        (f"{BASE}/network", "sa{ss}", [SERVICE, {"mode": "Client"}], "ParsePropertiesWithType failed:-6"),
        (f"{BASE}/network", "s", [SERVICE], "ParsePropertiesWithType failed:-6"),
    ],
)
def test_a_malformed_notification_is_dropped_with_a_message(
    world: World, path: str, signature: str, body: list[object], text: str
) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.notify_raw(path, signature, body)
    assert steps(world, mark) == []
    assert logs(world, mark) == [("err", f"{PROPERTIES_CHANGED}: {text}")]
    world.settings.notify("network", {"mode": "x"})
    world.settle()
    assert logs(world, mark)[1:] == [("err", "[Main] set_wifi_mode: Unknown mode:x")]


WRITES = [
    pytest.param("Mode", "network", "mode", ("Client", "Host"), id="mode"),
    pytest.param("WiFiFrequency", "network", "frequency", ("5", "2.4"), id="band"),
    pytest.param("SSID", "device", "deviceName", ("Attic", "Cellar"), id="SSID"),
]


def written(world: World, name: str, values: tuple[str, str]) -> int:
    """A device on which the values were written one after the other; where the journal stood then."""
    bring_up_quietly(world)
    for value in values:
        world.set(name, value)
    return world.journal.mark()


@pytest.mark.parametrize(("name", "section", "key", "values"), WRITES)
def test_the_echo_of_a_first_write_does_not_undo_a_second_one(
    world: World, name: str, section: str, key: str, values: tuple[str, str]
) -> None:
    mark = written(world, name, values)
    for value in values:
        world.settings.notify(section, {key: value})
        world.settle()
    # Of the first, what is stored is looked at, and nothing done; of the second, only that it is there already.
    assert steps(world, mark)[0] == f"get {section}.{key}"
    assert [step for step in steps(world, mark) if step.startswith(("announce", "Load", "set", "ip"))] == []
    assert world.get(name) == values[1]
    # Both have been heard of now: the first value, told once more, is somebody else's wish.
    world.settings.change(section, **{key: values[0]})
    world.journal.wait_for(changed(name, values[0]), mark)


@pytest.mark.parametrize(("name", "section", "key", "values"), WRITES)
def test_a_first_value_that_somebody_else_has_stored_again_is_taken(
    world: World, name: str, section: str, key: str, values: tuple[str, str]
) -> None:
    mark = written(world, name, values)
    world.settings.change(section, **{key: values[0]})  # by a daemon that tells nobody of his own writes
    world.journal.wait_for(changed(name, values[0]), mark)


def test_an_echo_of_a_first_write_is_passed_over_also_when_the_stored_value_cannot_be_read(world: World) -> None:
    bring_up_quietly(world)
    world.set("Mode", "Client")
    world.set("Mode", "Host")
    world.settings.refuse("Get", on="network.mode")
    mark = world.journal.mark()
    world.settings.notify("network", {"mode": "Client"})
    assert steps(world, mark) == ["get network.mode"]
    assert [priority for priority, _ in logs(world, mark)] == ["err"]


def test_many_writes_of_which_nothing_is_told_are_forgotten(world: World) -> None:
    bring_up_quietly(world)
    for number in range(34):
        world.set("SSID", f"Name {number}")
    mark = world.journal.mark()
    world.settings.notify("device", {"deviceName": "Name 1"})  # of 34 writes the two oldest are forgotten
    assert steps(world, mark)[0] != "get device.deviceName"
    mark = world.journal.mark()
    world.settings.notify("device", {"deviceName": "Name 2"})
    assert steps(world, mark) == ["get device.deviceName"]


def test_a_flood_of_notifications_keeps_a_request_waiting_for_less_than_a_second(world: World) -> None:
    daemon = world.up()
    daemon.send_signal(signal.SIGSTOP)
    try:
        for _ in range(1500):
            world.settings.notify("network", {"mode": "Host"})
        asked = world.call_async(
            "Get", "ss", ["com.vantora.Network1.WiFi", "Mode"], interface="org.freedesktop.DBus.Properties"
        )
        world.name_owned()  # the bus has taken all that by now
    finally:
        daemon.send_signal(signal.SIGCONT)
    begin = time.monotonic()
    assert asked.result(DEADLINE)[0].value == "Host"
    assert time.monotonic() - begin < 1.0
    told = ("err", "[Main] set_wifi_mode: already in wifi mode Host")
    assert world.journal.logs().count(told) < 1500, "the request came before the last of them"


def test_a_forged_notification_of_another_client_is_ignored(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    forged = (
        f"emit {BASE}/network org.freedesktop.DBus.Properties PropertiesChanged " f"'sa{{sv}}as' {SERVICE} 1 mode s Client 0"
    )
    everybody = world.sandbox.sh(f"busctl --user {forged}")
    assert everybody.status == 0, everybody.stderr
    # Straight to the daemon's connections, past the matches of the bus.
    connections = connections_of_the_daemon(world, world.user_bus.address)
    assert len(connections) == 2
    for name in connections:
        straight = world.sandbox.sh(f"busctl --user --destination={name} {forged}")
        assert straight.status == 0, straight.stderr
    assert steps(world, mark) == []
    assert logs(world, mark) == []
    world.settings.notify("network", {"mode": "x"})
    world.settle()
    assert logs(world, mark) == [("err", "[Main] set_wifi_mode: Unknown mode:x")]


def test_a_restarted_daemon_is_followed(world: World) -> None:
    bring_up_quietly(world)
    for _ in range(3):
        world.settings.go()
        world.settings.come_back()
        mark = world.journal.mark()
        world.settings.notify("network", {"mode": "x"})
        world.settle()
        assert logs(world, mark) == [("err", "[Main] set_wifi_mode: Unknown mode:x")]


def test_a_daemon_that_comes_late_is_followed(world: World) -> None:
    world.settings.go()
    bring_up_quietly(world)
    world.settings.come_back()
    mark = world.journal.mark()
    world.settings.change("network", mode="Client")
    world.settle()
    assert world.journal.changes(mark) == [("Mode", "Client")]


def test_a_daemon_that_ends_in_the_middle_of_a_write_leaves_the_change_made(world: World) -> None:
    bring_up_quietly(world)
    world.settings.vanish("Set")
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.settle()
    text = "Message recipient disconnected from message bus without replying"
    assert logs(world, mark)[1:3] == set_failed("mode", text)
    assert world.journal.changes(mark) == [("Mode", "Client")]
    world.settings.come_back()
    mark = world.journal.mark()
    world.settings.change("network", mode="Host")
    world.settle()
    assert world.journal.changes(mark) == [("Mode", "Host")]


def test_a_write_that_is_never_answered_is_given_up_and_the_change_made(world: World) -> None:
    world.follow_units = False
    world.tools.ip.output("")
    world.up(environment={"SYSTEMD_BUS_TIMEOUT": "1s"})
    world.settings.hang("Set")
    mark = world.journal.mark()
    world.set("SSID", "Kitchen")
    world.settle()
    assert logs(world, mark)[1:3] == set_failed("deviceName", "Connection timed out")
    assert "\nssid=Kitchen\n" in world.hostapd_conf.read_text()


def test_rapid_changes_of_another_program_end_in_the_last(world: World) -> None:
    bring_up_quietly(world)
    for number in range(20):
        world.settings.change("device", deviceName=f"Name {number}")
    world.settle()
    world.journal.wait_until(lambda: "\nssid=Name 19\n" in world.hostapd_conf.read_text(), "the last name")
