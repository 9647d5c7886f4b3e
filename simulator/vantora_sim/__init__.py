"""The simulated device: a private world around the unmodified daemon, scripted from Python.

`World` is the place to begin. The contract tests and the command `vantora-sim` both stand on this package.
"""

from dbus_next import Variant

from .dbus_fake import CallRefused, plain
from .journal import DEADLINE, Entry, Journal, Pattern, call, changed, command, exited, hostapd_request, log, notify, signal
from .sandbox import Completed, Process, SandboxError
from .units import unit_name, unit_path
from .world import DEVICE, HOSTAPD_TEMPLATE, World
from .wpa_supplicant import Bss

__all__ = [
    "Bss",
    "CallRefused",
    "Completed",
    "DEADLINE",
    "DEVICE",
    "Entry",
    "HOSTAPD_TEMPLATE",
    "Journal",
    "Pattern",
    "Process",
    "SandboxError",
    "Variant",
    "World",
    "call",
    "changed",
    "command",
    "exited",
    "hostapd_request",
    "log",
    "notify",
    "plain",
    "signal",
    "unit_name",
    "unit_path",
]
