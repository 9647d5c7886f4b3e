"""Sees every message of one bus, calls with their answers: what the time line shows of it."""

from __future__ import annotations

import time
from collections.abc import Callable, Iterable
from typing import Any

from dbus_next import Message, MessageType
from dbus_next.aio import MessageBus

from ..client import INTERFACE, PATH, Client
from ..dbus_fake import PROPERTIES, connect, disconnect
from ..units import unit_name
from .recording import Recording
from .texts import call_title, signal_title, wire

_BUS = "org.freedesktop.DBus"
_BUS_PATH = "/org/freedesktop/DBus"
_LANE_OF_NAME = {"org.freedesktop.systemd1": "unit", "fi.w1.wpa_supplicant1": "wpa", "fi.epitest.hostap.WPASupplicant": "wpa"}
_STATION_INTERFACE = "fi.w1.wpa_supplicant1.Interface"
_MOST_PENDING = 10_000


class BusMonitor:
    """One bus. Its functions are for the loop."""

    def __init__(self, name: str, recording: Recording) -> None:
        self._name = name
        self._recording = recording
        self._bus: MessageBus | None = None
        self._names: dict[str, str] = {}
        """The well-known name of each connection that has one."""
        self._labels: dict[str, str] = {}
        """What other connections are called."""
        self._quiet: set[str] = set()
        self._pending: dict[tuple[str, int], tuple[int, float]] = {}
        """Calls without an answer yet, by caller and serial: their entry, and when they began."""
        self.on_properties: list[Callable[[dict[str, Any]], None]] = []
        """Called with what the daemon announces."""
        self.on_signal: list[Callable[[str, list[Any]], None]] = []
        """Called with the daemon's other signals."""
        self.on_owner: list[Callable[[str, bool], None]] = []
        """Called when a name has got an owner or lost it."""

    async def open(self, address: str) -> None:
        """Begin to see."""
        asking = await Client.open(address)
        try:
            for name in (await asking.ask_bus("ListNames"))[0]:
                if not name.startswith(":") and name != _BUS:
                    self._names[(await asking.ask_bus("GetNameOwner", "s", [name]))[0]] = name
        finally:
            await asking.close()
        self._bus = await connect(address)
        await self._bus.call(
            Message(
                destination=_BUS,
                path=_BUS_PATH,
                interface=f"{_BUS}.Monitoring",
                member="BecomeMonitor",
                signature="asu",
                body=[[], 0],
            )
        )
        self._bus.add_message_handler(self._receive)

    async def close(self) -> None:
        """See no more."""
        if self._bus is not None:
            await disconnect(self._bus)

    def call_it(self, connection: str, label: str | None) -> None:
        """What a connection is called; with None nothing that it does is shown."""
        if label is None:
            self._quiet.add(connection)
        else:
            self._labels[connection] = label

    def _receive(self, message: Message) -> bool:
        # Whatever it is, it is not for us: the library must answer nothing.
        if message.sender == _BUS:
            self._from_bus(message)
        elif not self._quiet & {message.sender, message.destination} and message.destination != _BUS:
            match message.message_type:
                case MessageType.METHOD_CALL:
                    self._call(message)
                case MessageType.METHOD_RETURN | MessageType.ERROR:
                    self._answer(message)
                case MessageType.SIGNAL:
                    self._signal(message)
        return True

    def _who(self, connection: str | None) -> str:
        name = connection or ""
        return self._names.get(name) or self._labels.get(name) or name

    def _lane(self, parties: Iterable[str]) -> str:
        return next((_LANE_OF_NAME[party] for party in parties if party in _LANE_OF_NAME), "dbus")

    def _body(self, message: Message) -> dict[str, Any]:
        return {
            "bus": self._name,
            "from": self._who(message.sender),
            "to": self._who(message.destination),
            "path": message.path,
            "interface": message.interface,
            "member": message.member,
            "signature": message.signature,
            "arguments": wire(message.body),
        }

    def _call(self, message: Message) -> None:
        body = self._body(message)
        unit = unit_name(message.path or "")
        title = (
            f"{message.member} {unit}" if unit else call_title(message.interface or "", message.member or "", body["arguments"])
        )
        number = self._recording.entry(self._lane((body["to"], body["from"])), title, body, what="call")
        if len(self._pending) >= _MOST_PENDING:
            self._pending.clear()  # of calls that nobody ever answered
        self._pending[message.sender or "", message.serial] = (number, time.monotonic())

    def _answer(self, message: Message) -> None:
        found = self._pending.pop((message.destination or "", message.reply_serial or 0), None)
        if found is None:
            return
        number, began = found
        error = None
        if message.message_type is MessageType.ERROR:
            error = {"name": message.error_name or "", "text": str(message.body[0]) if message.body else ""}
        self._recording.done(number, began, reply=wire(message.body), error=error)

    def _signal(self, message: Message) -> None:
        body = self._body(message)
        title = signal_title(message.interface or "", message.member or "", body["arguments"])
        lane = self._lane((body["from"],))
        self._recording.entry(lane, title, body, what="signal")
        if message.member != "PropertiesChanged":
            if message.path == PATH and message.interface == INTERFACE:
                for listener in self.on_signal:
                    listener(message.member or "", body["arguments"])
            return
        if lane == "wpa" and message.interface == PROPERTIES and body["arguments"][0] == _STATION_INTERFACE:
            state = body["arguments"][1].get("State")
            if state is not None:
                self._recording.station(state)
        elif message.path == PATH and message.interface == PROPERTIES:
            for hook in self.on_properties:
                hook(body["arguments"][1])

    def _from_bus(self, message: Message) -> None:
        if message.message_type is MessageType.ERROR:
            self._answer(message)  # the bus itself says that there is nobody, or that the other end has gone
        if message.member != "NameOwnerChanged" or message.message_type is not MessageType.SIGNAL:
            return
        name, before, now = message.body
        if name.startswith(":"):
            if not now:
                self._names.pop(name, None)
                self._labels.pop(name, None)
            return
        if before:
            self._names.pop(before, None)
        if now:
            self._names[now] = name
        self._recording.entry(
            self._lane((name,)),
            f"{name} {'is there' if now else 'has gone'}",
            {"bus": self._name, "name": name, "owner": now, "before": before},
            what="name",
            level="info" if now else "warning",
        )
        if name == "fi.w1.wpa_supplicant1" and not now:
            self._recording.station("off")
        for hook in self.on_owner:
            hook(name, bool(now))
