"""The model: what must be true of the device whenever it is quiet again, whatever has been done to it before.

Each rule looks at what the daemon says (`seen`, all its properties) and at the neighbours themselves, and says what is wrong.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import TYPE_CHECKING, Any

from vantora_sim.hostapd_conf import read_hostapd_conf

from .follower import followed
from .log_lines import unexpected
from .requests import STORED

if TYPE_CHECKING:
    from .stage import Stage

Seen = dict[str, Any]


def power(stage: Stage, seen: Seen) -> Iterator[str]:
    if seen["WiFiState"] != (0 if stage.world.radio.blocked else 1):
        yield f"the radio is {'off' if stage.world.radio.blocked else 'on'}, WiFiState is {seen['WiFiState']}"


def mode(stage: Stage, seen: Seen) -> Iterator[str]:
    true = "unknown" if stage.world.radio.blocked else {"AP": "Host", "managed": "Client"}[stage.world.radio.interface_type]
    if seen["Mode"] != true:
        yield f"the interface is in mode {true}, Mode is {seen['Mode']}"
    if true != "unknown" and seen["Mode"] != stage.stored("network", "mode"):
        yield f"Mode is {seen['Mode']}, stored is {stage.stored('network', 'mode')}"


def access_point(stage: Stage, seen: Seen) -> Iterator[str]:
    """Name and band are those of hostapd's file and of the settings; its stations are counted; its last word is known."""
    if seen["Mode"] != "Host":
        return
    world, written = stage.world, read_hostapd_conf(stage.world.hostapd_conf)
    band = {b"a": "5", b"g": "2.4"}.get(written.get(b"hw_mode", b""))
    for name, file, section, key in (
        ("SSID", written.get(b"ssid", b"").decode(), "device", "deviceName"),
        ("WiFiFrequency", band, "network", "frequency"),
    ):
        if not seen[name] == file == stage.stored(section, key):
            yield f"{name} is {seen[name]!r}, hostapd's file has {file!r}, stored is {stage.stored(section, key)!r}"
    joined = len(world.hostapd._joined())
    if seen["WiFiConnectedClients"] != joined:
        yield f"{joined} stations are there, WiFiConnectedClients is {seen['WiFiConnectedClients']}"
    said = stage.history.initialised
    if said is not None and seen["WiFiAccessPointInitialised"] != said:
        yield f"the last word of hostapd is {said}, WiFiAccessPointInitialised is {seen['WiFiAccessPointInitialised']}"


def protection(stage: Stage, seen: Seen) -> Iterator[str]:
    if stage.history.unprotected:
        yield "hostapd was started on a file that is not the whole of it: an access point for everybody"


def listener(stage: Stage, seen: Seen) -> Iterator[str]:
    """Whoever is told what hostapd says is exactly one where there is an access point, and addresses are followed."""
    if seen["Mode"] == "Host" and stage.world.hostapd.running:
        count = stage.world.loop.call(stage.live_listeners)
        if count != 1:
            yield f"{count} listeners are attached to hostapd"
    if not stage.follows_addresses():
        yield "nobody follows the kernel's addresses"


def station(stage: Stage, seen: Seen) -> Iterator[str]:
    if seen["Mode"] != "Client":
        return
    wpa, said, joined = stage.world.wpa, stage.history.station, stage.world.radio.station_ssid
    if said is not None and seen["WiFiClientState"] != said:
        yield f"the last word of wpa_supplicant is {said!r}, WiFiClientState is {seen['WiFiClientState']!r}"
    if seen["ClientSSID"] != (joined or b"").decode():
        yield f"the network joined is {joined!r}, ClientSSID is {seen['ClientSSID']!r}"
    names = [bss.ssid.decode() for bss in wpa.bss.values()] if wpa.present else []
    if [entry[0] for entry in seen["AccessPoints"]] != names:
        yield f"on the air are {names}, AccessPoints has {[entry[0] for entry in seen['AccessPoints']]}"


def announcements(stage: Stage, seen: Seen) -> Iterator[str]:
    """Whoever applies what is announced has what a read yields; no word of hostapd is left out."""
    for name, value in followed(stage, seen).items():
        if value != seen[name]:
            yield f"{name} was announced as {value!r}, a read yields {seen[name]!r}"
    changes = stage.world.journal.changes(stage.history.since)
    announced = [value for name, value in changes if name == "WiFiAccessPointInitialised"]
    if not stage.history.gap and announced != stage.history.said:
        yield f"hostapd said {stage.history.said}, announced was {announced}"
    rest = iter(announced)
    if not all(value in rest for value in stage.history.heard):
        yield f"hostapd said {stage.history.heard} among others, announced was {announced}"


def storage(stage: Stage, seen: Seen) -> Iterator[str]:
    """What a caller was told is stored is stored."""
    for name, value in stage.history.stored.items():
        if (stored := stage.stored(*STORED[name])) != value:
            yield f"{name} was acknowledged as {value!r}, stored is {stored!r}"


def log(stage: Stage, seen: Seen) -> Iterator[str]:
    for line in unexpected(stage):
        yield f"a line of priority err without a fault: {line}"


RULES: tuple[Callable[[Stage, Seen], Iterator[str]], ...] = (
    power,
    mode,
    access_point,
    protection,
    listener,
    station,
    announcements,
    storage,
    log,
)


def wrong(stage: Stage, seen: Seen) -> list[tuple[str, str]]:
    """All that is not as it must be: the rule, and what is wrong."""
    return [(rule.__name__, text) for rule in RULES for text in rule(stage, seen)]
