"""What the kernel address listener logs about an address."""

from __future__ import annotations

import re

EVENT = re.compile(r"^\[NETLINK\] IP Event: ")


def event(interface: str, address: str, status: str) -> tuple[str, str]:
    """The line of an address event."""
    return "info", f"[NETLINK] IP Event: Iface: {interface} IP Address: {address} Status: {status}"
