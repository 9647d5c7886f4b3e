"""What a simulated device and its surroundings are made of, as a world file says it."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any

BAND_OF_RADIO_TYPE = {0: ("2.4",), 1: ("2.4", "5")}
"""The bands that a radio of this type can receive."""

SECURITIES: dict[str, tuple[bool, tuple[str, ...]]] = {
    "open": (False, ()),
    "wep": (True, ()),
    "wpa2": (True, ("wpa-psk",)),
    "wpa2-wpa3": (True, ("wpa-psk", "sae")),
    "wpa3": (True, ("sae",)),
    "enterprise": (True, ("wpa-eap",)),
}
"""What a network of this security announces: privacy, and the key management of its RSN element."""


def printable(ssid: bytes) -> str:
    """A network's name as text on one line, whatever is in it."""
    text = ssid.decode(errors="backslashreplace")
    return "".join(letter if letter.isprintable() else letter.encode("unicode_escape").decode() for letter in text)


@dataclass
class Network:
    """One access point in the neighbourhood."""

    ssid: bytes
    bssid: str
    band: str = "2.4"
    channel: int = 6
    signal: int = -60
    """dBm where the device stands; what is received drifts around it."""
    security: str = "wpa2"
    passphrase: str = ""
    hidden: bool = False
    address: str | None = "192.168.1.50/24"
    """What its DHCP server gives the device; None when it has none."""

    @property
    def frequency(self) -> int:
        """MHz of its channel."""
        if self.band == "5":
            return 5000 + 5 * self.channel
        return 2484 if self.channel == 14 else 2407 + 5 * self.channel

    @property
    def takes_passphrase(self) -> bool:
        """Whether a WPA-PSK client can join."""
        return "wpa-psk" in SECURITIES[self.security][1]

    @property
    def label(self) -> str:
        """Its name for people and their terminals."""
        return printable(self.ssid)


@dataclass
class Visitor:
    """A station that may join the device's access point."""

    name: str
    mac: str
    joins_after: float | None = None
    """Seconds after the access point is on the air; None when it comes only if told to."""


@dataclass(frozen=True)
class Event:
    """Something that happens to the world by itself: a command of vantora-simctl at a time."""

    at: float
    """Seconds after the device was switched on."""
    command: str
    arguments: dict[str, Any]


@dataclass
class Plan:
    """A device and its surroundings at the beginning."""

    name: str = "unnamed"
    device: dict[str, str] = field(default_factory=dict)
    """Identity as in /etc/korrin/device.conf: model, serial, radio_type."""
    networks: list[Network] = field(default_factory=list)
    visitors: list[Visitor] = field(default_factory=list)
    settings: dict[str, dict[str, Any]] = field(default_factory=dict)
    """Initial settings by section; they hold where nothing is stored yet."""
    events: list[Event] = field(default_factory=list)
    """What happens later, in its order."""

    @property
    def hears_5_ghz(self) -> bool:
        """Whether the device has a radio for the 5 GHz band."""
        return self.device.get("radio_type", "1") == "1"

    @property
    def joinable(self) -> Network | None:
        """A network that the device can join with a passphrase and that gives it an address."""
        return next(
            (
                network
                for network in self.networks
                if network.takes_passphrase
                and network.passphrase
                and network.address
                and (network.band == "2.4" or self.hears_5_ghz)
                and not network.hidden
                and network.ssid.isascii()
                and network.label.isprintable()
            ),
            None,
        )
