"""The networks around the device, and how strongly each is received at the moment."""

from __future__ import annotations

import random
from collections.abc import Callable

from .plan import SECURITIES, Network

RECEIVABLE = -92
"""dBm below which a network is not heard at all."""
USABLE = -86
"""dBm below which nobody can associate."""
_LARGEST_DRIFT = 4


class Air:
    """What is on the air. All functions are for the loop's thread."""

    def __init__(self, networks: list[Network], bands: tuple[str, ...], seed: int = 1) -> None:
        self.networks = list(networks)
        self.bands = bands
        self._random = random.Random(seed)
        self._drift: dict[str, int] = {}
        self.on_change: list[Callable[[], None]] = []
        """Called after a network has come, gone or changed."""

    def signal(self, network: Network) -> int:
        """How strongly it is received just now, in dBm."""
        return network.signal + self._drift.get(network.bssid, 0)

    def drift(self) -> None:
        """Let some time pass: people and doors move."""
        for network in self.networks:
            step = self._drift.get(network.bssid, 0) + self._random.choice((-1, 0, 0, 1))
            self._drift[network.bssid] = max(-_LARGEST_DRIFT, min(_LARGEST_DRIFT, step))

    def receivable(self) -> list[Network]:
        """What a scan finds now."""
        return [network for network in self.networks if network.band in self.bands and self.signal(network) >= RECEIVABLE]

    def can_hold(self, network: Network) -> bool:
        """Whether an association with this network can last."""
        return network in self.networks and network.band in self.bands and self.signal(network) >= USABLE

    def best(self, ssid: bytes, with_key: bool) -> Network | None:
        """The access point that a station joins when it wants this network, with a passphrase or without.

        A hidden one is never found: it does not answer a question that does not call it by its name.
        """
        fitting = [
            network
            for network in self.networks
            if network.ssid == ssid
            and not network.hidden
            and self.can_hold(network)
            and (network.takes_passphrase if with_key else network.security == "open")
        ]
        return max(fitting, key=self.signal, default=None)

    def add(self, network: Network) -> None:
        """A new network."""
        self.networks.append(network)
        self.changed()

    def remove(self, network: Network) -> None:
        """A network is switched off."""
        self.networks.remove(network)
        self.changed()

    def changed(self) -> None:
        """Say that a network was changed in place."""
        for hook in self.on_change:
            hook()


def announced(network: Network) -> dict[str, object]:
    """How a scan describes a network: the arguments of a BSS."""
    privacy, key_mgmt = SECURITIES[network.security]
    return {
        "ssid": b"" if network.hidden else network.ssid,
        "privacy": privacy,
        "key_mgmt": key_mgmt,
        "bssid": bytes.fromhex(network.bssid.replace(":", "")),
        "frequency": network.frequency,
    }
