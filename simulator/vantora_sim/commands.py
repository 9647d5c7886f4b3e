"""What can be done to a running simulated device from outside: the commands of vantora-simctl."""

from __future__ import annotations

import ipaddress
import json
from collections.abc import Callable
from typing import Any

from . import places, state
from .dbus_fake import CallRefused
from .json_lines import loads
from .neighbours import neighbours
from .parts import Parts
from .plan import Network
from .schema import check
from .world_file import check_network, make_network

CABLE_ADDRESS = "192.168.2.20/24"
"""What the wired network gives the device."""


class CommandError(Exception):
    """The command cannot be done; the text says why."""


def run(parts: Parts, command: str, arguments: dict[str, Any], *, by_plan: bool = False) -> str:
    """Do a command and record it; returns what there is to say. Not for the loop's thread. Raises CommandError.

    `by_plan` says in the record that the world file wanted it, and nobody else."""
    if command not in COMMANDS:
        raise CommandError(f"there is no command {command!r}")
    try:
        text = COMMANDS[command](parts, **arguments)
    except CallRefused as refusal:
        raise CommandError(f"the settings daemon says: {refusal.text} ({refusal.name})") from None
    except (AttributeError, KeyError, TypeError, ValueError) as error:
        raise CommandError(f"arguments of {command}: {error!r}") from None
    if command != "show":
        parts.world.journal.add(
            "world", command=command, arguments=arguments, text=text, **({"by_plan": True} if by_plan else {})
        )
    return text


def _show(parts: Parts) -> str:
    return json.dumps(state.snapshot(parts), ensure_ascii=False)


# The air


def _add(parts: Parts, network: dict[str, Any]) -> str:
    schema = json.loads(places.schema().read_text(encoding="utf-8"))
    wanted = {**schema["$defs"]["network"], "$defs": schema["$defs"]}
    findings = [str(finding) for finding in check(loads(json.dumps(network)), wanted)]
    findings = findings or [f"{field}: {text}" if field else text for field, text in check_network(network)]
    if findings:
        raise CommandError("; ".join(findings))
    taken = {other.bssid for other in parts.air.networks}
    made = next(
        one
        for one in (make_network(network, number) for number in range(0x8000, 0x10000))
        if one.bssid not in taken or "bssid" in network
    )
    if made.bssid in taken:
        raise CommandError(f"there is an access point {made.bssid} already")
    parts.world.loop.call(parts.air.add, made)
    return f'"{made.label}" ({made.bssid}) is on the air'


def _remove(parts: Parts, network: str) -> str:
    found = _networks(parts, network)
    for one in found:
        parts.world.loop.call(parts.air.remove, one)
    return _about(found, "off the air")


def _signal(parts: Parts, network: str, dbm: int) -> str:
    if not -120 <= dbm <= 0:
        raise CommandError("a signal is from -120 to 0 dBm")
    return _change(parts, network, f"received with {dbm} dBm", signal=dbm)


def _key(parts: Parts, network: str, passphrase: str) -> str:
    if not 8 <= len(passphrase) <= 63 or not passphrase.isascii() or not passphrase.isprintable():
        raise CommandError("a passphrase has 8 to 63 printable ASCII characters")
    if any(not one.passphrase for one in _networks(parts, network)):
        raise CommandError("that network has no passphrase")
    return _change(parts, network, "protected by the new passphrase", passphrase=passphrase)


def _change(parts: Parts, name: str, what: str, **values: Any) -> str:
    found = _networks(parts, name)

    def change() -> None:
        for network in found:
            for key, value in values.items():
                setattr(network, key, value)
        parts.air.changed()

    parts.world.loop.call(change)
    return _about(found, what)


def _networks(parts: Parts, name: str) -> list[Network]:
    """All access points of this name, or the one of this address."""
    wanted = name.encode(errors="surrogateescape")
    found = [network for network in parts.air.networks if network.ssid == wanted or network.bssid == name.lower()]
    if not found:
        raise CommandError(f"there is no network {name!r}")
    return found


def _about(networks: list[Network], what: str) -> str:
    shown = ", ".join(f'"{network.label}" ({network.bssid})' for network in networks)
    return f"{shown} {'is' if len(networks) == 1 else 'are'} {what}"


# The access point's stations


def _join(parts: Parts, station: str) -> str:
    if not parts.world.loop.call(parts.access_point.join, _station(parts, station)):
        raise CommandError("there is no access point to join")
    return f"{station} has joined"


def _leave(parts: Parts, station: str) -> str:
    if not parts.world.loop.call(parts.access_point.leave, _station(parts, station)):
        raise CommandError(f"{station} is not here")
    return f"{station} has left"


def _station(parts: Parts, name: str) -> str:
    for visitor in parts.plan.visitors:
        if name in (visitor.name, visitor.mac):
            return visitor.mac
    known = ", ".join(visitor.name for visitor in parts.plan.visitors) or "none"
    raise CommandError(f"there is no station {name!r} in this world (there are: {known})")


# The device


def _neighbour(verb: str, done: str) -> Callable[..., str]:
    def act(parts: Parts, neighbour: str) -> str:
        known = neighbours(parts)
        if neighbour not in known:
            raise CommandError(f"there is no neighbour {neighbour!r} (there are: {', '.join(known)})")
        if verb in ("kill", "hang") and not known[neighbour].running():
            raise CommandError(f"{neighbour} is not running")
        getattr(known[neighbour], verb)()
        return f"{neighbour} {done}"

    return act


def _radio(parts: Parts, blocked: bool, hard: bool = False) -> str:
    change = {"hard": blocked} if hard else {"soft": blocked}
    parts.world.loop.call(lambda: parts.world.radio.block(**change))
    return f"the radio is {'blocked' if parts.world.radio.blocked else 'not blocked'}"


def _set(parts: Parts, setting: str, value: str) -> str:
    section, dot, key = setting.partition(".")
    if not dot:
        raise CommandError("a setting is written as SECTION.KEY")
    parts.settings_daemon.change(section, key, _like(parts.settings_daemon.read(section, key), value))
    return f"{setting} is {json.dumps(parts.settings_daemon.read(section, key), ensure_ascii=False)}"


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


def _cable(parts: Parts, plugged: bool, address: str = CABLE_ADDRESS) -> str:
    if plugged:
        try:
            ipaddress.IPv4Interface(address)
        except ValueError:
            raise CommandError(f"{address!r} is no IPv4 address with a prefix length") from None
    steps = [("link", "set", "cable0", "up"), ("addr", "flush", "dev", "eth0"), ("addr", "replace", address, "dev", "eth0")]
    if not plugged:
        steps = [("addr", "flush", "dev", "eth0"), ("link", "set", "cable0", "down")]
    for step in steps:
        if not parts.world.try_ip(*step):
            raise CommandError(f"\"ip {' '.join(step)}\" has failed")
    return f"the cable is plugged, eth0 has {address}" if plugged else "the cable is unplugged"


COMMANDS: dict[str, Callable[..., str]] = {
    "show": _show,
    "add": _add,
    "remove": _remove,
    "signal": _signal,
    "key": _key,
    "join": _join,
    "leave": _leave,
    "kill": _neighbour("kill", "is killed"),
    "hang": _neighbour("hang", "hangs"),
    "release": _neighbour("release", "answers again"),
    "start": _neighbour("start", "is started"),
    "radio": _radio,
    "set": _set,
    "cable": _cable,
}
