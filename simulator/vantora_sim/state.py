"""The state of a simulated device and its surroundings, as it really is: not what the daemon says about it."""

from __future__ import annotations

import json
from typing import Any

from .neighbours import neighbours
from .parts import Parts
from .plan import printable


def snapshot(parts: Parts) -> dict[str, Any]:
    """Everything, as plain values. Not for the loop's thread."""
    world = parts.world
    return {
        **world.loop.call(at_once, parts),
        "addresses": {name: _addresses(parts, name) for name in ("wlan0", "eth0")},
        "cable": "LOWER_UP" in world.sandbox.run(["/usr/sbin/ip", "-o", "link", "show", "eth0"]).stdout,
    }


def at_once(parts: Parts) -> dict[str, Any]:
    """What can be told without asking the kernel. For the loop's thread."""
    world = parts.world
    radio, systemd, known = world.radio, world.systemd, neighbours(parts)
    return {
        "world": parts.plan.name,
        "running": {name: neighbour.running() for name, neighbour in known.items()},
        "hanging": [name for name, neighbour in known.items() if neighbour.hanging()],
        "radio": {
            "soft_blocked": radio.soft_blocked,
            "hard_blocked": radio.hard_blocked,
            "interface_type": radio.interface_type,
            "mhz": radio.frequency,
        },
        "access_point": {"on_air": parts.access_point.on_air, "ssid": printable(radio.ap_ssid)},
        "client": {
            "state": world.wpa.state if world.wpa.present else None,
            "network": parts.station.joined.label if parts.station.joined else None,
        },
        "stations": [
            {"name": visitor.name, "mac": visitor.mac, "here": visitor.mac in world.hostapd.stations}
            for visitor in parts.plan.visitors
        ],
        "networks": [
            {
                "ssid": network.label,
                "bssid": network.bssid,
                "band": network.band,
                "channel": network.channel,
                "signal": parts.air.signal(network),
                "security": network.security,
                "passphrase": network.passphrase,
                "hidden": network.hidden,
                "ssid_hex": network.ssid.hex(),
                "address": network.address,
            }
            for network in parts.air.networks
        ],
        "units": {
            unit: systemd.states.get(unit) or ("active" if active else "inactive") for unit, active in systemd.active.items()
        },
        "enabled": sorted(systemd.enabled),
    }


def _addresses(parts: Parts, interface: str) -> list[str]:
    shown = parts.world.sandbox.run(["/usr/sbin/ip", "-j", "-4", "addr", "show", "dev", interface])
    return [
        f"{address['local']}/{address['prefixlen']}"
        for link in json.loads(shown.stdout or "[]")
        for address in link.get("addr_info", [])
    ]


def _running(found: dict[str, Any]) -> list[str]:
    return [f"{name} (hangs)" if name in found["hanging"] else name for name, running in found["running"].items() if running]


def as_text(found: dict[str, Any]) -> str:
    """The same for people."""
    yes = {True: "yes", False: "no"}
    radio, access_point, client = found["radio"], found["access_point"], found["client"]
    blocked = [kind for kind in ("soft", "hard") if radio[f"{kind}_blocked"]]
    on_air = f"on the air as \"{access_point['ssid']}\"" if access_point["on_air"] else "not on the air"
    station = client["state"] or "wpa_supplicant is not running"
    if client["state"] and client["network"]:
        station += f", joined \"{client['network']}\""
    lines = [
        f"world         {found['world']}",
        f"running       {', '.join(_running(found))}",
        f"radio         {' and '.join(blocked) + ' blocked' if blocked else 'on'}, wlan0 is {radio['interface_type']}, "
        f"{radio['mhz']} MHz",
        f"access point  {on_air}",
        f"client        {station}",
        *(f"{name:<14}{', '.join(addresses) or 'no address'}" for name, addresses in found["addresses"].items()),
        f"cable         {'plugged' if found['cable'] else 'unplugged'}",
        "",
        "units",
        *(f"  {unit:<42}{state}{' (enabled)' if unit in found['enabled'] else ''}" for unit, state in found["units"].items()),
        "",
        "stations" if found["stations"] else "no stations in this world",
        *(f"  {station['name']:<16}{station['mac']}  here: {yes[station['here']]}" for station in found["stations"]),
        "",
        "networks" if found["networks"] else "no networks around",
        *(
            f"  {network['signal']:4d} dBm  {network['band']:>3} GHz  {network['bssid']}  {network['security']:<11}"
            f"{network['ssid']}{' (hidden)' if network['hidden'] else ''}"
            for network in sorted(found["networks"], key=lambda network: -network["signal"])
        ),
    ]
    return "\n".join(lines)
