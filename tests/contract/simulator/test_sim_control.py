"""vantora-simctl: each command has the effect that the change has outside, seen through the daemon."""

from __future__ import annotations

import json
import socket
from collections.abc import Callable
from pathlib import Path

import pytest
from simulated import KEY, OTHER_ADDRESS, connect, kernel_addresses, names, shown, state_words, wait_until
from vantora_sim import Variant, call, changed, hostapd_request, notify, signal, unit_path
from vantora_sim.device import SimulatedDevice
from vantora_sim.simctl import main as simctl_main
from vantora_sim.units import WIRED_DHCP_SERVER

INTERFACE = "com.vantora.Network1.WiFi"
PROPERTIES = "org.freedesktop.DBus.Properties"
Simctl = Callable[..., tuple[int, str]]


def scan(device: SimulatedDevice) -> list[str]:
    """The names that a scan finds, as the daemon publishes them."""
    mark = device.world.journal.mark()
    device.world.call("Scan")
    return names(device.world.journal.wait_for(signal("AccessPointsChanged"), mark).body[0])


# Networks


def test_added_network_is_found_and_can_be_joined(client: SimulatedDevice, simctl: Simctl) -> None:
    assert simctl(
        "add",
        "new one",
        "--band",
        "5",
        "--channel",
        "44",
        "--signal",
        "-52",
        "--passphrase",
        "brand new key",
        "--address",
        "10.9.0.2/24",
    ) == (0, '"new one" (02:00:00:01:80:00) is on the air')
    assert simctl("add", "6f6464", "--hex", "--no-dhcp", "--bssid", "02:00:00:00:70:01") == (
        0,
        '"odd" (02:00:00:00:70:01) is on the air',
    )
    assert {"new one", "odd"} <= set(scan(client))
    connect(client, "new one", "brand new key")
    assert kernel_addresses(client) == ["10.9.0.2/24"]


def test_removed_network_is_gone_from_the_next_scan(client: SimulatedDevice, simctl: Simctl) -> None:
    assert "open" in scan(client)
    assert simctl("remove", OTHER_ADDRESS) == (0, f'"open" ({OTHER_ADDRESS}) is off the air')
    assert "open" not in scan(client) and "open" not in names(client.world.get("AccessPoints"))


def test_joined_network_that_is_removed_is_lost_and_found_again(client: SimulatedDevice, simctl: Simctl) -> None:
    connect(client)
    mark = client.world.journal.mark()
    assert simctl("remove", "secured")[0] == 0
    client.world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)
    assert client.world.get("ClientSSID") == ""
    assert simctl("add", "secured", "--passphrase", KEY)[0] == 0
    client.world.journal.wait_for(changed("WiFiClientState", "completed"), mark)


def test_weakened_network_cannot_be_held_until_it_is_stronger(client: SimulatedDevice, simctl: Simctl) -> None:
    connect(client)
    mark = client.world.journal.mark()
    assert simctl("signal", "secured", "-100") == (0, '"secured" (02:00:00:00:50:01) is received with -100 dBm')
    client.world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)
    assert "secured" not in scan(client)
    simctl("signal", "secured", "-40")
    client.world.journal.wait_for(changed("WiFiClientState", "completed"), mark)


def test_changed_key_of_the_joined_network_fails_at_the_handshake(client: SimulatedDevice, simctl: Simctl) -> None:
    connect(client)
    mark = client.world.journal.mark()
    assert simctl("key", "secured", "another secret")[0] == 0
    client.world.journal.wait_for(changed("WiFiClientState", "failed"), mark)
    connect(client, "secured", "another secret")


# Stations


def test_stations_join_and_leave(device: SimulatedDevice, simctl: Simctl) -> None:
    assert simctl("join", "phone") == (0, "phone has joined")
    device.world.journal.wait_for(changed("WiFiConnectedClients", 1))
    assert simctl("join", "02:00:00:00:60:02")[0] == 0
    device.world.journal.wait_for(changed("WiFiConnectedClients", 2))
    mark = device.world.journal.mark()
    assert simctl("leave", "phone") == (0, "phone has left")
    device.world.journal.wait_for(changed("WiFiConnectedClients", 1), mark)
    assert [station["here"] for station in shown(simctl)["stations"]] == [False, True]


# Neighbours


def test_killed_hostapd_says_nothing_and_started_again_serves(device: SimulatedDevice, simctl: Simctl) -> None:
    simctl("join", "phone")
    device.world.journal.wait_for(changed("WiFiConnectedClients", 1))
    assert simctl("kill", "hostapd") == (0, "hostapd is killed")
    assert device.world.get("WiFiConnectedClients") == 0
    assert shown(simctl)["units"]["hostapd.service"] == "failed"
    assert simctl("start", "hostapd") == (0, "hostapd is started")
    wait_until(device, lambda: device.world.get("WiFiConnectedClients") == 1, "the station to be back")
    assert shown(simctl)["units"]["hostapd.service"] == "active"


def test_hanging_hostapd_answers_when_released(device: SimulatedDevice, simctl: Simctl) -> None:
    simctl("join", "phone")
    device.world.journal.wait_for(changed("WiFiConnectedClients", 1))
    mark = device.world.journal.mark()
    assert simctl("hang", "hostapd")[0] == 0
    read = device.world.call_async("Get", "ss", [INTERFACE, "WiFiConnectedClients"], PROPERTIES)
    device.world.journal.wait_for(hostapd_request("STA-FIRST"), mark)
    assert simctl("join", "tablet") == (1, "vantora-simctl: there is no access point to join")
    assert not read.done()
    assert simctl("release", "hostapd") == (0, "hostapd answers again")
    assert read.result(20)[0].value == 1


def test_killed_wpa_supplicant_forgets_and_is_started_again(client: SimulatedDevice, simctl: Simctl) -> None:
    connect(client)
    assert simctl("kill", "wpa_supplicant")[0] == 0
    assert (client.world.get("ClientSSID"), client.world.get("AccessPoints")) == ("", [])
    assert simctl("start", "wpa_supplicant")[0] == 0
    wait_until(client, lambda: client.world.wpa.present, "wpa_supplicant")
    connect(client)


def test_hanging_wpa_supplicant_holds_up_until_released(client: SimulatedDevice, simctl: Simctl) -> None:
    mark = client.world.journal.mark()
    assert simctl("hang", "wpa_supplicant")[0] == 0
    asked = client.world.call_async("Scan")
    client.world.journal.wait_for(call("Scan"), mark)
    assert not asked.done()
    assert simctl("release", "wpa_supplicant")[0] == 0
    asked.result(20)
    client.world.journal.wait_for(signal("AccessPointsChanged"), mark)


def test_hanging_wpa_supplicant_notices_a_lost_network_only_when_released(client: SimulatedDevice, simctl: Simctl) -> None:
    connect(client)
    mark = client.world.journal.mark()
    assert simctl("hang", "wpa_supplicant")[0] == 0
    assert simctl("remove", "secured")[0] == 0
    assert shown(simctl)["client"] == {"state": "completed", "network": "secured"}
    client.world.settle()
    assert state_words(client, mark) == []
    assert simctl("release", "wpa_supplicant")[0] == 0
    client.world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)


def test_hanging_systemd_holds_up_a_switch_until_released(device: SimulatedDevice, simctl: Simctl) -> None:
    mark = device.world.journal.mark()
    assert simctl("hang", "systemd")[0] == 0
    switch = device.world.call_async("Set", "ssv", [INTERFACE, "Mode", Variant("s", "Client")], PROPERTIES)
    device.world.journal.wait_for(call("LoadUnit"), mark)
    assert not switch.done()
    assert simctl("release", "systemd")[0] == 0
    switch.result(20)
    assert device.world.get("Mode") == "Client"


def test_settings_daemon_can_hang_and_be_killed_and_started(device: SimulatedDevice, simctl: Simctl) -> None:
    assert simctl("hang", "vantora-settingsd")[0] == 0
    switch = device.world.call_async("Set", "ssv", [INTERFACE, "Mode", Variant("s", "Client")], PROPERTIES)
    with pytest.raises(TimeoutError):
        switch.result(0.5)
    assert simctl("release", "vantora-settingsd")[0] == 0
    switch.result(20)
    assert device.settings_daemon.read("network", "mode") == "Client"
    assert simctl("kill", "vantora-settingsd")[0] == 0
    wait_until(device, lambda: not device.world.name_owned("com.vantora.common.Settings1"), "the name to be free")
    assert simctl("kill", "vantora-settingsd") == (1, "vantora-simctl: vantora-settingsd is not running")
    assert simctl("start", "vantora-settingsd")[0] == 0
    assert device.settings_daemon.read("network", "mode") == "Client"


def test_vanished_systemd_comes_back(device: SimulatedDevice, simctl: Simctl) -> None:
    assert simctl("kill", "systemd")[0] == 0
    assert shown(simctl)["running"]["systemd"] is False
    assert simctl("start", "systemd")[0] == 0
    device.world.set("Mode", "Client")
    assert device.world.get("Mode") == "Client"


def test_killed_daemon_is_started_again_by_its_unit(device: SimulatedDevice, simctl: Simctl) -> None:
    mark = device.world.journal.mark()
    assert simctl("kill", "vantora-network")[0] == 0
    device.world.journal.wait_for(notify("READY=1"), mark)


# The device


@pytest.mark.parametrize("switch", [(), ("--hard",)])
def test_blocked_radio_is_off_and_its_stations_are_gone(
    device: SimulatedDevice, simctl: Simctl, switch: tuple[str, ...]
) -> None:
    simctl("join", "phone")
    device.world.journal.wait_for(changed("WiFiConnectedClients", 1))
    mark = device.world.journal.mark()
    assert simctl("radio", "block", *switch) == (0, "the radio is blocked")
    device.world.journal.wait_for(changed("WiFiConnectedClients", 0), mark)
    assert (device.world.get("WiFiState"), device.world.get("Mode")) == (0, "unknown")
    assert simctl("radio", "unblock", *switch) == (0, "the radio is not blocked")
    assert (device.world.get("WiFiState"), device.world.get("Mode")) == (1, "Host")
    device.world.journal.wait_for(changed("WiFiConnectedClients", 1), mark)


def test_setting_is_changed_as_by_another_program(device: SimulatedDevice, simctl: Simctl) -> None:
    assert simctl("set", "network.frequency", "5") == (0, 'network.frequency is "5"')
    device.world.journal.wait_for(changed("WiFiFrequency", "5"))
    assert simctl("set", "network.enabled", "false") == (0, "network.enabled is false")
    device.world.journal.wait_for(changed("WiFiState", 0))
    assert simctl("set", "display.brightness", "55") == (0, "display.brightness is 55")
    assert simctl("set", "display.brightness", "dark") == (1, "vantora-simctl: that setting is a number")
    assert simctl("set", "network.enabled", "maybe") == (1, "vantora-simctl: that setting is true or false")
    assert simctl("set", "mode", "Client") == (1, "vantora-simctl: a setting is written as SECTION.KEY")
    status, text = simctl("set", "no.such", "x")
    assert status == 1 and "the settings daemon says: " in text


def test_cable_brings_the_wired_dhcp_server_and_takes_it_away(device: SimulatedDevice, simctl: Simctl) -> None:
    assert shown(simctl)["cable"] is False
    mark = device.world.journal.mark()
    assert simctl("cable", "plug") == (0, "the cable is plugged, eth0 has 192.168.2.20/24")
    device.world.journal.wait_for(call("Start", path=unit_path(WIRED_DHCP_SERVER)), mark)
    assert kernel_addresses(device, "eth0") == ["192.168.2.20/24"]
    found = shown(simctl)
    assert found["cable"] is True and found["enabled"] == [WIRED_DHCP_SERVER]
    mark = device.world.journal.mark()
    assert simctl("cable", "unplug") == (0, "the cable is unplugged")
    device.world.journal.wait_for(call("DisableUnitFiles"), mark)
    assert kernel_addresses(device, "eth0") == []
    assert simctl("cable", "plug", "--address", "10.0.0.1") == (0, "the cable is plugged, eth0 has 10.0.0.1")
    assert simctl("cable", "plug", "--address", "10.0.0.x") == (
        1,
        "vantora-simctl: '10.0.0.x' is no IPv4 address with a prefix length",
    )


# What is said


@pytest.mark.usefixtures("device")
def test_show_tells_how_things_really_are(simctl: Simctl) -> None:
    simctl("join", "phone")
    found = shown(simctl)
    assert (found["world"], found["cable"], found["client"]) == ("small", False, {"state": None, "network": None})
    assert found["access_point"] == {"on_air": True, "ssid": "Korrin One-3456"}
    assert found["radio"] == {"soft_blocked": False, "hard_blocked": False, "interface_type": "AP", "mhz": 2437}
    assert found["addresses"] == {"wlan0": ["192.168.8.1/24"], "eth0": []}
    assert found["running"] == {
        "hostapd": True,
        "wpa_supplicant": False,
        "systemd": True,
        "vantora-settingsd": True,
        "vantora-network": True,
    }
    status, text = simctl("show")
    assert status == 0
    for line in (
        "world         small",
        'access point  on the air as "Korrin One-3456"',
        "wlan0         192.168.8.1/24",
        "  phone           02:00:00:00:60:01  here: yes",
        "  hostapd.service                           active",
    ):
        assert line in text.splitlines()


REFUSALS = [
    (("remove", "nothing"), "there is no network 'nothing'"),
    (("key", "open", "12345678"), "that network has no passphrase"),
    (("key", "secured", "short"), "a passphrase has 8 to 63 printable ASCII characters"),
    (("signal", "secured", "5"), "a signal is from -120 to 0 dBm"),
    (("add", "x", "--channel", "40"), "channel: there is no channel 40 in the 2.4 GHz band"),
    (("add", "zz", "--hex"), 'ssid_hex: must be a string (name as bytes: 1 to 32 pairs of hexadecimal digits), not "zz"'),
    (("add", "x", "--bssid", OTHER_ADDRESS), f"there is an access point {OTHER_ADDRESS} already"),
    (("leave", "phone"), "phone is not here"),
    (("join", "stranger"), "there is no station 'stranger' in this world (there are: phone, tablet)"),
    (("kill", "wpa_supplicant"), "wpa_supplicant is not running"),
]


@pytest.mark.usefixtures("device")
def test_what_cannot_be_done_is_said(simctl: Simctl) -> None:
    for arguments, complaint in REFUSALS:
        assert simctl(*arguments) == (1, f"vantora-simctl: {complaint}")


def test_without_a_device_there_is_nobody_to_talk_to(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    monkeypatch.setenv("VANTORA_SIM_CONTROL", str(tmp_path / "control"))
    assert simctl_main(["show"]) == 3
    assert capsys.readouterr().err == f"vantora-simctl: {tmp_path}/control: No such file or directory\n"


def test_request_that_is_none_is_refused(device: SimulatedDevice) -> None:
    for line in (
        b"nonsense\n",
        b"[]\n",
        b"{}\n",
        b'{"command": "fly"}\n',
        b'{"command": "join"}\n',
        b'{"command": "join", "wing": 1}\n',
    ):
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(str(device.world.work / "control"))
            connection.sendall(line)
            assert set(json.loads(connection.makefile().readline())) == {"error"}
