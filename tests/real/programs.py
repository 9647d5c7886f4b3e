"""The commands and configuration files of the real programs, as a device has them but for what needs a radio."""

from __future__ import annotations

import os
from pathlib import Path

from services import Service
from vantora_sim import World, units
from vantora_sim.world import HOSTAPD_TEMPLATE

ACCESS_POINT = """\
interface=wlan0
driver=none
ctrl_interface=/var/run/hostapd
ssid=template
hw_mode=g
channel=6
"""
"""Without a radio and without security: stations come and go by order (`new_sta`, `deauthenticate`)."""

SECURED_ACCESS_POINT = HOSTAPD_TEMPLATE.replace("driver=nl80211", "driver=none")
"""Everything that the template of a device holds. Without a radio it waits five seconds for the country's channels, and then
goes on without."""

WIRED_ACCESS_POINT = """\
interface=wlan0
driver=wired
ctrl_interface=/var/run/hostapd
ieee8021x=1
eap_server=1
eap_user_file=/run/eap_users
use_pae_group_addr=1
ssid=template
hw_mode=g
channel=6
"""
"""On the cable: a station really proves who it is, by IEEE 802.1X, and is then let in."""

EAP_USERS = '"phone" MD5 "secret"\n'

VENDOR_KEY = b"acs_blacklist="
"""What the device's build of hostapd understands and Debian's does not."""

STATION_CONFIGURATION = "ctrl_interface=/var/run/wpa_supplicant\nupdate_config=1\n"
"""It may be told to save its networks: the only way to see a passphrase as it was understood."""

PEER_STATION = """\
ctrl_interface=/run/peer
ap_scan=0
network={
  key_mgmt=IEEE8021X
  eap=MD5
  identity="phone"
  password="secret"
  eapol_flags=0
}
"""

_DHCP_SERVER = """\
start {network}.10
end {network}.10
interface {interface}
lease_file /run/{interface}.leases
pidfile /run/{interface}-udhcpd.pid
option subnet 255.255.255.0
option lease 600
"""

_DHCP_SCRIPT = """\
#!/bin/sh
case "$1" in
deconfig) /usr/sbin/ip addr flush dev "$interface" ;;
bound | renew) /usr/sbin/ip addr replace "$ip/24" dev "$interface" ;;
esac
"""

DHCP_CLIENT = ["-f", "-s", "/run/udhcpc.script", "-t", "20", "-T", "1", "-A", "1"]
"""Arguments of udhcpc that do not depend on where it runs."""


def dhcp_server(interface: str) -> list[str]:
    """The command of a DHCP server; without its usual two seconds of asking whether the address is in use."""
    return ["/usr/bin/busybox", "udhcpd", "-f", "-a", "50", f"/run/{interface}-udhcpd.conf"]


def furnish(world: World) -> None:
    """Write the files that the programs read."""
    run = world.work / "run"
    (run / "eap_users").write_text(EAP_USERS)
    (run / "other.conf").touch()
    (run / "station.conf").write_text(STATION_CONFIGURATION)
    (run / "peer.conf").write_text(PEER_STATION)
    (run / "udhcpc.script").write_text(_DHCP_SCRIPT)
    (run / "udhcpc.script").chmod(0o755)
    for interface, network in (("wlan0", "192.168.8"), ("air0", "10.7.0")):
        (run / f"{interface}.leases").touch()
        (run / f"{interface}-udhcpd.conf").write_text(_DHCP_SERVER.format(interface=interface, network=network))


def _station(shim: Path, stock: bool) -> Service:
    if stock:
        return Service(["/usr/sbin/wpa_supplicant", "-u", "-Dwired", "-iwlan0", "-c/run/station.conf"])
    # The first interface is number 0, the second 1.
    return Service(
        [
            "/usr/sbin/wpa_supplicant",
            "-u",
            "-Dwired",
            "-ilo",
            "-c/run/other.conf",
            "-N",
            "-Dwired",
            "-iwlan0",
            "-c/run/station.conf",
        ],
        {"LD_PRELOAD": str(shim), "VANTORA_BUS_USER": str(os.geteuid())},
    )


def services(world: World, shim: Path, stock: bool = False) -> dict[str, Service]:
    """What the device's units run. A stock wpa_supplicant has only its newer bus name, and `wlan0` is its first interface."""

    def understandable() -> None:
        lines = world.hostapd_conf.read_bytes().splitlines(keepends=True)
        (world.work / "run/hostapd-debian.conf").write_bytes(
            b"".join(line for line in lines if not line.startswith(VENDOR_KEY))
        )
        world.radio.interface_type = "AP"

    def back_to_managed() -> None:
        world.radio.interface_type = "managed"

    return {
        # -d: it says who attaches.
        units.HOSTAPD: Service(
            ["/usr/sbin/hostapd", "-d", "/run/hostapd-debian.conf"], before_start=understandable, after_stop=back_to_managed
        ),
        units.STATION: _station(shim, stock),
        units.DHCP_SERVER: Service(dhcp_server("wlan0")),
        units.DHCP_CLIENT: Service(["/usr/bin/busybox", "udhcpc", "-i", "wlan0", *DHCP_CLIENT]),
    }
