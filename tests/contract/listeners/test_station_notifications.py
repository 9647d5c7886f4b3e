"""Notifications of wpa_supplicant: other properties, other types, damaged ones, other senders, and the BSS they name."""

from __future__ import annotations

import signal as signals

import pytest
from station import INTERFACE, SIGNAL_NAME, STATION, bring_up_scanning, bring_up_station, emitting_log, state_log, wait_logged
from vantora_sim import Variant, World, call, changed, log, signal

CHANGED_LOG = ("info", "[WPA Supplicant] Properties changed")
READ_LOG = ("info", "Get 'WiFiClientState' property")
OTHER_TYPES = {
    "ApScan": Variant("u", 1),
    "Scanning": Variant("b", False),
    "ScanInterval": Variant("i", 5),
    "Capabilities": Variant(
        "a{sv}", {"Pairwise": Variant("as", ["ccmp", "tkip"]), "MaxScanSSID": Variant("i", 4), "Nested": Variant("a{sv}", {})}
    ),
    "AKMList": Variant("as", []),
    "CurrentNetwork": Variant("o", f"{STATION}/Networks/0"),
    "Stations": Variant("ao", []),
    "MACAddress": Variant("ay", b"\x02\0\0\0\x10\x01"),
    "Frequency": Variant("q", 2412),
    "Level": Variant("n", -40),
    "Total": Variant("t", 1 << 63),
    "Ratio": Variant("d", 0.5),
    "Pairs": Variant("a(ss)", [["a", "b"]]),
    "Blobs": Variant("a{say}", {"blob": b"\0\xff"}),
    "Inner": Variant("v", Variant("s", "x")),
    "Many": Variant("aas", [["x"], []]),
}


def notified(world: World, since: int) -> list[tuple[str, str]]:
    """The log since the mark, when the first notification after it has been handled."""
    wait_logged(world, *CHANGED_LOG, since)
    world.settle()
    return world.journal.logs(since)


def assert_left(world: World, bss: str, name: str, emitting: tuple[str, str]) -> None:
    """The log when a station leaves a scan for nothing, with the name of its access point in it."""
    mark = world.journal.mark()
    world.wpa.report_state("disconnected", bss=bss)
    assert notified(world, mark) == [
        CHANGED_LOG,
        ("info", f"[WPE supplicant] BSS changed: {bss} SSID: {name}"),
        state_log("scanning", "disconnected"),
        emitting,
        READ_LOG,
    ]


def test_properties_of_other_types_beside_do_no_harm(world: World) -> None:
    bring_up_scanning(world)
    mark = world.journal.mark()
    world.wpa.changed(**OTHER_TYPES, State=Variant("s", "disconnected"))
    assert notified(world, mark) == [CHANGED_LOG, state_log("scanning", "disconnected"), emitting_log("disconnected"), READ_LOG]


def test_other_properties_alone_are_ignored(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.wpa.changed(**OTHER_TYPES)
    assert notified(world, mark) == [CHANGED_LOG]
    assert world.journal.changes(mark) == []


@pytest.mark.parametrize(
    ("signature", "body"),
    [
        ("", []),
        ("s", ["State"]),
        ("a{ss}", [{"State": "completed"}]),
        ("a{sv}", [{}]),
        ("as", [["State", "completed"]]),
        ("(sv)", [["State", Variant("s", "completed")]]),
    ],
)
def test_a_body_that_can_not_be_read_is_ignored(world: World, signature: str, body: list[object]) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.wpa.notify_raw(signature, body)
    assert notified(world, mark) == [CHANGED_LOG]
    assert world.get("WiFiClientState") == "disconnected"


def test_a_notification_of_any_object_of_the_sender_counts(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.wpa.notify_raw("a{sv}", [{"State": Variant("s", "scanning")}], path="/fi/w1/wpa_supplicant1/Interfaces/7")
    assert notified(world, mark) == [CHANGED_LOG, state_log("disconnected", "scanning")]


def test_the_standard_signal_beside_its_own_is_not_counted_twice(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.wpa.changed(Scanning=Variant("b", True))
    world.wpa.changed(State=Variant("s", "scanning"))
    wait_logged(world, *state_log("disconnected", "scanning"), mark)
    world.settle()
    assert world.journal.logs(mark).count(CHANGED_LOG) == 2


def test_nobody_else_is_believed(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    emitted = world.sandbox.sh(f"busctl --system emit {STATION} {INTERFACE} PropertiesChanged 'a{{sv}}' 1 State s completed")
    assert emitted.status == 0, emitted.stderr
    world.wpa.report_state("scanning")
    wait_logged(world, *state_log("disconnected", "scanning"), mark)
    assert world.journal.count(log("info", CHANGED_LOG[1]), mark) == 1


def test_a_restarted_station_is_followed(world: World) -> None:
    bring_up_station(world)
    world.wpa.report_state("scanning")
    wait_logged(world, *state_log("disconnected", "scanning"), 0)
    for _ in range(2):
        world.wpa.go()
        mark = world.journal.mark()
        world.wpa.start_anew()
        world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)
        world.wpa.report_state("completed")
        world.journal.wait_for(changed("WiFiClientState", "completed"), mark)


def test_a_station_that_comes_after_the_daemon_is_followed(world: World) -> None:
    world.follow_units = False
    world.settings.set("network", "mode", "Client")
    world.up()
    assert not world.wpa.present
    mark = world.journal.mark()
    world.wpa.start_anew()
    world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)


def test_no_bss_asks_nobody_for_its_name(world: World) -> None:
    bring_up_scanning(world)
    mark = world.journal.mark()
    world.wpa.report_state("disconnected", bss="/")
    assert notified(world, mark) == [
        CHANGED_LOG,
        ("info", "[WPE supplicant] BSS changed: / SSID: <none>"),
        state_log("scanning", "disconnected"),
        emitting_log("disconnected"),
        READ_LOG,
    ]
    assert world.journal.count(call(bus="system"), mark) == 0


def test_a_bss_without_a_state_is_logged_only(world: World) -> None:
    bring_up_station(world)
    bss = world.wpa.add_bss("cafe")
    mark = world.journal.mark()
    world.wpa.changed(CurrentBSS=Variant("o", bss))
    assert notified(world, mark) == [CHANGED_LOG, ("info", f"[WPE supplicant] BSS changed: {bss} SSID: cafe")]
    assert world.journal.changes(mark) == []


@pytest.mark.parametrize("trouble", ["gone", "refused", "empty", "text", "numbers", "nothing", "vanished"])
def test_a_name_that_can_not_be_read_is_none(world: World, trouble: str) -> None:
    bring_up_scanning(world)
    bss = world.wpa.add_bss("cafe")
    match trouble:
        case "gone":
            world.wpa.remove_bss(bss)
        case "refused":
            world.wpa.refuse("Get", on=bss)
        case "empty":
            world.wpa.bss[bss].ssid = b""
        case "text":
            world.wpa.reply("Get", "v", [Variant("s", "cafe")], on=bss)
        case "numbers":
            world.wpa.reply("Get", "v", [Variant("au", [1, 2])], on=bss)
        case "nothing":
            world.wpa.reply("Get", "", [], on=bss)
        case "vanished":
            world.wpa.vanish("Get", on=bss)
    assert_left(world, bss, "<none>", emitting_log("disconnected"))


@pytest.mark.parametrize(
    ("ssid", "written"),
    [
        (b"caf\xc3\xa9", "caf\u00e9"),
        (b"\xff" * 32, "\udcff" * 32),
        (b'"%s%n"\\', '"%s%n"\\'),
        (b"cut\0here", "cut"),
        (b"<none>", "<none>"),
    ],
)
def test_an_odd_name_is_logged_up_to_its_first_nul(world: World, ssid: bytes, written: str) -> None:
    bring_up_scanning(world)
    bss = world.wpa.add_bss(ssid)
    assert_left(world, bss, written, emitting_log("disconnected", written))


def test_a_name_that_hangs_holds_the_notification_until_it_is_answered(world: World) -> None:
    bring_up_scanning(world)
    bss = world.wpa.add_bss("cafe")
    world.wpa.hang("Get", on=bss)
    mark = world.journal.mark()
    world.wpa.report_state("disconnected", bss=bss)
    world.journal.wait_for(call("Get", path=bss), mark)
    assert ("info", f"[WPE supplicant] BSS changed: {bss} SSID: cafe") not in world.journal.logs(mark)
    world.wpa.release()
    world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)
    wait_logged(world, *emitting_log("disconnected", "cafe"), mark)


def test_all_properties_of_one_notification_are_handled_in_the_order_of_their_names(world: World) -> None:
    bring_up_scanning(world)
    bss = world.wpa.add_bss("cafe")
    mark = world.journal.mark()
    world.wpa.changed(State=Variant("s", "disconnected"), CurrentBSS=Variant("o", bss), BSSs=Variant("ao", [bss]))
    assert notified(world, mark) == [
        CHANGED_LOG,
        ("info", "[Main] Access points changed"),
        ("info", f"[WPE supplicant] BSS changed: {bss} SSID: cafe"),
        state_log("scanning", "disconnected"),
        emitting_log("disconnected", "cafe"),
        READ_LOG,
    ]
    world.journal.expect_in_order(
        [
            call("GetAll", path=bss, destination="fi.epitest.hostap.WPASupplicant"),
            signal("AccessPointsChanged"),
            call("Get", path=bss, destination=SIGNAL_NAME),
            changed("WiFiClientState", "disconnected"),
        ],
        mark,
    )


@pytest.mark.parametrize(
    "wrong",
    [
        {"State": Variant("u", 9)},
        {"CurrentBSS": Variant("as", ["/"])},
        {"BSSs": Variant("s", "/")},
        {"BSSs": Variant("a{sv}", {})},
        {"State": Variant("ay", b"completed")},
    ],
)
def test_a_value_of_an_unexpected_type_ends_the_process_and_the_restart_brings_the_device_back(
    world: World, wrong: dict[str, Variant]
) -> None:
    bring_up_station(world)
    assert world.daemon is not None
    world.wpa.changed(**wrong)
    assert world.daemon.wait() == -signals.SIGABRT

    mark = world.journal.mark()
    world.up()
    assert (world.get("Mode"), world.get("WiFiState")) == ("Client", 1)
    world.journal.expect_in_order([changed("WiFiState", 1), changed("Mode", "Client")], mark)
    world.wpa.report_state("disconnected")
    world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)
