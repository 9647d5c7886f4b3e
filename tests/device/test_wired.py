"""The DHCP server of the wired interface, which comes and goes with addresses."""

from __future__ import annotations

from collections.abc import Callable

from bench import Device, Mark, World

UNIT = "udhcpd_eth0.service"
STARTED = f"Successfully enabled and started {UNIT}"
STOPPED = f"Successfully stopped and disabled {UNIT}"
LINKS = f"find /etc/systemd/system /run/systemd/system -name {UNIT}"
"""What enabling has made: the unit's file is outside systemd's folders, so it is known there by links."""
GIVE_ADDRESS = "ip link set eth0 up && ip address add 192.168.7.1/24 dev eth0"


def test_an_address_on_the_cable_starts_its_dhcp_server_and_one_lost_on_the_air_stops_it(device: Device, world: World) -> None:
    """eth0 gets an address: enabled, started, and a computer gets a lease; wlan0 loses one: stopped and disabled."""
    # The address that wlan0 is going to lose: getting it would stop the server, too.
    mark = device.mark()
    device.guest.run("ip address add 10.1.1.1/24 dev wlan0")
    device.wait_for_log("[NETLINK] IP Event: Iface: wlan0 IP Address: 10.1.1.1 Status: Added", since=mark)
    device.wait_for_log(f"Failed to disable {UNIT}", since=mark, priority="err")

    mark = device.mark()
    device.guest.run(GIVE_ADDRESS)
    device.wait_for_log("[NETLINK] IP Event: Iface: eth0 IP Address: 192.168.7.1 Status: Added", since=mark)
    device.wait_for_log(STARTED, since=mark, priority="info")
    device.wait_for_unit(UNIT, "active")
    assert device.see(f"systemctl is-enabled {UNIT}") == "enabled"
    assert f"/etc/systemd/system/{UNIT}" in device.see(LINKS).splitlines()
    world.run("ip link set wire up")
    assert world.lease(interface="wire").startswith("192.168.7.")

    mark = device.mark()
    device.guest.run("ip address delete 10.1.1.1/24 dev wlan0")
    device.wait_for_log("[NETLINK] IP Event: Iface: wlan0 IP Address: 10.1.1.1 Status: Removed", since=mark)
    device.wait_for_log(STOPPED, since=mark, priority="info")
    device.wait_for_unit(UNIT, "inactive")
    assert device.see(LINKS) == ""


def test_on_an_nfs_root_the_wired_dhcp_server_never_runs(boot: Callable[..., Device]) -> None:
    """Cold boot with root=/dev/nfs on the kernel's command line: an address on eth0 is as good as one lost.

    systemd does not find a unit outside its folders by name before it has been enabled once, and says so.
    """
    device = boot(words="root=/dev/nfs")
    device.wait_for_log("[NETLINK] Starting kernel netlink task...", since=Mark())
    assert "root=/dev/nfs" in device.see("cat /proc/cmdline")
    mark = device.mark()
    device.guest.run(GIVE_ADDRESS)
    device.wait_for_log("[NETLINK] IP Event: Iface: eth0 IP Address: 192.168.7.1 Status: Added", since=mark)
    device.wait_for_log(f"Failed to disable {UNIT}", since=mark, priority="err")
    assert device.unit_state(UNIT) == "inactive"
    assert not any(event.message == STARTED for event in device.journal.since())
