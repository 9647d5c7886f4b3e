#!/usr/bin/python3
"""Prints mode and state of the Wi-Fi, and every change of them (Debian package python3-dbus-next)."""

import asyncio
from typing import Any

from dbus_next import Variant
from dbus_next.aio import MessageBus

NAME = "com.vantora.Network1"
PATH = "/com/vantora/Network1"
INTERFACE = "com.vantora.Network1.WiFi"


def show(name: str, value: Any) -> None:
    """Print a line that leaves at once, also into a pipe."""
    print(f"{name} = {value}", flush=True)


def changed(interface: str, values: dict[str, Variant], _invalidated: list[str]) -> None:
    """The daemon sends one property a signal; texts are of interest here."""
    if interface == INTERFACE:
        for name, value in values.items():
            if value.signature == "s":
                show(name, value.value)


async def main() -> None:
    """First listen, then read: so nothing is missed in between."""
    bus = await MessageBus().connect()
    device = bus.get_proxy_object(NAME, PATH, await bus.introspect(NAME, PATH))
    properties = device.get_interface("org.freedesktop.DBus.Properties")
    properties.on_properties_changed(changed)
    for name in ("Mode", "WiFiClientState"):
        show(name, (await properties.call_get(INTERFACE, name)).value)
    await bus.wait_for_disconnect()


asyncio.run(main())
