"""The test bench: a booted device in an emulator, the lines to it, and the world around its radio."""

from .device import Device, Mark
from .evidence import Evidence
from .guest import CommandFailed
from .machine import Machine, Snapshot
from .stream import Event, log, unit_log
from .world import World

__all__ = ["CommandFailed", "Device", "Event", "Evidence", "Machine", "Mark", "Snapshot", "World", "log", "unit_log"]
