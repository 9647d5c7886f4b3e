"""The units of a device as systemd describes them, beside what follows from their jobs."""

from __future__ import annotations

import time
from typing import Any

from dbus_next import Variant

from . import units

NETWORK = "vantora-network.service"
SETTINGS = "vantora-settingsd.service"
SUPPLICANT_NAMES = "vantora-supplicant-names.service"


def _runs(*command: str) -> Variant:
    """ExecStart of a service with one command."""
    return Variant("a(sasbttttuii)", [[command[0], list(command), False, 0, 0, 0, 0, 0, 0, 0]])


def running() -> dict[str, Variant]:
    """A service that starts with the system and has been running since now."""
    return {
        "LoadState": Variant("s", "loaded"),
        "ActiveState": Variant("s", "active"),
        "UnitFileState": Variant("s", "enabled"),
        "ActiveEnterTimestampMonotonic": Variant("t", time.monotonic_ns() // 1000),
        "NRestarts": Variant("u", 0),
    }


def of_the_device() -> dict[str, dict[str, Variant]]:
    """What is said of each unit of a device on which all is well."""
    driven: dict[str, dict[str, Any]] = {
        units.HOSTAPD: {"ExecStart": _runs("/usr/sbin/hostapd", "/run/hostapd-translated.conf")},
        units.STATION: {"ExecStart": _runs("/sbin/wpa_supplicant", "-u", "-Dnl80211", "-iwlan0")},
        units.DHCP_SERVER: {"ExecStart": _runs("/bin/busybox", "udhcpd", "-f")},
        units.DHCP_CLIENT: {"ExecStart": _runs("/bin/busybox", "udhcpc", "-f", "-i", "wlan0")},
    }
    driven[units.HOSTAPD]["ExecStartPre"] = _runs("/usr/local/libexec/translate", "/run/hostapd.conf")
    return {
        **{name: {"UnitFileState": Variant("s", "static"), **said} for name, said in driven.items()},
        **{name: running() for name in (NETWORK, SETTINGS, SUPPLICANT_NAMES)},
    }
