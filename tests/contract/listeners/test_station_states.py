"""Reported states of wpa_supplicant: what is remembered, what is announced, and what restarts the DHCP client."""

from __future__ import annotations

import pytest
from station import (
    DHCP_CLIENT_UNIT,
    DHCP_RESTART_LOGS,
    SIGNAL_NAME,
    bring_up_station,
    emitting_log,
    network,
    state_log,
    station_call,
    wait_logged,
)
from vantora_sim import Variant, World, call, changed, log

CHANGED_LOG = ("info", "[WPA Supplicant] Properties changed")
READ_LOG = ("info", "Get 'WiFiClientState' property")
RESTART = call("Restart", "replace", path=DHCP_CLIENT_UNIT)


def report(world: World, *states: str) -> None:
    """Report states one after the other, and wait until the daemon has handled the last."""
    for state in states:
        mark = world.journal.mark()
        world.wpa.report_state(state)
        world.journal.wait_for(log(text=lambda text, state=state: text.endswith(f"-> '{state}'")), mark)
    world.settle()


def reach(world: World, state: str) -> None:
    """Have the daemon remember a state."""
    bring_up_station(world)
    report(world, state)


def job_log(number: int) -> tuple[str, str]:
    return "info", f"[Utils] Restarted '{DHCP_CLIENT_UNIT}' unit with job id:/org/freedesktop/systemd1/job/{number}"


def test_the_listener_is_started_with_the_daemon(world: World) -> None:
    world.up()
    entries = world.journal.find(log(text=lambda text: text.startswith("[WPA")))[:4]
    assert [entry.priority for entry in entries] == ["info"] * 4
    assert entries[0].text == "[WPA] Initialize WPA Supplicant"
    address = entries[1].text.removeprefix("[WPA Listener] Start. ")
    assert address.startswith("0x") and int(address, 16) > 0
    assert [entry.text for entry in entries[2:]] == ["[WPA Listener] Start listening", "[WPA Listener] Start completed"]


def test_the_state_is_empty_before_the_first_report(world: World) -> None:
    world.follow_units = False
    world.settings.set("network", "mode", "Client")
    world.up()
    assert world.get("WiFiClientState") == ""


def test_a_wpa_supplicant_that_starts_reports_disconnected_which_is_announced(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.wait_for(changed("WiFiClientState", "disconnected", alone=True), mark)
    # The listener has a thread of its own: its lines are among those of the switch.
    lines = [line for line in world.journal.logs(mark) if line[1].startswith(("[WPA Supplicant]", "StateChangeHandler"))]
    assert lines == [CHANGED_LOG, state_log("", "disconnected"), emitting_log("disconnected")]


def test_completed_with_its_bss_restarts_dhcp_and_announces(world: World) -> None:
    bring_up_station(world)
    bss = world.wpa.add_bss("cafe")
    report(world, "associated")
    mark = world.journal.mark()

    world.wpa.report_state("completed", bss=bss)

    world.journal.expect_in_order(
        [
            call(
                "Get",
                "fi.w1.wpa_supplicant1.BSS",
                "SSID",
                bus="system",
                destination=SIGNAL_NAME,
                path=bss,
                interface="org.freedesktop.DBus.Properties",
            ),
            call("LoadUnit", "udhcpc@wlan0.service"),
            RESTART,
            changed("WiFiClientState", "completed", alone=True),
        ],
        mark,
    )
    assert world.journal.logs(mark)[:9] == [
        CHANGED_LOG,
        ("info", f"[WPE supplicant] BSS changed: {bss} SSID: cafe"),
        state_log("associated", "completed"),
        *DHCP_RESTART_LOGS,
        job_log(4),
        emitting_log("completed", "cafe"),
        READ_LOG,
    ]


def test_completed_without_a_bss_hands_on_an_empty_ssid(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    report(world, "completed")
    assert world.journal.logs(mark)[:8] == [
        CHANGED_LOG,
        state_log("disconnected", "completed"),
        *DHCP_RESTART_LOGS,
        job_log(4),
        emitting_log("completed"),
        READ_LOG,
    ]


def test_a_refused_passphrase_is_the_state_failed_and_removes_the_network(world: World) -> None:
    bring_up_station(world)
    world.call("Connect", "ss", ["cafe", "wrong123"])
    report(world, "scanning", "associating", "4way_handshake")
    mark = world.journal.mark()

    report(world, "disconnected")

    world.journal.expect_in_order([station_call("RemoveNetwork", network(0)), changed("WiFiClientState", "failed")], mark)
    assert world.journal.logs(mark) == [
        CHANGED_LOG,
        state_log("4way_handshake", "disconnected"),
        ("warning", "[WPE supplicant] PropertyChangedCallback: Failed to connect to the accesspoint"),
        ("err", "Failed to connect to AP"),
        ("info", f"[WPA] Remove network: {network(0)}"),
        emitting_log("failed"),
        READ_LOG,
    ]
    assert world.get("WiFiClientState") == "failed"
    assert world.wpa.networks == {}


def test_a_refused_passphrase_of_no_network_of_ours_removes_nothing(world: World) -> None:
    reach(world, "4way_handshake")
    mark = world.journal.mark()
    report(world, "disconnected")
    assert world.journal.logs(mark)[2:5] == [
        ("warning", "[WPE supplicant] PropertyChangedCallback: Failed to connect to the accesspoint"),
        ("err", "Failed to connect to AP"),
        emitting_log("failed"),
    ]
    assert world.journal.count(call("RemoveNetwork"), mark) == 0


def test_after_a_refused_passphrase_the_next_connect_removes_nothing(world: World) -> None:
    bring_up_station(world)
    world.call("Connect", "ss", ["cafe", "wrong123"])
    report(world, "4way_handshake", "disconnected")
    mark = world.journal.mark()
    world.call("Connect", "ss", ["cafe", "secret12"])
    report(world, "4way_handshake", "completed")
    assert world.journal.count(call("RemoveNetwork"), mark) == 0
    assert world.get("WiFiClientState") == "completed"


def test_a_state_after_failed_is_compared_with_failed(world: World) -> None:
    reach(world, "4way_handshake")
    report(world, "disconnected")
    mark = world.journal.mark()
    report(world, "disconnected")
    assert world.journal.logs(mark) == [
        CHANGED_LOG,
        state_log("failed", "disconnected"),
        emitting_log("disconnected"),
        READ_LOG,
    ]
    assert world.journal.changes(mark) == [("WiFiClientState", "disconnected")]


@pytest.mark.parametrize("before", ["scanning", "associated", "completed", "group_handshake"])
def test_disconnected_from_any_other_state_is_just_that(world: World, before: str) -> None:
    reach(world, before)
    mark = world.journal.mark()
    report(world, "disconnected")
    assert [line for line in world.journal.logs(mark) if line != READ_LOG] == [
        CHANGED_LOG,
        state_log(before, "disconnected"),
        emitting_log("disconnected"),
    ]
    assert world.journal.changes(mark) == [("WiFiClientState", "disconnected")]


@pytest.mark.parametrize(
    "state",
    [
        "scanning",
        "authenticating",
        "4way_handshake",
        "inactive",
        "interface_disabled",
        "no such word",
        "Completed",
        "completed ",
    ],
)
def test_other_states_are_remembered_without_a_word_to_anybody(world: World, state: str) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    report(world, state)
    assert world.journal.logs(mark) == [CHANGED_LOG, state_log("disconnected", state)]
    assert world.journal.changes(mark) == []
    assert world.journal.count(RESTART, mark) == 0
    assert world.get("WiFiClientState") == state


def test_a_reported_failed_is_taken_like_our_own(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    report(world, "failed")
    assert world.journal.logs(mark) == [CHANGED_LOG, state_log("disconnected", "failed"), emitting_log("failed"), READ_LOG]


def test_states_out_of_order_are_followed_as_they_come(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    report(world, "completed", "scanning", "disconnected", "4way_handshake", "4way_handshake", "disconnected", "completed")
    assert [line for line in world.journal.logs(mark) if line[1].startswith("StateChangeHandler")] == [
        emitting_log("completed"),
        emitting_log("disconnected"),
        emitting_log("failed"),
        emitting_log("completed"),
    ]
    values = [value for name, value in world.journal.changes(mark) if name == "WiFiClientState"]
    assert values == ["completed", "disconnected", "failed", "completed"]


def test_a_repeated_state_is_announced_once(world: World) -> None:
    reach(world, "disconnected")
    mark = world.journal.mark()
    report(world, "disconnected", "disconnected")
    assert world.journal.logs(mark) == [CHANGED_LOG, state_log("disconnected", "disconnected")] * 2
    assert world.journal.changes(mark) == []


def test_a_repeated_completed_restarts_dhcp_each_time(world: World) -> None:
    reach(world, "completed")
    mark = world.journal.mark()
    report(world, "completed", "completed")
    assert [line for line in world.journal.logs(mark) if not line[1].startswith("[Utils] Restarted")] == [
        CHANGED_LOG,
        state_log("completed", "completed"),
        *DHCP_RESTART_LOGS,
    ] * 2
    assert world.journal.count(RESTART, mark) == 2
    assert world.journal.count(changed("WiFiClientState"), mark) == 0


def test_an_empty_state_changes_nothing(world: World) -> None:
    reach(world, "scanning")
    mark = world.journal.mark()
    report(world, "")
    assert world.journal.logs(mark) == [CHANGED_LOG, state_log("scanning", "")]
    assert world.get("WiFiClientState") == "scanning"


def test_a_refused_restart_of_dhcp_counts_as_done(world: World) -> None:
    bring_up_station(world)
    world.systemd.refuse("Restart")
    mark = world.journal.mark()
    report(world, "completed")
    assert world.journal.count(log("warning"), mark) == 0
    world.journal.wait_for(changed("WiFiClientState", "completed"), mark)


def test_a_missing_systemd_does_not_keep_the_state_back(world: World) -> None:
    bring_up_station(world)
    world.systemd.go()
    mark = world.journal.mark()
    world.wpa.report_state("completed")
    world.journal.wait_for(changed("WiFiClientState", "completed"), mark)


def test_the_state_of_a_blocked_radio_or_an_access_point_is_off(world: World) -> None:
    reach(world, "completed")
    world.radio.soft_blocked = True
    assert world.get("WiFiClientState") == "off"
    world.radio.soft_blocked = False
    world.radio.interface_type = "AP"
    assert world.get("WiFiClientState") == "off"
    mark = world.journal.mark()
    world.wpa.report_state("disconnected")
    world.journal.wait_for(changed("WiFiClientState", "off"), mark)


def test_the_state_is_kept_across_modes(world: World) -> None:
    reach(world, "completed")
    world.follow_units = False
    for mode, interface_type in (("Host", "AP"), ("Client", "managed")):
        world.set("Mode", mode)
        world.radio.interface_type = interface_type
    assert world.get("WiFiClientState") == "completed", "nobody has reported another"


def test_states_count_before_the_device_is_a_station(world: World) -> None:
    world.up()
    world.wpa.come_back()
    mark = world.journal.mark()
    world.wpa.changed(State=Variant("s", "scanning"))
    wait_logged(world, *state_log("", "scanning"), mark)
