"""What can be done to a running simulated device from outside: the commands of vantora-simctl."""

from __future__ import annotations

import ipaddress
import json
from collections.abc import Callable
from typing import TYPE_CHECKING, Any

from . import places, state
from .json_lines import loads
from .neighbours import neighbours
from .plan import Network
from .schema import check
from .world_file import check_network, make_network

if TYPE_CHECKING:
    from .device import SimulatedDevice

CABLE_ADDRESS = "192.168.2.20/24"
"""What the wired network gives the device."""


class CommandError(Exception):
    """The command cannot be done; the text says why."""


def run(device: SimulatedDevice, command: str, arguments: dict[str, Any]) -> str:
    """Do a command; returns what there is to say. Not for the loop's thread. Raises CommandError."""
    if command not in COMMANDS:
        raise CommandError(f"there is no command {command!r}")
    return COMMANDS[command](device, **arguments)


def _show(device: SimulatedDevice) -> str:
    return json.dumps(state.snapshot(device), ensure_ascii=False)


# The air


def _add(device: SimulatedDevice, network: dict[str, Any]) -> str:
    schema = json.loads(places.schema().read_text(encoding="utf-8"))
    wanted = {**schema["$defs"]["network"], "$defs": schema["$defs"]}
    findings = [str(finding) for finding in check(loads(json.dumps(network)), wanted)]
    findings = findings or [f"{field}: {text}" if field else text for field, text in check_network(network)]
    if findings:
        raise CommandError("; ".join(findings))
    taken = {other.bssid for other in device.air.networks}
    made = next(one for one in (make_network(network, number) for number in range(0x8000, 0x10000))
                if one.bssid not in taken or "bssid" in network)
    if made.bssid in taken:
        raise CommandError(f"there is an access point {made.bssid} already")
    device.world.loop.call(device.air.add, made)
    return f"\"{made.label}\" ({made.bssid}) is on the air"


def _remove(device: SimulatedDevice, network: str) -> str:
    found = _networks(device, network)
    for one in found:
        device.world.loop.call(device.air.remove, one)
    return _about(found, "off the air")


def _signal(device: SimulatedDevice, network: str, dbm: int) -> str:
    if not -120 <= dbm <= 0:
        raise CommandError("a signal is from -120 to 0 dBm")
    return _change(device, network, f"received with {dbm} dBm", signal=dbm)


def _key(device: SimulatedDevice, network: str, passphrase: str) -> str:
    if not 8 <= len(passphrase) <= 63 or not passphrase.isascii() or not passphrase.isprintable():
        raise CommandError("a passphrase has 8 to 63 printable ASCII characters")
    if any(not one.passphrase for one in _networks(device, network)):
        raise CommandError("that network has no passphrase")
    return _change(device, network, "protected by the new passphrase", passphrase=passphrase)


def _change(device: SimulatedDevice, name: str, what: str, **values: Any) -> str:
    found = _networks(device, name)

    def change() -> None:
        for network in found:
            for key, value in values.items():
                setattr(network, key, value)
        device.air.changed()

    device.world.loop.call(change)
    return _about(found, what)


def _networks(device: SimulatedDevice, name: str) -> list[Network]:
    """All access points of this name, or the one of this address."""
    wanted = name.encode(errors="surrogateescape")
    found = [network for network in device.air.networks if network.ssid == wanted or network.bssid == name.lower()]
    if not found:
        raise CommandError(f"there is no network {name!r}")
    return found


def _about(networks: list[Network], what: str) -> str:
    shown = ", ".join(f"\"{network.label}\" ({network.bssid})" for network in networks)
    return f"{shown} {'is' if len(networks) == 1 else 'are'} {what}"


# The access point's stations


def _join(device: SimulatedDevice, station: str) -> str:
    if not device.world.loop.call(device.access_point.join, _station(device, station)):
        raise CommandError("there is no access point to join")
    return f"{station} has joined"


def _leave(device: SimulatedDevice, station: str) -> str:
    if not device.world.loop.call(device.access_point.leave, _station(device, station)):
        raise CommandError(f"{station} is not here")
    return f"{station} has left"


def _station(device: SimulatedDevice, name: str) -> str:
    for visitor in device.plan.visitors:
        if name in (visitor.name, visitor.mac):
            return visitor.mac
    known = ", ".join(visitor.name for visitor in device.plan.visitors) or "none"
    raise CommandError(f"there is no station {name!r} in this world (there are: {known})")


# The device


def _neighbour(verb: str, done: str) -> Callable[..., str]:
    def act(device: SimulatedDevice, neighbour: str) -> str:
        known = neighbours(device)
        if neighbour not in known:
            raise CommandError(f"there is no neighbour {neighbour!r} (there are: {', '.join(known)})")
        if verb in ("kill", "hang") and not known[neighbour].running():
            raise CommandError(f"{neighbour} is not running")
        getattr(known[neighbour], verb)()
        return f"{neighbour} {done}"
    return act


def _radio(device: SimulatedDevice, blocked: bool, hard: bool = False) -> str:
    change = {"hard": blocked} if hard else {"soft": blocked}
    device.world.loop.call(lambda: device.world.radio.block(**change))
    return f"the radio is {'blocked' if device.world.radio.blocked else 'not blocked'}"


def _set(device: SimulatedDevice, setting: str, value: str) -> str:
    section, dot, key = setting.partition(".")
    if not dot:
        raise CommandError("a setting is written as SECTION.KEY")
    device.change_setting(section, key, _like(device.read_setting(section, key), value))
    return f"{setting} is {json.dumps(device.read_setting(section, key), ensure_ascii=False)}"


def _like(present: Any, text: str) -> Any:
    """The text as a value of the type that the setting has."""
    if isinstance(present, bool):
        if text not in ("true", "false"):
            raise CommandError("that setting is true or false")
        return text == "true"
    if isinstance(present, int):
        try:
            return int(text)
        except ValueError:
            raise CommandError("that setting is a number") from None
    return text


def _cable(device: SimulatedDevice, plugged: bool, address: str = CABLE_ADDRESS) -> str:
    if plugged:
        try:
            ipaddress.IPv4Interface(address)
        except ValueError:
            raise CommandError(f"{address!r} is no IPv4 address with a prefix length") from None
    steps = [("link", "set", "cable0", "up"), ("addr", "flush", "dev", "eth0"), ("addr", "replace", address, "dev", "eth0")]
    if not plugged:
        steps = [("addr", "flush", "dev", "eth0"), ("link", "set", "cable0", "down")]
    for step in steps:
        if not device.world.try_ip(*step):
            raise CommandError(f"\"ip {' '.join(step)}\" has failed")
    return f"the cable is plugged, eth0 has {address}" if plugged else "the cable is unplugged"


COMMANDS: dict[str, Callable[..., str]] = {
    "show": _show, "add": _add, "remove": _remove, "signal": _signal, "key": _key, "join": _join, "leave": _leave,
    "kill": _neighbour("kill", "is killed"), "hang": _neighbour("hang", "hangs"),
    "release": _neighbour("release", "answers again"), "start": _neighbour("start", "is started"),
    "radio": _radio, "set": _set, "cable": _cable,
}
