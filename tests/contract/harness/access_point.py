"""What the tests of the access point share: its configuration, its lines of the log, its unit."""

from __future__ import annotations

from vantora_sim import World, log

HOSTAPD = "hostapd.service"
CHANNELS = "52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 144"
DASHES = "-" * 33
SEPARATOR = ("info", "-" * 44)

USUAL = {
    "channel": "0",
    "country_code": "NL",
    "ctrl_interface": "/var/run/hostapd",
    "driver": "nl80211",
    "interface": "wlan0",
    "rsn_pairwise": "CCMP",
    "wpa": "2",
    "wpa_key_mgmt": "WPA-PSK",
    "wpa_passphrase": "korrin-secret",
}
"""What the usual template holds beside what the daemon sets."""


def heading(text: str) -> list[tuple[str, str]]:
    """The three lines that begin the start or stop of a mode."""
    return [SEPARATOR, ("info", text), SEPARATOR]


def configuration(entries: dict[str, str], ssid: str = "Korrin One", hw_mode: str = "g") -> dict[str, str]:
    """The runtime configuration that follows from what is in the template."""
    return {**entries, "acs_blacklist": CHANNELS, "hw_mode": hw_mode, "ssid": ssid}


def as_file(entries: dict[str, str]) -> bytes:
    """The runtime file with these entries, which stand in byte order of their keys."""
    lines = sorted((key.encode(), value.encode()) for key, value in entries.items())
    return b"".join(key + b"=" + value + b"\n" for key, value in lines)


def override_logs(ssid: str = "Korrin One", hw_mode: str = "g") -> list[tuple[str, str]]:
    """The lines about what is set over the template."""
    values = {"acs_blacklist": CHANNELS, "hw_mode": hw_mode, "ssid": ssid}
    return [("info", f"[Hostapd] Setting '{key}' to '{value}'") for key, value in values.items()]


def dump_logs(entries: dict[str, str]) -> list[tuple[str, str]]:
    """The lines that show the runtime configuration."""
    shown = [("info", f"{key}:{entries[key]}") for key in sorted(entries, key=str.encode)]
    return [("info", DASHES), ("info", "Runtime Hostapd conf"), ("info", DASHES), *shown, ("info", DASHES)]


def attached_up(world: World) -> None:
    """Bring the daemon up as an access point whose listener is attached."""
    world.up()
    world.hostapd.wait_attached()


def receive(world: World, text: str, shown: str | None = None) -> int:
    """Send an event and wait until the daemon has it; returns the mark before it."""
    mark = world.journal.mark()
    world.hostapd.event(text)
    world.journal.wait_for(log("info", f"ListenTask: Recv <3>{text if shown is None else shown}"), mark)
    return mark
