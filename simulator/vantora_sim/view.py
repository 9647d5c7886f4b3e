"""What people see of the simulated device: its properties as a table, and what changes as it comes."""

from __future__ import annotations

import json
import shlex
import time
from typing import Any, TextIO

from .client import INTERFACE, PATH, SERVICE
from .dbus_fake import CallRefused
from .device import SimulatedDevice
from .journal import Entry

PROPERTIES = (
    "WiFiState",
    "Mode",
    "SSID",
    "WiFiFrequency",
    "WiFiAccessPointInitialised",
    "WiFiConnectedClients",
    "WiFiClientState",
    "ClientSSID",
    "IPAddress",
    "MacAddress",
    "WiFiSignal",
    "WiFiAvailableFrequencies",
    "AccessPoints",
)
_MANY = 6


def show(value: Any) -> str:
    """A property's value on one line."""
    if isinstance(value, list) and value and isinstance(value[0], list):
        shown = ", ".join(
            f"{json.dumps(name, ensure_ascii=False)} {signal} dBm{'' if privacy else ' open'}"
            for name, privacy, signal, _ in value[:_MANY]
        )
        return f"{len(value)} networks: {shown}" + (", ..." if len(value) > _MANY else "")
    return json.dumps(value, ensure_ascii=False)


def table(device: SimulatedDevice) -> str:
    """All properties of the daemon, read now."""
    lines = []
    for name in PROPERTIES:
        try:
            value = show(device.world.get(name))
        except CallRefused as refusal:
            value = f"({refusal.text})"
        lines.append(f"  {name:<28}{value}")
    return "\n".join(lines)


def addresses(device: SimulatedDevice) -> str:
    """Where the buses are reached."""
    return f"  user bus    {device.world.user_bus.address}\n" f"  system bus  {device.world.system_bus.address}"


def instructions(device: SimulatedDevice) -> str:
    """Commands for another terminal of the same user."""
    target = f"{SERVICE} {PATH} {INTERFACE}"
    known = device.plan.joinable
    names = [known.ssid.decode(), known.passphrase] if known else ["NAME", "PASSPHRASE"]
    return "\n".join(
        (
            f"  export DBUS_SESSION_BUS_ADDRESS={device.world.user_bus.address}",
            f"  busctl --user get-property {target} Mode SSID WiFiConnectedClients",
            f"  busctl --user set-property {target} Mode s Client",
            f"  busctl --user call {target} Scan",
            f"  busctl --user get-property {target} AccessPoints",
            f"  busctl --user call {target} Connect ss {shlex.join(names)}",
            f"  busctl --user monitor {SERVICE}",
        )
    )


class LiveView:
    """Prints what the daemon announces, and on request everything that it does to its surroundings."""

    def __init__(self, device: SimulatedDevice, out: TextIO, *, verbose: bool = False, indent: str = "  ") -> None:
        self._journal = device.world.journal
        self._out = out
        self._verbose = verbose
        self._indent = indent
        self._begun = time.monotonic()
        self.position = 0
        """Up to where the journal has been shown."""

    def advance(self, timeout: float) -> list[Entry]:
        """Show what is new; wait for it when there is nothing yet. Returns what was looked at."""
        entries = self._journal.follow(self.position, timeout)
        for entry in entries:
            text = self._describe(entry)
            if text is not None:
                print(f"{self._indent}{time.monotonic() - self._begun:7.2f} s  {text}", file=self._out, flush=True)
            self.position = entry.index + 1
        return entries

    def _describe(self, entry: Entry) -> str | None:
        match entry.kind:
            case "changed":
                return f"{entry.name} = {show(entry.value)}"
            case "signal":
                return f"signal {entry.member}: {', '.join(show(value) for value in entry.body)}"
            case "exit" if entry.program in ("vantora-network", "vantora-settingsd"):
                return f"{entry.program} has ended with status {entry.status}"
            case "world":
                return f"outside: {entry.text}"
            case "notify":
                return "the daemon is ready" if entry.text == "READY=1" else None
        if not self._verbose:
            return None
        match entry.kind:
            case "log":
                return f"log {entry.priority}: {entry.text}"
            case "command":
                return f"command {entry.line}"
            case "call" if entry.bus == "system":
                return f"call {entry.member} {entry.path}"
            case "hostapd":
                return f"hostapd {entry.request.splitlines()[0] if entry.request else ''}"
        return None
