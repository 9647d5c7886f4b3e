"""A Debian becomes a device and is a Debian again: our packages installed on a running system, the boot after it, removal."""

from __future__ import annotations

from collections.abc import Callable

import pytest

from bench import Device, Mark, World
from bench.deadline import SCALE

PACKAGES, NETWORK_MANAGER = 600 * SCALE, 300 * SCALE
"""Seconds that dpkg and NetworkManager may take."""

pytestmark = pytest.mark.timeout(2400 * SCALE)
"""An installation, a boot from the first instruction on and a removal, all of it emulated."""

HARBOUR, HARBOUR_KEY, HARBOUR_ADDRESS = "Harbour", "harbour-passphrase", "192.168.20.1"
WITHOUT_NETWORK_MANAGER = "systemd.mask=NetworkManager.service"
OURS = "vantora-device vantora-doctor vantora-network vantora-network-tools vantora-settingsd vantora-supplicant-names"
WAITS = "wlan0 stays as it is until the next boot"


def install(device: Device, folder: str = "/packages") -> str:
    """Installs our packages as an administrator would; what the installation says."""
    return device.see(f"dpkg --install {folder}/*.deb 2>&1", seconds=PACKAGES)


def reboot(device: Device, stock_boot: Callable[..., Device], *, words: str = "") -> Device:
    """Reboots it; the same machine after its boot."""
    device.guest.try_run("systemctl --no-block reboot")
    device.machine.wait_for_end()
    return stock_boot(disk=device.machine.disk, words=words)


def own_ssid(device: Device) -> str:
    """The name of the access point as hostapd has it."""
    device.wait_for_access_point()
    return device.see("hostapd_cli -i wlan0 status | sed -n 's/^ssid.0.=//p'")


def installed_versions(device: Device) -> set[str]:
    """The versions that our packages have."""
    return set(device.see(f"dpkg-query -W -f '${{Version}}\\n' {OURS}").split())


def assert_the_daemon_waits(device: Device) -> None:
    """Nothing of ours has touched wlan0, and nothing can be made to before the next boot."""
    device.guest.run("systemctl daemon-reload && systemctl start vantora-network.service")
    assert device.unit_state("vantora-network.service") == "inactive"
    assert device.unit_state("hostapd.service") == "inactive"


def assert_on_air(device: Device) -> None:
    """The device is an access point that a station joins with the passphrase that the device has made, and the doctor is content."""
    device.wait_for_log("Setup initial WiFi mode", since=Mark(), priority="info")
    ssid = own_ssid(device)
    assert 1 <= len(ssid) <= 32 and not ssid.startswith("-")
    world = World(device)
    assert world.wait_on_air(ssid).protected
    world.join(ssid, device.passphrase())
    assert world.lease().startswith("192.168.8.")
    assert device.get("IPAddress") == "192.168.8.1"
    console = (device.machine.work / "console.log").read_text(errors="replace")
    assert f"Passphrase of the access point: {device.passphrase()}" in console
    assert device.see("vantora-doctor").endswith(", 0 warnings, 0 bad: the device works.")
    world.leave()


def test_a_stock_system_is_on_the_air_after_installation_and_one_boot(stock_boot: Callable[..., Device]) -> None:
    """Installed on a running Debian: nothing happens to wlan0, and the installation says so; after the boot it is on air.

    Removed, nothing of it is left that touches wlan0, and Debian's own units are back.
    """
    device = stock_boot(words=WITHOUT_NETWORK_MANAGER)
    assert device.guest.try_run("test -e /var/lib/vantora-device/passphrase")[0] != 0, "no image holds a passphrase"
    assert WAITS in install(device)
    assert_the_daemon_waits(device)
    assert device.see("ip -4 -oneline address show dev wlan0") == ""

    device = reboot(device, stock_boot, words=WITHOUT_NETWORK_MANAGER)
    assert_on_air(device)
    assert device.see("systemctl is-enabled wpa_supplicant.service || true") in ("masked", "masked-runtime")

    device.see(f"dpkg --purge {OURS} 2>&1", seconds=PACKAGES)
    assert device.see("ip -4 -oneline address show dev wlan0") == ""
    assert device.unit_state("hostapd.service") == "inactive"
    device.wait_for_unit("wpa_supplicant.service", "active")
    left = device.see(
        "find / -xdev -name '*vantora*' -not -path '/packages/*' -not -path '/proc/*' -not -path '/var/log/*'; "
        "find /run /etc/systemd -name '*vantora*'; ls -d /etc/hostapd.conf /etc/korrin 2>/dev/null || true"
    )
    assert left == ""


def test_an_upgrade_of_a_running_device_keeps_it_on_the_air_with_all_that_people_have_set(
    stock_boot: Callable[..., Device]
) -> None:
    """On the air with version 1.0.0, named and edited by people: upgraded, it is so at once, without a boot."""
    device = stock_boot(words=WITHOUT_NETWORK_MANAGER)
    install(device, "/packages/before")
    device = reboot(device, stock_boot, words=WITHOUT_NETWORK_MANAGER)
    assert_on_air(device)
    assert installed_versions(device) == {"1.0.0"}
    device.set("SSID", "s", "Boathouse 7")
    device.see_once("hostapd_cli -i wlan0 status | grep -xF 'ssid[0]=Boathouse 7'")
    device.see("sed -i 's/^country_code=.*/country_code=DE/' /etc/hostapd.conf")
    passphrase, process = device.passphrase(), device.process()

    mark = device.mark()
    assert WAITS not in install(device)
    device.wait_for_log("Setup initial WiFi mode", since=mark, priority="info")
    assert "1.0.0" not in installed_versions(device)
    assert device.process() != process
    assert device.passphrase() == passphrase
    assert device.see("grep ^country_code= /etc/hostapd.conf") == "country_code=DE"
    device.see_once("hostapd_cli -i wlan0 status | grep -xF 'ssid[0]=Boathouse 7'")
    world = World(device)
    world.wait_on_air("Boathouse 7")
    world.join("Boathouse 7", passphrase)
    assert world.lease().startswith("192.168.8.")


def test_network_manager_keeps_wlan0_until_the_boot_and_has_it_back_after_a_removal(stock_boot: Callable[..., Device]) -> None:
    """Installed over the very wlan0 that NetworkManager is connected with: not cut off. After the boot ours; removed, NetworkManager's."""
    device = stock_boot()
    world = World(device)
    world.access_point(HARBOUR, radio=1, passphrase=HARBOUR_KEY, address=HARBOUR_ADDRESS)
    device.see_once(f"nmcli device wifi list --rescan yes | grep {HARBOUR}")
    device.see(f"nmcli --wait 90 device wifi connect {HARBOUR} password {HARBOUR_KEY}", seconds=NETWORK_MANAGER)
    device.see(f"ping -c 1 -W 10 {HARBOUR_ADDRESS}")
    held = device.see("ip -4 -oneline address show dev wlan0 | awk '{ print $4 }'")
    supplicant = device.see("systemctl show --value --property=MainPID wpa_supplicant.service")

    assert WAITS in install(device)
    assert_the_daemon_waits(device)
    device.see(f"ping -c 1 -W 10 {HARBOUR_ADDRESS}")
    assert device.see("ip -4 -oneline address show dev wlan0 | awk '{ print $4 }'") == held
    assert device.see("systemctl show --value --property=MainPID wpa_supplicant.service") == supplicant
    assert "wlan0:connected" in device.see("nmcli --terse --fields DEVICE,STATE device")

    device = reboot(device, stock_boot)
    assert_on_air(device)
    assert "wlan0:unmanaged" in device.see("nmcli --terse --fields DEVICE,STATE device")

    World(device).access_point(HARBOUR, radio=2, passphrase=HARBOUR_KEY, address=HARBOUR_ADDRESS)
    device.see(f"dpkg --remove {OURS} 2>&1", seconds=PACKAGES)
    device.see_once("nmcli --terse --fields DEVICE,STATE device | grep -x wlan0:connected", seconds=NETWORK_MANAGER)
    device.see(f"ping -c 1 -W 10 {HARBOUR_ADDRESS}")
