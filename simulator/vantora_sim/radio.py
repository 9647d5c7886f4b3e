"""The radio as rfkill, iw and wpa_cli see it."""

from __future__ import annotations

from dataclasses import dataclass


@dataclass
class Radio:
    """What is so about `wlan0`. Tests set the fields; starting and stopping units changes them like on a device."""

    soft_blocked: bool = False
    hard_blocked: bool = False
    present: bool = True
    """Whether there is a WLAN device at all."""
    interface_type: str = "managed"
    """The interface type as iw names it: "AP", "managed", "monitor", ..."""
    tx_power: str | None = "20.00"
    """dBm with two decimals; None leaves the line out."""
    ap_ssid: bytes = b""
    """Name of the access point that hostapd runs."""
    station_running: bool = False
    """Whether wpa_supplicant answers wpa_cli."""
    station_ssid: bytes | None = None
    """Network that the station is associated with."""
    station_state: str = "DISCONNECTED"
    """wpa_state of wpa_cli."""
    mac: str = "02:00:00:00:10:01"
