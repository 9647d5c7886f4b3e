"""Reads a world file. Its schema is docs/world.schema.json; here is what a schema cannot say, and the way to a plan."""

from __future__ import annotations

import ipaddress
import json
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from . import places
from .json_lines import DuplicateName, Located, loads, plain
from .plan import Event, Network, Plan, Visitor, printable
from .schema import Finding, check
from .words import request_of_words, words_of

CHANNELS = {"2.4": set(range(1, 15)), "5": {*range(36, 65, 4), *range(100, 145, 4), *range(149, 178, 4)}}
WITH_PASSPHRASE = ("wpa2", "wpa2-wpa3", "wpa3")
LONGEST_SSID = 32
_MOST_FINDINGS = 10


class WorldFileError(Exception):
    """The file cannot be used; the text says why, a line for each finding: "FILE:LINE: FIELD: what is wrong"."""


def read_world(name: str) -> Plan:
    """The plan in a file, or in the shipped world of this name. Raises WorldFileError."""
    path = Path(name) if "/" in name or name.endswith(".json") else places.worlds() / f"{name}.json"
    try:
        text = path.read_text(encoding="utf-8")
    except OSError as error:
        raise WorldFileError(f"{path}: {error.strerror}") from None
    except UnicodeDecodeError:
        raise WorldFileError(f"{path}: not UTF-8") from None
    try:
        document = loads(text)
    except json.JSONDecodeError as error:
        raise WorldFileError(f"{path}:{error.lineno}: not JSON: {error.msg}") from None
    except DuplicateName as error:
        raise WorldFileError(f"{path}:{error.line}: {error.name}: stands here twice") from None
    except ValueError as error:
        raise WorldFileError(f"{path}: {error}") from None

    findings = check(document, json.loads(places.schema().read_text(encoding="utf-8")))
    if not findings:
        findings = list(_inconsistencies(document))
    if findings:
        lines = [f"{path}:{finding.line}: {finding}" for finding in findings[:_MOST_FINDINGS]]
        if len(findings) > _MOST_FINDINGS:
            lines.append(f"{path}: and {len(findings) - _MOST_FINDINGS} more")
        raise WorldFileError("\n".join(lines))
    return _plan(plain(document))


def check_network(network: dict[str, Any]) -> Iterator[tuple[str, str]]:
    """What is wrong with a network that the schema is content with: (field, what is wrong)."""
    if ("ssid" in network) == ("ssid_hex" in network):
        yield "", 'needs "ssid" or "ssid_hex", and not both'
    if len(network.get("ssid", "").encode()) > LONGEST_SSID:
        yield "ssid", f"is longer than {LONGEST_SSID} bytes"
    band = network.get("band", "2.4")
    if "channel" in network and network["channel"] not in CHANNELS[band]:
        yield "channel", f"there is no channel {network['channel']} in the {band} GHz band"
    security = network.get("security")
    if security in WITH_PASSPHRASE and "passphrase" not in network:
        yield "security", f'"{security}" needs a "passphrase"'
    if security in ("open", "enterprise") and "passphrase" in network:
        yield "passphrase", f'a network with security "{security}" has none'
    if network.get("address") is not None:
        try:
            ipaddress.IPv4Interface(network["address"])
        except ValueError:
            yield "address", "is no IPv4 address with a prefix length"


def make_network(network: dict[str, Any], number: int) -> Network:
    """A network of checked values; the number makes up the address where none is given."""
    band = network.get("band", "2.4")
    values = {key: value for key, value in network.items() if key not in ("ssid", "ssid_hex")}
    values.setdefault("bssid", f"02:00:00:01:{number >> 8 & 255:02x}:{number & 255:02x}")
    values.setdefault("channel", 36 if band == "5" else 6)
    values.setdefault("security", "wpa2" if "passphrase" in network else "open")
    ssid = bytes.fromhex(network["ssid_hex"]) if "ssid_hex" in network else network["ssid"].encode()
    return Network(**{**values, "ssid": ssid, "bssid": values["bssid"].lower()})


def _inconsistencies(document: Located) -> Iterator[Finding]:
    seen: dict[tuple[str, str], str] = {}
    for kind, unique in (("networks", ("bssid",)), ("stations", ("name", "mac"))):
        items = document.value.get(kind)
        for index, item in enumerate(items.value if items else []):
            where = f"{kind}[{index}]"
            if kind == "networks":
                for field, text in check_network(plain(item)):
                    place = item.value.get(field, item)
                    yield Finding(place.line, f"{where}.{field}" if field else where, text)
            for field in unique:
                if field in item.value:
                    key = ("address" if field != "name" else field, item.value[field].value.lower())
                    if key in seen:
                        yield Finding(item.value[field].line, f"{where}.{field}", f"is that of {seen[key]}, too")
                    seen.setdefault(key, where)
    for index, item in enumerate(document.value["events"].value if "events" in document.value else []):
        try:
            request_of_words(plain(item.value["do"]))
        except ValueError as error:
            yield Finding(item.value["do"].line, f"events[{index}].do", str(error))


def _made_up(taken: set[str], prefix: str, number: int) -> str:
    """An address of this number, or of a higher one where somebody has that."""
    while (address := f"{prefix}:{number >> 8 & 255:02x}:{number & 255:02x}") in taken:
        number += 0x100
    taken.add(address)
    return address


def _plan(document: dict[str, Any]) -> Plan:
    networks, stations = document.get("networks", []), document.get("stations", [])
    taken = {
        item[field].lower() for items, field in ((networks, "bssid"), (stations, "mac")) for item in items if field in item
    }
    for number, network in enumerate(networks):
        network.setdefault("bssid", _made_up(taken, "02:00:00:01", number))
    for number, station in enumerate(stations, start=0x4001):
        station.setdefault("mac", _made_up(taken, "02:00:00:00", number))
    visitors = [Visitor(station["name"], station["mac"].lower(), station.get("joins_after")) for station in stations]
    return Plan(
        name=document["name"],
        device={key: str(value) for key, value in document.get("device", {}).items()},
        networks=[make_network(network, number) for number, network in enumerate(networks)],
        visitors=visitors,
        settings=document.get("settings", {}),
        events=sorted(map(_event, document.get("events", [])), key=lambda event: event.at),
    )


def _event(event: dict[str, Any]) -> Event:
    request = request_of_words(event["do"])
    return Event(event["at"], request.pop("command"), request)


def as_document(plan: Plan) -> dict[str, Any]:
    """The plan as a world file says it: read_world() makes the same of it."""
    document: dict[str, Any] = {"name": plan.name}
    if plan.device:
        document["device"] = {key: int(value) if key == "radio_type" else value for key, value in plan.device.items()}
    document["networks"] = [_network_document(network) for network in plan.networks]
    document["stations"] = [
        {
            key: value
            for key, value in (("name", one.name), ("mac", one.mac), ("joins_after", one.joins_after))
            if value is not None
        }
        for one in plan.visitors
    ]
    if plan.settings:
        document["settings"] = plan.settings
    if plan.events:
        document["events"] = [{"at": event.at, "do": words_of(event.command, event.arguments)} for event in plan.events]
    return document


def _network_document(network: Network) -> dict[str, Any]:
    text = printable(network.ssid)
    name = {"ssid": text} if text.encode() == network.ssid else {"ssid_hex": network.ssid.hex()}
    found = {
        **name,
        "bssid": network.bssid,
        "band": network.band,
        "channel": network.channel,
        "signal": network.signal,
        "security": network.security,
        "address": network.address,
    }
    if network.passphrase:
        found["passphrase"] = network.passphrase
    if network.hidden:
        found["hidden"] = True
    return found
