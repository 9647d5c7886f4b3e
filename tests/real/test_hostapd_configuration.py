"""The real hostapd reads what the daemon writes."""

from __future__ import annotations

from collections.abc import Callable

from programs import ACCESS_POINT, SECURED_ACCESS_POINT
from real_device import RealDevice
from vantora_sim import changed, log, units

NAMES = [
    'a "quoted" name',
    "# no comment",
    "Kaffee \u2615 K\u00fcche",
    "\u00e9" * 16,
    "  blanks at both ends  ",
    "back\\slash \\x41 \\n",
    "key=value",
    "'; reboot #",
    "%s %n",
    "tab\there",
    'P"C"ssid2',
]
"""Each holds something that a configuration file could misread; the fourth is as long as a name can be."""


def printed(name: str) -> str:
    """A name as hostapd prints it."""
    special = {0x22: '\\"', 0x5C: "\\\\", 0x09: "\\t"}
    return "".join(special.get(byte) or (chr(byte) if 32 <= byte < 127 else f"\\x{byte:02x}") for byte in name.encode())


def restart_with(device: RealDevice, name: str) -> None:
    """Give the access point another name and wait until hostapd has read it, or has refused it."""
    before = device.services.started(units.HOSTAPD)
    device.world.set("SSID", name)
    device.wait_started(units.HOSTAPD, before + 1)
    device.hostapd.wait_serves()


def expect_read(device: RealDevice, name: str) -> None:
    """hostapd runs with this name and the rest of its configuration."""
    assert device.hostapd.process.running, f"{name!r}: {device.hostapd.process.stdout}"
    assert f"ssid[0]={printed(name)}" in device.hostapd.cli("status").splitlines()
    assert "key_mgmt=WPA-PSK" in device.hostapd.cli("get_config").splitlines()


def test_every_name_reaches_hostapd_as_it_is(make_device: Callable[..., RealDevice]) -> None:
    device = make_device("Host", hostapd_template=SECURED_ACCESS_POINT)
    for name in NAMES:
        restart_with(device, name)
        expect_read(device, name)


def test_configuration_of_either_band_is_accepted(make_device: Callable[..., RealDevice]) -> None:
    device = make_device("Host", hostapd_template=SECURED_ACCESS_POINT)
    device.hostapd.wait_serves()
    for band, hw_mode in (("5", "a"), ("2.4", "g")):
        before = device.services.started(units.HOSTAPD)
        device.world.set("WiFiFrequency", band)
        device.wait_started(units.HOSTAPD, before + 1)
        device.hostapd.wait_serves()
        expect_read(device, "Korrin One")
        assert f"hw_mode={hw_mode}\n" in device.world.hostapd_conf.read_text()


def test_hostapd_without_the_vendors_key_refuses_that_one_line_and_no_other(make_device: Callable[..., RealDevice]) -> None:
    """Debian's build: the device's own knows the key. Whoever takes another must take the line out, as these tests do."""
    device = make_device("Host", hostapd_template=SECURED_ACCESS_POINT)
    refused = device.world.sandbox.run(["/usr/sbin/hostapd", "/run/hostapd.conf"])
    assert refused.status == 1
    complaints = [line for line in refused.stdout.splitlines() if "Line " in line or "errors found" in line]
    assert complaints == [
        "Line 1: unknown configuration item 'acs_blacklist'",
        "1 errors found in configuration file '/run/hostapd.conf'",
    ]


def test_line_break_in_a_name_adds_no_line(make_device: Callable[..., RealDevice]) -> None:
    device = make_device("Host", hostapd_template=SECURED_ACCESS_POINT)
    restart_with(device, "first\nwpa=0")
    assert "ssid[0]=first" in device.hostapd.cli("status").splitlines()
    assert "wpa=2" in device.hostapd.cli("get_config").splitlines()


def test_hostapd_that_refused_a_name_takes_the_next_and_is_heard_after_a_change_of_mode(
    make_device: Callable[..., RealDevice]
) -> None:
    """The listener looks for the successor of a hostapd that ends, once; a change of the name is no reason to look again."""
    device = make_device("Host", hostapd_template=ACCESS_POINT)
    device.hostapd.wait_attached()
    restart_with(device, "")
    assert device.hostapd.process.wait() == 1
    assert "invalid SSID ''" in device.hostapd.process.stdout
    device.world.journal.wait_for(log("err", "ListenTask: Not connected to socket - cannot listen."))
    restart_with(device, "good")
    assert "ssid[0]=good" in device.hostapd.cli("status").splitlines()
    device.world.settle()
    assert device.hostapd.said("CTRL_IFACE monitor attached") == 0

    before = device.services.started(units.HOSTAPD)
    device.world.set("Mode", "Client")
    device.world.set("Mode", "Host")
    device.wait_started(units.HOSTAPD, before + 1)
    device.hostapd.wait_attached()


def test_access_point_that_first_waits_for_its_country_is_announced_when_it_is_on_the_air(
    make_device: Callable[..., RealDevice]
) -> None:
    device = make_device("Host", hostapd_template=SECURED_ACCESS_POINT)
    device.hostapd.wait_attached()
    assert device.world.get("WiFiAccessPointInitialised") is False
    device.world.journal.expect_in_order(
        [log("info", "ListenTask: Recv <3>AP-ENABLED "), changed("WiFiAccessPointInitialised", True)]  # after five seconds
    )
    assert "state=ENABLED" in device.hostapd.cli("status").splitlines()
