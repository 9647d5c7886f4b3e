"""The list of access points: `AccessPoints` on demand, `AccessPointsChanged` when wpa_supplicant's list changes."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import pytest
from station import BSS, CALLED_NAME, INTERFACE, STATION, bring_up_station
from vantora_sim import Variant, World, call, command, log, signal

GET_LOG = ("info", "[WPA] Get access points")
CHANGED_LOG = ("info", "[Main] Access points changed")
FAILED_LOG = ("err", "[Main]  Something went wrong with getting APs")

RSN_WITHOUT_KEY_MGMT = {"RSN": Variant("a{sv}", {"Group": Variant("s", "ccmp")})}
PSK_IN_WPA_ONLY = {"WPA": Variant("a{sv}", {"KeyMgmt": Variant("as", ["wpa-psk"])})}


def details_call(path: str) -> Any:
    """How the properties of a BSS are asked for."""
    return call("GetAll", BSS, bus="system", destination=CALLED_NAME, path=path, interface="org.freedesktop.DBus.Properties")


def pushed(world: World) -> list[list[Any]]:
    """Report the list, and return the one that the daemon sends."""
    mark = world.journal.mark()
    world.wpa.report_bsss()
    entry = world.journal.wait_for(signal("AccessPointsChanged"), mark)
    return entry.body[0]  # type: ignore[no-any-return]


def test_reading_the_list_asks_for_all_bsss_and_each_ones_properties(world: World) -> None:
    bring_up_station(world)
    paths = [world.wpa.add_bss(f"net {number}", signal=-40 - number) for number in range(3)]
    mark = world.journal.mark()

    value = world.get_variant("AccessPoints")

    assert value.signature == "a(siib)"
    assert value.value == [[f"net {number}", 1, -40 - number, True] for number in range(3)]
    world.journal.expect_in_order(
        [
            command("rfkill list wlan"),
            command("iw dev wlan0 info"),
            call(
                "Get",
                INTERFACE,
                "BSSs",
                bus="system",
                destination=CALLED_NAME,
                path=STATION,
                interface="org.freedesktop.DBus.Properties",
            ),
            *(details_call(path) for path in paths),
        ],
        mark,
    )
    assert world.journal.count(call(), mark) == 4
    assert world.journal.logs(mark) == [GET_LOG]


def test_a_changed_list_is_sent_as_an_array(world: World) -> None:
    bring_up_station(world)
    first = world.wpa.add_bss("far", signal=-70)
    second = world.wpa.add_bss("near", signal=-40, privacy=False, key_mgmt=())
    mark = world.journal.mark()
    world.wpa.report_bsss()
    world.journal.expect_in_order(
        [
            details_call(first),
            details_call(second),
            signal(
                "AccessPointsChanged",
                [["near", 0, -40, False], ["far", 1, -70, True]],
                path="/com/vantora/Network1",
                interface="com.vantora.Network1.WiFi",
                signature="a(siib)",
            ),
        ],
        mark,
    )
    world.settle()
    assert world.journal.logs(mark) == [("info", "[WPA Supplicant] Properties changed"), CHANGED_LOG]
    assert world.journal.count(call("Get"), mark) == 0, "the notification brought the list"
    assert world.journal.changes(mark) == []


def test_the_strongest_comes_first(world: World) -> None:
    bring_up_station(world)
    for level in (-90, -30, -60, 0, -128, 20):
        world.wpa.add_bss(f"at {level}", signal=level)
    levels = [entry[2] for entry in world.get("AccessPoints")]
    assert levels == [20, 0, -30, -60, -90, -128]
    assert [entry[2] for entry in pushed(world)] == levels


def test_of_equal_names_the_strongest_stays_with_its_own_flags(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss("cafe", signal=-70, privacy=True, key_mgmt=("wpa-psk",))
    world.wpa.add_bss("cafe", signal=-40, privacy=False, key_mgmt=())
    world.wpa.add_bss("cafe", signal=-55, privacy=True, key_mgmt=("wpa-eap",))
    world.wpa.add_bss("Cafe", signal=-60)
    assert world.get("AccessPoints") == [["cafe", 0, -40, False], ["Cafe", 1, -60, True]]


def test_equal_signals_are_all_kept(world: World) -> None:
    bring_up_station(world)
    for number in range(40):
        world.wpa.add_bss(f"net {number}", signal=-50)
    listed = world.get("AccessPoints")
    assert sorted(entry[0] for entry in listed) == sorted(f"net {number}" for number in range(40))


def test_hidden_networks_are_left_out_however_strong(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss(b"", signal=-1)
    world.wpa.add_bss("seen", signal=-80)
    world.wpa.add_bss("unnamed", missing=("SSID",))
    assert world.get("AccessPoints") == pushed(world) == [["seen", 1, -80, True]]


@pytest.mark.parametrize(
    ("bss", "flag"),
    [
        ({"key_mgmt": ("wpa-psk",)}, True),
        ({"key_mgmt": ("wpa-eap", "sae", "wpa-psk")}, True),
        ({"key_mgmt": ("wpa-eap",)}, False),
        ({"key_mgmt": ("wpa-psk-sha256", "wpa-ft-psk", "WPA-PSK", "sae")}, False),
        ({"key_mgmt": ()}, False),
        ({"missing": ("RSN",)}, False),
        ({"extra": RSN_WITHOUT_KEY_MGMT}, False),
        ({"key_mgmt": (), "extra": PSK_IN_WPA_ONLY}, False),
    ],
)
def test_only_wpa_psk_in_the_rsn_element_sets_the_flag(world: World, bss: dict[str, Any], flag: bool) -> None:
    bring_up_station(world)
    world.wpa.add_bss("cafe", **bss)
    assert world.get("AccessPoints") == [["cafe", 1, -50, flag]]


def test_properties_left_out_count_as_none(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss("bare", missing=("Privacy", "Signal", "RSN", "WPA", "IEs", "Rates", "BSSID"))
    world.wpa.add_bss("next", signal=-70)
    assert world.get("AccessPoints") == [["bare", 0, 0, False], ["next", 1, -70, True]]


def test_properties_of_any_type_beside_do_no_harm(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss(
        "cafe",
        extra={
            "Strange": Variant("a(ss)", [["a", "b"]]),
            "Deep": Variant("v", Variant("s", "x")),
            "Map": Variant("a{us}", {1: "x"}),
            "Text": Variant("s", ""),
            "Float": Variant("d", 1.5),
        },
    )
    assert world.get("AccessPoints") == [["cafe", 1, -50, True]]


HOSTILE = [
    (b"\xff" * 32, "\ufffd" * 32),
    (b"caf\xc3\xa9", "caf\u00e9"),
    (b"half\xc3", "half\ufffd"),
    (b"nul\0inside", "nul\ufffdinside"),
    (b"\0", "\ufffd"),
    (b'"quotes"\'\\`', '"quotes"\'\\`'),
    (b"new\nline\ttab\x1b", "new\nline\ttab\x1b"),
    ("\uffff".encode(), "\ufffd" * 3),
    (b"\xed\xa0\x80", "\ufffd" * 3),
    ("\U0001f4f6".encode(), "\U0001f4f6"),
    (b"%s%n", "%s%n"),
]


def test_names_of_any_bytes_leave_the_list_readable(world: World) -> None:
    bring_up_station(world)
    for number, (name, _) in enumerate(HOSTILE):
        world.wpa.add_bss(name, signal=-10 - number)
    listed = world.get("AccessPoints")
    assert listed == [[text, 1, -10 - number, True] for number, (_, text) in enumerate(HOSTILE)]
    assert pushed(world) == listed


def test_names_that_differ_only_in_bytes_that_can_not_be_shown_are_two(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss(b"net\xff", signal=-40)
    world.wpa.add_bss(b"net\xfe", signal=-50)
    world.wpa.add_bss(b"net\xff", signal=-60)
    assert world.get("AccessPoints") == [["net\ufffd", 1, -40, True], ["net\ufffd", 1, -50, True]]


def test_an_empty_list_is_read_and_sent_as_an_empty_array(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    assert world.get("AccessPoints") == []
    assert world.journal.logs(mark) == [GET_LOG]
    world.wpa.report_bsss()
    world.journal.wait_for(signal("AccessPointsChanged", [], signature="a(siib)"), mark)


@pytest.mark.parametrize("trouble", ["gone", "refused", "odd", "empty"])
def test_a_bss_that_can_not_be_read_is_dropped_and_the_rest_listed(world: World, trouble: str) -> None:
    bring_up_station(world)
    world.wpa.add_bss("before", signal=-40)
    lost = world.wpa.add_bss("lost", signal=-45)
    world.wpa.add_bss("after", signal=-50)
    match trouble:
        case "gone":
            bsss = list(world.wpa.bss)
            world.wpa.remove_bss(lost)
            world.wpa.reply("Get", "v", [Variant("ao", bsss)], on="BSSs")
        case "refused":
            world.wpa.refuse("GetAll", on=lost)
        case "odd":
            world.wpa.reply("GetAll", "s", ["odd"], on=lost)
        case "empty":
            world.wpa.reply("GetAll", "a{sv}", [{}], on=lost)
    mark = world.journal.mark()
    assert world.get("AccessPoints") == [["before", 1, -40, True], ["after", 1, -50, True]]
    assert world.journal.logs(mark) == [GET_LOG]


def test_a_bss_named_twice_is_listed_once(world: World) -> None:
    bring_up_station(world)
    path = world.wpa.add_bss("cafe")
    world.wpa.reply("Get", "v", [Variant("ao", [path, path])], on="BSSs")
    assert world.get("AccessPoints") == [["cafe", 1, -50, True]]


@pytest.mark.parametrize("trouble", ["refused", "odd", "vanished", "absent"])
def test_a_list_that_can_not_be_read_is_empty_with_a_message(world: World, trouble: str) -> None:
    bring_up_station(world)
    world.wpa.add_bss("cafe")
    match trouble:
        case "refused":
            world.wpa.refuse("Get", on="BSSs")
        case "odd":
            world.wpa.reply("Get", "v", [Variant("s", "BSSs")], on="BSSs")
        case "vanished":
            world.wpa.vanish("Get", on="BSSs")
        case "absent":
            world.wpa.go()
    mark = world.journal.mark()
    assert world.get("AccessPoints") == []
    assert world.journal.logs(mark) == [GET_LOG, FAILED_LOG]


def test_a_station_that_vanishes_in_the_middle_leaves_what_was_read(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss("read", signal=-40)
    lost = world.wpa.add_bss("lost", signal=-30)
    world.wpa.add_bss("never asked", signal=-20)
    world.wpa.vanish("GetAll", on=lost)
    assert world.get("AccessPoints") == [["read", 1, -40, True]]
    world.wpa.come_back()
    assert [entry[0] for entry in world.get("AccessPoints")] == ["never asked", "lost", "read"]


def test_nothing_is_kept_between_two_reads(world: World) -> None:
    bring_up_station(world)
    path = world.wpa.add_bss("cafe", signal=-40)
    assert world.get("AccessPoints") == [["cafe", 1, -40, True]]
    world.wpa.bss[path].signal = -70
    assert world.get("AccessPoints") == [["cafe", 1, -70, True]]
    world.wpa.remove_bss(path)
    assert world.get("AccessPoints") == []


def listed_with_work(world: World) -> tuple[list[list[Any]], int]:
    """The list, and the nanoseconds for which the daemon's main thread has worked: the same on a busy machine."""

    def worked() -> int:
        assert world.daemon is not None
        return int(Path(f"/proc/{world.daemon.pid}/schedstat").read_text(encoding="ascii").split()[0])

    before = worked()
    return world.get("AccessPoints"), worked() - before


def test_a_thousand_bsss_cost_a_call_each_and_no_more_work_each_than_a_hundred(world: World) -> None:
    bring_up_station(world)
    work = {}
    for count in (100, 1000):
        for number in range(len(world.wpa.bss), count):
            world.wpa.add_bss(f"net {number % 900}", signal=-20 - number % 100)
        mark = world.journal.mark()
        listed, once = listed_with_work(world)
        asked = world.journal.find(call("GetAll"), mark)
        assert sorted(entry.path for entry in asked) == sorted(world.wpa.bss)
        assert len({entry.sender for entry in asked}) == 1, "one connection serves them all"
        assert world.journal.count(call(), mark) == count + 1
        assert len(listed) == len({entry[0] for entry in listed}) == min(count, 900)
        assert [entry[2] for entry in listed] == sorted((entry[2] for entry in listed), reverse=True)
        work[count] = min(once, listed_with_work(world)[1]) / count
    assert work[1000] < 2 * work[100]


def test_the_list_of_a_blocked_radio_is_empty_with_a_message(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss("cafe")
    world.radio.soft_blocked = True
    mark = world.journal.mark()
    assert world.get("AccessPoints") == []
    assert world.journal.logs(mark) == [("err", "[Main] get_wifi_access_points: Wifi is not enabled")]
    assert world.journal.commands(mark) == ["rfkill list wlan"]


def test_the_list_in_an_unknown_mode_is_empty_with_a_message(world: World) -> None:
    bring_up_station(world)
    world.radio.interface_type = "monitor"
    mark = world.journal.mark()
    assert world.get("AccessPoints") == []
    assert world.journal.logs(mark) == [("err", "[Main] Failed to read wifi mode")]


def test_the_list_of_an_access_point_is_empty_without_a_message(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    assert world.get("AccessPoints") == []
    assert world.journal.logs(mark) == []


def test_a_changed_list_is_sent_in_whatever_mode(world: World) -> None:
    world.up()
    world.wpa.come_back()
    world.wpa.add_bss("cafe")
    assert pushed(world) == [["cafe", 1, -50, True]]


def test_a_value_of_an_unexpected_type_in_a_bss_ends_the_process(world: World) -> None:
    bring_up_station(world)
    world.wpa.add_bss("cafe", extra={"Signal": Variant("i", -50)})
    assert world.daemon is not None
    mark = world.journal.mark()
    world.wpa.report_bsss()
    assert world.daemon.wait() == -6
    world.journal.wait_for(log("info", "[WPA Supplicant] Properties changed"), mark)
