"""The radio as rfkill, iw and wpa_cli see it."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field


@dataclass
class Radio:
    """What is so about `wlan0`. Tests set the fields; starting and stopping units changes them like on a device."""

    soft_blocked: bool = False
    hard_blocked: bool = False
    present: bool = True
    """Whether there is a WLAN device at all."""
    can_be_access_point: bool = True
    """Whether its driver offers that at all."""
    bands: tuple[str, ...] = ("2.4", "5")
    """The bands it has, in GHz."""
    country: str = "NL"
    """The regulatory domain; "00" is that of no country."""
    interface_type: str = "managed"
    """The interface type as iw names it: "AP", "managed", "monitor", ..."""
    tx_power: str | None = "20.00"
    """dBm with two decimals; None leaves the line out."""
    ap_ssid: bytes = b""
    """Name of the access point that hostapd runs."""
    station_running: bool = False
    """Whether wpa_supplicant answers wpa_cli."""
    frequency: int = 2437
    """MHz of the channel in use."""
    station_ssid: bytes | None = None
    """Network that the station is associated with."""
    station_bssid: str = "02:00:00:00:20:01"
    """Address of its access point."""
    station_state: str = "DISCONNECTED"
    """wpa_state of wpa_cli."""
    mac: str = "02:00:00:00:10:01"
    on_block: list[Callable[[bool], None]] = field(default_factory=list)
    """Called after `block()` has changed whether the radio is blocked, with what it is now."""

    @property
    def blocked(self) -> bool:
        """Whether it is switched off, by software or by a switch."""
        return self.soft_blocked or self.hard_blocked

    def block(self, *, soft: bool | None = None, hard: bool | None = None) -> None:
        """Block or unblock it, and let those know who use it."""
        before = self.blocked
        self.soft_blocked = self.soft_blocked if soft is None else soft
        self.hard_blocked = self.hard_blocked if hard is None else hard
        if self.blocked != before:
            for hook in self.on_block:
                hook(self.blocked)
