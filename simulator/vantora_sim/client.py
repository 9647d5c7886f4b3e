"""A client of the daemon on the user bus, and the connection that watches what the daemon announces."""

from __future__ import annotations

import asyncio
from typing import Any

from dbus_next import Message, MessageType, Variant
from dbus_next.aio import MessageBus

from .bus_probe import BusProbe
from .dbus_fake import PROPERTIES, CallRefused, connect, disconnect, plain
from .journal import Journal

SERVICE = "com.vantora.Network1"
PATH = "/com/vantora/Network1"
INTERFACE = "com.vantora.Network1.WiFi"

_DBUS = "org.freedesktop.DBus"
_DBUS_PATH = "/org/freedesktop/DBus"


class Client:
    """One connection to the user bus. Its coroutines run on the loop."""

    def __init__(self, bus: MessageBus) -> None:
        self._bus = bus

    @classmethod
    async def open(cls, address: str) -> "Client":
        """Connect."""
        return cls(await connect(address))

    async def close(self) -> None:
        """Disconnect."""
        await disconnect(self._bus)

    @property
    def unique_name(self) -> str:
        """The name that the bus has given this connection."""
        return self._bus.unique_name or ""

    @property
    def connected(self) -> bool:
        """Whether the bus still serves this connection."""
        return self._bus.connected

    async def call(
        self, destination: str, path: str, interface: str, member: str, signature: str = "", args: list[Any] | None = None
    ) -> list[Any]:
        """Call a method and return the values of the reply; an error reply raises CallRefused, a lost bus an OSError."""
        if not self.connected:
            raise ConnectionError("the bus is gone")  # the library would wait for the answer for ever
        reply = await self._bus.call(
            Message(
                destination=destination, path=path, interface=interface, member=member, signature=signature, body=args or []
            )
        )
        assert reply is not None
        if reply.message_type is MessageType.ERROR:
            raise CallRefused(reply.error_name or "", str(reply.body[0]) if reply.body else "")
        return list(reply.body)

    async def get(self, name: str) -> Variant:
        """Read a property of the daemon."""
        value: Variant = (await self.call(SERVICE, PATH, PROPERTIES, "Get", "ss", [INTERFACE, name]))[0]
        return value

    async def set(self, name: str, value: Variant) -> None:
        """Write a property of the daemon."""
        await self.call(SERVICE, PATH, PROPERTIES, "Set", "ssv", [INTERFACE, name, value])

    async def ping(self, service: str = SERVICE) -> None:
        """Ask the peer for a sign of life."""
        await self.call(service, PATH, f"{_DBUS}.Peer", "Ping")

    async def ask_bus(self, member: str, signature: str = "", args: list[Any] | None = None) -> list[Any]:
        """Call a method of the bus daemon itself."""
        return await self.call(_DBUS, _DBUS_PATH, _DBUS, member, signature, args)


class Watcher(Client):
    """Writes every signal of the daemon's object into the journal."""

    def __init__(self, bus: MessageBus, probe: BusProbe, journal: Journal) -> None:
        super().__init__(bus)
        self._probe = probe
        self._journal = journal
        self._heard = 0

    @classmethod
    async def start(cls, address: str, journal: Journal) -> "Watcher":
        """Connect and begin to watch."""
        probe = await BusProbe.open(address)
        try:
            bus = await connect(address)
        except BaseException:
            await probe.close()
            raise
        watcher = cls(bus, probe, journal)
        bus.add_message_handler(watcher._receive)
        try:
            await watcher.ask_bus("AddMatch", "s", [f"type='signal',path='{PATH}'"])
        except BaseException:
            await watcher.close()
            raise
        return watcher

    async def close(self) -> None:
        """Disconnect."""
        await self._probe.close()
        await super().close()

    async def catch_up(self) -> None:
        """Return when every signal sent before this call is in the journal.

        The bus reads from all its clients before it answers one of them, and passes on before the next round: so the answer
        to a second question comes after everything that had been written to it before the first. Nearly always that is
        nothing, which the cheap questions tell. Where it is something, there may be more than fits into a socket at once, and
        only an answer behind it on the same connection says that it is over.
        """
        heard = self._heard
        for _ in range(2):
            await self._probe.ping()
        for _ in range(2):  # the loop looks at its sockets after what was ready before: so it takes a round more
            await asyncio.sleep(0)
        if self._heard != heard:
            for _ in range(2):
                await self.ask_bus("GetId")

    def _receive(self, message: Message) -> bool:
        if message.message_type is not MessageType.SIGNAL or message.path != PATH:
            return False
        self._heard += 1
        if message.interface == PROPERTIES and message.member == "PropertiesChanged":
            interface, values, invalidated = message.body
            for name, value in values.items():
                self._journal.add(
                    "changed",
                    name=name,
                    value=plain(value),
                    signature=value.signature,
                    interface=interface,
                    alone=len(values) == 1 and not invalidated,
                )
            for name in invalidated:
                self._journal.add(
                    "signal", member="PropertiesInvalidated", body=[name], path=message.path, interface=interface, signature="s"
                )
        else:
            self._journal.add(
                "signal",
                member=message.member,
                body=plain(message.body),
                path=message.path,
                interface=message.interface,
                signature=message.signature,
            )
        return True
