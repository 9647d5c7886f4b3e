"""Somebody who has read everything once and since then only applies what is announced."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from .stage import Stage

ANNOUNCED = (
    "WiFiState",
    "Mode",
    "WiFiFrequency",
    "SSID",
    "WiFiConnectedClients",
    "WiFiAccessPointInitialised",
    "WiFiClientState",
    "IPAddress",
)
OF_THE_MODE = ("WiFiFrequency", "SSID", "WiFiConnectedClients", "WiFiAccessPointInitialised", "WiFiClientState")
OF_THE_INTERFACE = ("Mode", "WiFiFrequency", "SSID", "WiFiConnectedClients")
HEARD = {"unknown": (), "Host": OF_THE_MODE[:4], "Client": ("WiFiClientState",)}
ANNOUNCED_STATES = ("completed", "disconnected", "failed")


def followed(stage: Stage, seen: dict[str, Any]) -> dict[str, Any]:
    """What the follower is sure of now, by name.

    As documented: another mode, and the radio going off or on, mean that what depends on them is to be read anew, an empty
    name that it will change in a moment, and so does an interface whose type changes after the announcement. A station that
    joins while nobody is attached to hostapd is announced together with the next one.
    """
    known = dict(stage.history.known)
    entries = stage.world.journal.since(stage.history.since)
    for entry in entries:
        if entry.kind == "radio":
            for name in OF_THE_INTERFACE:
                known.pop(name, None)
        elif entry.kind == "changed":
            if entry.name == "WiFiState" or (entry.name == "Mode" and entry.value != known.get("Mode")):
                for name in OF_THE_MODE:
                    known.pop(name, None)
            known[entry.name] = entry.value
            if entry.name in ("SSID", "WiFiFrequency") and not entry.value:
                known.pop(entry.name)
            if entry.name == "WiFiState" and entry.value == 0:
                known = {"WiFiState": 0}
    sure = {"WiFiState", *(("Mode",) if seen["WiFiState"] else ()), *HEARD[seen["Mode"]]}
    if "hostapd" in stage.history.complaints or any(entry.kind == "unheard" for entry in entries):
        sure.discard("WiFiConnectedClients")  # nonsense was announced as nonsense, or one too few
    if stage.judges_addresses:
        sure.add("IPAddress")
    if seen["WiFiClientState"] not in ANNOUNCED_STATES:
        sure.discard("WiFiClientState")
    return {name: value for name, value in known.items() if name in sure}
