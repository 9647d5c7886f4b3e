"""The real wpa_supplicant is asked by the daemon: networks are added, selected and removed, scans begun."""

from __future__ import annotations

import pytest
from real_device import RealDevice
from supplicant import OLDER_NAME, ROOT_PATH, SERVICE
from vantora_sim import CallRefused, Variant, log
from vantora_sim.wpa_supplicant import INTERFACE_PATH
from waiting import wait_until

FIRST = f"{INTERFACE_PATH}/Networks/0"
FAILED = "org.freedesktop.DBus.Error.Failed"

NAMES = {
    'a "quoted" name': '"a "quoted" name"',
    '"quoted"': '""quoted""',
    "# no comment; reboot": '"# no comment; reboot"',
    "Kaffee \u2615": "4b616666656520e29895",
    "back\\slash": '"back\\slash"',
    "x" * 32: '"' + "x" * 32 + '"',
    "\u00e9" * 16: "c3a9" * 16,
    " blanks ": '" blanks "',
    "line\nbreak": "6c696e650a627265616b",
}
"""Names, and how wpa_supplicant writes each: in quotes, or in hexadecimal digits where it is not plain ASCII."""


def connect(device: RealDevice, ssid: str, passphrase: str) -> dict[str, str]:
    """Join a network; the settings under which wpa_supplicant then has it."""
    device.world.call("Connect", "ss", [ssid, passphrase])
    networks = device.supplicant.get("Networks")
    assert len(networks) == 1
    assert device.supplicant.get("CurrentNetwork") == networks[0]
    return device.supplicant.network(networks[0])


def saved(device: RealDevice) -> list[str]:
    """What the one network is, as wpa_supplicant writes it into its configuration on order."""
    assert device.world.sandbox.run(["/usr/sbin/wpa_cli", "-i", "wlan0", "save_config"]).stdout == "OK\n"
    text = (device.world.work / "run/station.conf").read_text()
    return [
        line.strip()
        for line in text.partition("network={")[2].partition("}")[0].splitlines()
        if line.strip().startswith(("ssid=", "psk=", "key_mgmt="))
    ]


def refusal(device: RealDevice, member: str, *args: str) -> tuple[str, str]:
    """Name and text of the error that a method of the daemon is answered with."""
    with pytest.raises(CallRefused) as refused:
        device.world.call(member, "s" * len(args), list(args))
    return refused.value.name, refused.value.text


def test_wlan0_is_interface_1_and_both_names_are_one_program(station: RealDevice) -> None:
    assert station.supplicant.get("Ifname") == "wlan0"
    assert station.supplicant.get("Ifname", path=f"{ROOT_PATH}/Interfaces/0") == "lo"
    assert station.supplicant.owner(OLDER_NAME) == station.supplicant.owner(SERVICE) is not None


def test_interface_that_is_created_anew_is_not_number_1_any_more(station: RealDevice) -> None:
    """Numbers are not used again: whoever removes the interface must restart wpa_supplicant for the daemon to find it."""
    station.supplicant.call("RemoveInterface", "o", [INTERFACE_PATH], path=ROOT_PATH, interface=SERVICE)
    arguments = {"Ifname": Variant("s", "wlan0"), "Driver": Variant("s", "wired")}
    created = station.supplicant.call("CreateInterface", "a{sv}", [arguments], path=ROOT_PATH, interface=SERVICE)
    assert created == [f"{ROOT_PATH}/Interfaces/2"]
    mark = station.world.journal.mark()
    station.world.call("Scan")
    station.world.journal.wait_for(log("err", "[WPA] wpa_supplicant_scan: Failed to call dbus method"), mark)
    assert station.world.get("AccessPoints") == []


def test_network_with_a_passphrase_is_added_and_selected(station: RealDevice) -> None:
    connect(station, "net", "12345678")
    assert saved(station) == ['ssid="net"', 'psk="12345678"', "key_mgmt=WPA-PSK"]
    assert ("info", f"[WPA] Network object added '{FIRST}'") in station.world.journal.logs()


def test_network_without_a_passphrase_is_added_as_open(station: RealDevice) -> None:
    connect(station, "net", "")
    assert saved(station) == ['ssid="net"', "key_mgmt=NONE"]


def test_passphrase_of_8_to_63_bytes_is_taken_as_it_is(station: RealDevice) -> None:
    for passphrase in ("x" * 8, "x" * 63, "\u00e9" * 4, 'with "quotes"', "back\\slash", '"12345678"'):
        connect(station, "net", passphrase)
        assert saved(station)[1] == f'psk="{passphrase}"'


def test_passphrase_of_another_length_is_refused_and_no_network_stays(station: RealDevice) -> None:
    for passphrase in ("1234567", "x" * 64, "a" * 64):  # the last would be a key in hexadecimal digits elsewhere
        mark = station.world.journal.mark()
        assert refusal(station, "Connect", "net", passphrase) == (FAILED, "Failed to connect to AP")
        assert ("err", "[WPA] wpa_supplicant_add_network: Method call failed") in station.world.journal.logs(mark)
        assert station.supplicant.get("Networks") == []
    assert connect(station, "net", "12345678")["ssid"] == '"net"'


def test_name_reaches_wpa_supplicant_as_it_is(station: RealDevice) -> None:
    for name, written in NAMES.items():
        assert connect(station, name, "12345678")["ssid"] == written, name


def test_name_of_33_bytes_is_refused_and_no_network_stays(station: RealDevice) -> None:
    assert refusal(station, "Connect", "x" * 33, "12345678") == (FAILED, "Failed to connect to AP")
    assert station.supplicant.get("Networks") == []


def test_next_network_takes_the_place_of_the_one_before_and_its_number(station: RealDevice) -> None:
    connect(station, "first", "12345678")
    assert station.supplicant.get("Networks") == [FIRST]
    assert connect(station, "second", "12345678")["ssid"] == '"second"'
    assert station.supplicant.get("Networks") == [FIRST]


def test_network_that_somebody_else_removed_does_not_hinder_the_next(station: RealDevice) -> None:
    connect(station, "first", "12345678")
    station.supplicant.call("RemoveNetwork", "o", [FIRST])
    mark = station.world.journal.mark()
    connect(station, "second", "12345678")
    assert ("err", "[WPA] wpa_supplicant_remove_network: Failed to call dbus method") in station.world.journal.logs(mark)


def test_disconnect_without_a_connection_is_refused(station: RealDevice) -> None:
    assert refusal(station, "Disconnect") == (FAILED, "Failed to connect to AP")


def test_disconnect_leaves_the_network_configured(station: RealDevice) -> None:
    connect(station, "open", "")
    wait_until(lambda: station.supplicant.get("State") == "completed", "the connection")
    station.world.call("Disconnect")
    assert station.supplicant.get("State") == "disconnected"
    assert station.supplicant.get("Networks") == [FIRST]
    assert station.supplicant.get("CurrentNetwork") == "/"
    station.world.journal.wait_for(log("info", "[WPA Supplicant] State change: 'completed' -> 'disconnected'"))


def test_scan_that_cannot_work_is_begun_all_the_same_and_finds_nothing(station: RealDevice) -> None:
    mark = station.world.journal.mark()
    station.world.call("Scan")
    assert [line for line in station.world.journal.logs(mark) if line[1].startswith("[WPA] ")] == [("info", "[WPA] Scan APs")]
    wait_until(
        lambda: [notice.body for notice in station.supplicant.notices if notice.member == "ScanDone"] == [[False]],
        "the end of the scan",
    )
    assert station.world.get("AccessPoints") == []
    assert station.supplicant.get("BSSs") == []
