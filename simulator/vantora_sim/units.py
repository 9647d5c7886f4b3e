"""The unit names of the device and systemd's way to write a unit name as a D-Bus object path."""

from __future__ import annotations

import re

HOSTAPD = "hostapd.service"
STATION = "wpa_supplicant-nl80211@wlan0.service"
DHCP_SERVER = "udhcpd.service"
DHCP_CLIENT = "udhcpc@wlan0.service"
WIRED_DHCP_SERVER = "udhcpd_eth0.service"
WIRED_DHCP_SERVER_FILE = "/etc/korrin/udhcpd_eth0.service"

_PREFIX = "/org/freedesktop/systemd1/unit/"


def unit_path(name: str) -> str:
    """The object path of a unit: every byte that is no letter or digit, and a leading digit, as _xx."""
    escaped = "".join(
        chr(byte) if chr(byte).isascii() and chr(byte).isalnum() and (position or not chr(byte).isdigit()) else f"_{byte:02x}"
        for position, byte in enumerate(name.encode())
    )
    return _PREFIX + (escaped or "_")


def unit_name(path: str) -> str | None:
    """The unit of an object path; None when the path is not one of a unit."""
    if not path.startswith(_PREFIX):
        return None
    return re.sub(r"_([0-9a-f]{2})", lambda match: chr(int(match[1], 16)), path[len(_PREFIX) :])
