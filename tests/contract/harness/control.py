"""What tests of the control operations share: a world in which only the main thread acts, and its steps as short texts."""

from __future__ import annotations

import re
from typing import Any

from vantora_sim import World, unit_name

HOSTAPD = "hostapd.service"
STATION = "wpa_supplicant-nl80211@wlan0.service"
DHCP_SERVER = "udhcpd.service"
DHCP_CLIENT = "udhcpc@wlan0.service"

STOP_CLIENT = [f"LoadUnit {DHCP_CLIENT}", f"Stop {DHCP_CLIENT}", f"LoadUnit {STATION}", f"Stop {STATION}"]
STOP_HOST = [f"LoadUnit {DHCP_SERVER}", f"Stop {DHCP_SERVER}", f"LoadUnit {HOSTAPD}", f"Stop {HOSTAPD}"]
READ_OVERRIDES = ["get device.deviceName", "get network.frequency"]
START_HOST = [
    "ip addr flush dev wlan0",
    "ip addr add 192.168.8.1/24 dev wlan0",
    *READ_OVERRIDES,
    f"LoadUnit {HOSTAPD}",
    f"Start {HOSTAPD}",
    f"LoadUnit {DHCP_SERVER}",
    f"Start {DHCP_SERVER}",
]
START_CLIENT = [f"LoadUnit {STATION}", f"Start {STATION}", "ip addr flush dev wlan0"]
RESTART_HOSTAPD = [*READ_OVERRIDES, f"LoadUnit {HOSTAPD}", f"Restart {HOSTAPD}"]
READ_CONFIG = ["get network.enabled", "get network.mode", "get network.frequency", "get device.deviceName"]

READ_POWER = "rfkill list wlan"
READ_MODE = "iw dev wlan0 info"
ANNOUNCE_CLIENT = [READ_POWER, READ_MODE, "announce Mode=Client"]
ANNOUNCE_HOST = [READ_POWER, READ_MODE, "announce Mode=Host"]

_CONTROL = re.compile(r"\[Main\]|set_wifi_|Set 'SSID' property")

REFUSED = ("org.freedesktop.DBus.Error.AccessDenied", "Operation not permitted")
"""What a client sees of a refused write."""


def bring_up_quietly(world: World) -> None:
    """Bring the daemon up in a world whose neighbours answer but cause no events, so that no listener thread has work.

    Units only change the interface's type; hostapd never opens its socket, and no address reaches the kernel.
    """

    async def take_type_along(verb: str, unit: str) -> None:
        if verb == "Start" and unit == HOSTAPD:
            world.radio.interface_type = "AP"
        elif verb == "Start" and unit == STATION:
            world.radio.interface_type = "managed"

    world.follow_units = False
    world.systemd.on_job.append(take_type_along)
    world.tools.ip.output("")
    world.up()


def steps(world: World, since: int) -> list[str]:
    """What the daemon did to the world, in order: commands, unit and settings calls, and one text per announced property."""
    world.settle()
    return [_step(entry) for entry in world.journal.since(since) if entry.kind in ("command", "call", "changed", "signal")]


def _step(entry: Any) -> str:
    if entry.kind == "command":
        return str(entry.line)
    if entry.kind == "changed":
        assert entry.alone, f"{entry.name} was announced together with others"
        return f"announce {entry.name}={entry.value}"
    if entry.kind == "signal":
        return f"signal {entry.member}"
    if entry.bus == "user":
        setting = f"{entry.path.rsplit('/', 1)[-1]}.{entry.args[1]}"
        return f"get {setting}" if entry.member == "Get" else f"set {setting}={entry.args[2].value}"
    return f"{entry.member} {unit_name(entry.path) or entry.args[0]}"


def logs(world: World, since: int) -> list[tuple[str, str]]:
    """The log lines of the main thread, in order: all but those of hostapd's listener, which finds nobody to listen to."""
    world.settle()
    return [line for line in world.journal.logs(since) if not line[1].startswith("ListenTask: ")]


def control_logs(world: World, since: int) -> list[tuple[str, str]]:
    """The log lines of the control operations themselves and of the property setters, without those of the lower modules."""
    return [line for line in logs(world, since) if _CONTROL.search(line[1])]
