"""wpa_supplicant or the system bus absent, hanging, lost in the middle of a call, and back again."""

from __future__ import annotations

import time

import pytest
from station import FAILED, FLUSH_LOGS, STATION_UNIT, bring_up_station, network, refusal, state_log, station_call, wait_logged
from vantora_sim import DEADLINE, Variant, World, call, changed, command, log

SCAN_LOGS = [("info", "[WPA] Scan APs"), ("err", "[WPA] wpa_supplicant_scan: Failed to call dbus method")]
CONNECT_OPENING = [("info", "[Main] Connect to the AP"), ("info", "[Main] Flush IP address"), *FLUSH_LOGS]
DISCONNECT_LOGS = [
    ("info", "[Main] Disconnect from AP called"),
    ("err", "[WPA] wpa_supplicant_disconnect_network: Failed to call dbus method"),
    ("err", "[Main] disconnect_from_ap: Failed to connect to AP"),
]
CONNECT_LOGS = [
    ("info", "[Main] Add new network"),
    ("info", "[WPA] Add network 'cafe', passphrase 'secret12'"),
    ("err", "[WPA] wpa_supplicant_add_network: Method call failed"),
    ("info", "[Main] Select just added network"),
    ("info", "[WPA] Select network:"),
    ("err", "[WPA] wpa_supplicant_select_network: Failed to call dbus method"),
    ("err", "[Main] connect_to_ap: Failed to connect to AP"),
    ("info", "[WPA] Remove network: "),
    ("err", "[WPA] wpa_supplicant_remove_network: Failed to call dbus method"),
    ("info", "Get 'WiFiClientState' property"),
]
NOT_CONNECTED = (FAILED, "Failed to connect to AP")


def connect(world: World) -> None:
    world.call("Connect", "ss", ["cafe", "secret12"])


def test_without_a_station_each_method_answers(world: World) -> None:
    bring_up_station(world)
    connect(world)
    world.wpa.go()
    mark = world.journal.mark()
    assert world.call("Scan") == []
    assert refusal(lambda: connect(world)) == NOT_CONNECTED
    assert refusal(lambda: world.call("Disconnect")) == NOT_CONNECTED
    world.settle()
    assert world.journal.logs(mark) == [*SCAN_LOGS, *CONNECT_OPENING, *CONNECT_LOGS, *DISCONNECT_LOGS]


def test_a_station_that_comes_back_is_used_at_once(world: World) -> None:
    bring_up_station(world)
    connect(world)
    world.wpa.go()
    refusal(lambda: connect(world))
    world.wpa.start_anew()
    mark = world.journal.mark()
    connect(world)
    assert world.call("Scan") == []
    assert world.journal.count(call("RemoveNetwork"), mark) == 0, "the network of before is forgotten"
    assert len(world.wpa.networks) == 1


def restart_with_a_network_of_its_own(world: World) -> None:
    """The new wpa_supplicant has a network from its configuration file, under the path that our own had in the old one."""
    world.wpa.go()
    mark = world.journal.mark()
    world.wpa.start_anew()
    world.wpa.networks[network(0)] = {"ssid": Variant("s", "of somebody else")}
    world.journal.wait_for(log("info", "[WPA Supplicant] Properties changed"), mark)
    world.settle()


def test_after_a_restart_the_path_of_before_is_somebody_elses_network_and_is_left_alone(world: World) -> None:
    bring_up_station(world)
    connect(world)
    restart_with_a_network_of_its_own(world)
    mark = world.journal.mark()
    connect(world)
    world.settle()
    assert world.journal.count(call("RemoveNetwork"), mark) == 0
    assert [text for _, text in world.journal.logs(mark) if "Remove network" in text] == []
    assert list(world.wpa.networks) == [network(0), network(1)]

    connect(world)  # that one is ours, and is replaced
    assert world.journal.count(station_call("RemoveNetwork", network(1)), mark) == 1
    assert list(world.wpa.networks) == [network(0), network(1)]


def test_a_refused_passphrase_after_a_restart_removes_nothing_of_somebody_else(world: World) -> None:
    bring_up_station(world)
    connect(world)
    restart_with_a_network_of_its_own(world)
    mark = world.journal.mark()
    world.wpa.report_state("4way_handshake")
    world.wpa.report_state("disconnected")
    world.journal.wait_for(changed("WiFiClientState", "failed"), mark)
    assert world.journal.count(call("RemoveNetwork"), mark) == 0
    assert list(world.wpa.networks) == [network(0)]


def test_a_restart_in_the_middle_of_a_handshake_is_no_refused_passphrase(world: World) -> None:
    bring_up_station(world)
    connect(world)
    mark = world.journal.mark()
    world.wpa.report_state("4way_handshake")
    wait_logged(world, *state_log("disconnected", "4way_handshake"), mark)
    restart_with_a_network_of_its_own(world)
    world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)
    logs = world.journal.logs(mark)
    assert ("err", "Failed to connect to AP") not in logs
    assert state_log("4way_handshake", "disconnected") in logs
    assert world.get("WiFiClientState") == "disconnected"
    assert list(world.wpa.networks) == [network(0)]


@pytest.mark.parametrize("member", ["Scan", "AddNetwork", "SelectNetwork", "Disconnect"])
def test_a_station_that_vanishes_in_the_middle_of_a_call_leaves_no_caller_waiting(world: World, member: str) -> None:
    bring_up_station(world)
    world.wpa.vanish(member)
    mark = world.journal.mark()
    match member:
        case "Scan":
            assert world.call("Scan") == []
            expected = SCAN_LOGS
        case "Disconnect":
            assert refusal(lambda: world.call("Disconnect")) == NOT_CONNECTED
            expected = DISCONNECT_LOGS
        case "AddNetwork":
            assert refusal(lambda: connect(world)) == NOT_CONNECTED
            expected = [*CONNECT_OPENING, *CONNECT_LOGS]
        case _:
            assert refusal(lambda: connect(world)) == NOT_CONNECTED
            expected = [
                *CONNECT_OPENING,
                *CONNECT_LOGS[:2],
                ("info", f"[WPA] Network object added '{network(0)}'"),
                ("info", "[Main] Select just added network"),
                ("info", f"[WPA] Select network:{network(0)}"),
                *CONNECT_LOGS[5:7],
                ("info", f"[WPA] Remove network: {network(0)}"),
                *CONNECT_LOGS[8:],
            ]
    world.settle()
    assert world.journal.logs(mark) == expected
    world.wpa.come_back()
    world.wpa.report_state("completed")
    world.journal.wait_for(changed("WiFiClientState", "completed"), mark)
    assert world.call("Scan") == []


@pytest.mark.parametrize("member", ["Scan", "AddNetwork", "SelectNetwork", "RemoveNetwork", "Disconnect", "GetAll"])
def test_a_hanging_station_holds_the_caller_until_it_answers(world: World, member: str) -> None:
    bring_up_station(world)
    world.wpa.add_bss("cafe")
    connect(world)
    world.wpa.state = "completed"
    world.wpa.hang(member)
    mark = world.journal.mark()
    match member:
        case "Scan" | "Disconnect":
            answer = world.call_async(member)
        case "GetAll":
            answer = world.call_async(
                "Get", "ss", ["com.vantora.Network1.WiFi", "AccessPoints"], interface="org.freedesktop.DBus.Properties"
            )
        case _:
            answer = world.call_async("Connect", "ss", ["cafe", "secret12"])
    world.journal.wait_for(call(member), mark)
    assert not answer.done()
    world.wpa.clear()
    assert [getattr(value, "value", value) for value in answer.result(20)] == (
        [[["cafe", 1, -50, True]]] if member == "GetAll" else []
    )
    assert world.journal.logs(mark, priority="err") == []


def test_a_hanging_station_does_not_keep_the_daemon_from_ending(world: World) -> None:
    bring_up_station(world)
    world.wpa.hang("Scan")
    mark = world.journal.mark()
    world.call_async("Scan").add_done_callback(lambda future: future.exception())
    world.journal.wait_for(call("Scan"), mark)
    world.wpa.go()
    assert world.stop_daemon() == 0


def test_without_a_system_bus_every_function_says_so(world: World) -> None:
    bring_up_station(world)
    connect(world)
    world.wpa.go()
    world.systemd.go()
    world.system_bus.stop()
    mark = world.journal.mark()

    assert world.call("Scan") == []
    world.settle()
    assert world.journal.logs(mark) == [
        ("info", "[WPA] Scan APs"),
        ("err", "[WPA] wpa_supplicant_scan: Failed to open system bus"),
    ]

    mark = world.journal.mark()
    assert world.get("AccessPoints") == []
    assert world.journal.logs(mark) == [
        ("info", "[WPA] Get access points"),
        ("err", "wpa_supplicant_get_access_points: Failed to open system bus"),
        ("err", "[Main]  Something went wrong with getting APs"),
    ]

    mark = world.journal.mark()
    assert refusal(lambda: world.call("Disconnect")) == NOT_CONNECTED
    world.settle()
    assert world.journal.logs(mark) == [
        ("info", "[Main] Disconnect from AP called"),
        ("err", "[WPA] wpa_supplicant_disconnect_network: Failed to open system bus"),
        ("err", "[Main] disconnect_from_ap: Failed to connect to AP"),
    ]

    mark = world.journal.mark()
    assert refusal(lambda: connect(world)) == NOT_CONNECTED
    world.settle()
    assert world.journal.logs(mark) == [
        *CONNECT_OPENING,
        ("info", f"[WPA] Remove network: {network(0)}"),
        ("err", "[WPA] wpa_supplicant_remove_network: Failed to open system bus"),
        ("info", "[Main] Add new network"),
        ("info", "[WPA] Add network 'cafe', passphrase 'secret12'"),
        ("err", "[WPA] wpa_supplicant_add_network: Failed to open system bus"),
        ("info", "[Main] Select just added network"),
        ("info", "[WPA] Select network:"),
        ("err", "[WPA] wpa_supplicant_select_network: Failed to open system bus"),
        ("err", "[Main] connect_to_ap: Failed to connect to AP"),
        ("info", "[WPA] Remove network: "),
        ("err", "[WPA] wpa_supplicant_remove_network: Failed to open system bus"),
        ("info", "Get 'WiFiClientState' property"),
    ]


def test_the_network_is_kept_when_no_bus_could_carry_its_removal(world: World) -> None:
    bring_up_station(world)
    connect(world)
    hidden = world.system_bus.socket.with_name("out of reach")
    world.system_bus.socket.rename(hidden)
    assert refusal(lambda: world.call("Disconnect")) == NOT_CONNECTED
    hidden.rename(world.system_bus.socket)
    mark = world.journal.mark()
    connect(world)
    world.journal.wait_for(station_call("RemoveNetwork", network(0)), mark)


def test_without_a_system_bus_at_start_the_listener_says_so(world: World) -> None:
    world.system_bus.stop()
    world.settings.set("network", "enabled", False)
    world.up()
    lines = world.journal.logs()
    start = next(number for number, line in enumerate(lines) if line[1].startswith("[WPA Listener] Start. 0x"))
    assert lines[start + 1 : start + 4] == [
        ("err", "Start: Could not connect to DBus: -2"),
        ("err", "Start: Could not listen to signal: -2"),
        ("info", "[WPA Listener] Start completed"),
    ]
    assert ("info", "[WPA Listener] Start listening") not in lines


def test_a_restarted_system_bus_is_followed(world: World) -> None:
    bring_up_station(world)
    world.wpa.go()
    world.system_bus.stop()
    world.system_bus.start()
    world.system_bus.wait_ready()
    world.wpa.come_back()
    mark = world.journal.mark()
    deadline = time.monotonic() + DEADLINE
    while not world.journal.count(log("info", state_log("disconnected", "scanning")[1]), mark):
        assert time.monotonic() < deadline, world.journal.dump()
        world.wpa.changed(State=Variant("s", "scanning"))
        time.sleep(0.05)  # what is sent before the listener is back is lost: again


def test_a_unit_that_does_not_start_leaves_a_device_without_a_station(world: World) -> None:
    world.systemd.refuse(
        "Start", on="wpa_supplicant-nl80211@wlan0.service", name="org.freedesktop.systemd1.LoadFailed", text="no"
    )
    world.settings.set("network", "mode", "Client")
    world.up()
    world.journal.expect_in_order(
        [
            log("info", "Starting WPA Supplicant daemon service"),
            call("Start", "replace", path=STATION_UNIT),
            command("ip addr flush dev wlan0"),
            changed("Mode", "Client"),
        ]
    )
    mark = world.journal.mark()
    assert world.call("Scan") == []
    world.settle()
    assert world.journal.logs(mark) == SCAN_LOGS


def test_leaving_client_mode_stops_the_unit(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    world.set("Mode", "Host")
    world.journal.expect_in_order(
        [
            log("info", "Stoping WPA Supplicant daemon service"),
            call(
                "LoadUnit",
                "wpa_supplicant-nl80211@wlan0.service",
                path="/org/freedesktop/systemd1",
                interface="org.freedesktop.systemd1.Manager",
                destination="org.freedesktop.systemd1",
            ),
            call(
                "Stop",
                "replace",
                path=STATION_UNIT,
                interface="org.freedesktop.systemd1.Unit",
                destination="org.freedesktop.systemd1",
            ),
        ],
        mark,
    )
    wait_logged(world, "info", "[WiFi] Start Host mode", mark)
