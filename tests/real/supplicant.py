"""The real wpa_supplicant as a client of its D-Bus interface sees it, beside the daemon."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

from dbus_next import Message, MessageType, Variant
from vantora_sim import CallRefused, World
from vantora_sim.client import Client
from vantora_sim.dbus_fake import PROPERTIES, connect, plain
from vantora_sim.wpa_supplicant import INTERFACE, INTERFACE_PATH
from waiting import wait_until

SERVICE = "fi.w1.wpa_supplicant1"
OLDER_NAME = "fi.epitest.hostap.WPASupplicant"
ROOT_PATH = "/fi/w1/wpa_supplicant1"
NETWORK = "fi.w1.wpa_supplicant1.Network"


@dataclass(frozen=True)
class Notice:
    """A signal of wpa_supplicant."""

    path: str
    interface: str
    member: str
    body: list[Any]


class Supplicant:
    """Asks the real wpa_supplicant and keeps every signal it sends."""

    def __init__(self, world: World) -> None:
        self._world = world
        self.notices: list[Notice] = []
        self._client = world.loop.run(self._open())

    async def _open(self) -> Client:
        bus = await connect(self._world.system_bus.address)
        bus.add_message_handler(self._receive)
        client = Client(bus)
        await client.ask_bus("AddMatch", "s", [f"type='signal',sender='{SERVICE}'"])
        return client

    def close(self) -> None:
        """Disconnect."""
        self._world.loop.run(self._client.close())

    def _receive(self, message: Message) -> bool:
        if message.message_type is MessageType.SIGNAL and (message.path or "").startswith(ROOT_PATH):
            self.notices.append(Notice(message.path or "", message.interface or "", message.member or "", message.body))
            self._world.journal.poke()
        return False

    def owner(self, name: str = SERVICE) -> str | None:
        """Who owns the bus name."""
        if not self._world.loop.run(self._client.ask_bus("NameHasOwner", "s", [name]))[0]:
            return None
        owner: str = self._world.loop.run(self._client.ask_bus("GetNameOwner", "s", [name]))[0]
        return owner

    def wait_present(self, other_than: str | None = None) -> str:
        """Wait until it is on the bus and has made interface 1 for `wlan0`; returns its unique name."""

        def look() -> str | None:
            owner = self.owner()
            if owner is None or owner == other_than:
                return None
            try:
                return owner if self.get("Ifname") == "wlan0" else None
            except CallRefused:
                return None  # the name comes before the interfaces

        owner: str = wait_until(look, "wpa_supplicant")
        return owner

    def call(
        self,
        member: str,
        signature: str = "",
        args: list[Any] | None = None,
        *,
        path: str = INTERFACE_PATH,
        interface: str = INTERFACE,
    ) -> list[Any]:
        """Call a method; a refusal raises CallRefused."""
        return self._world.loop.run(self._client.call(SERVICE, path, interface, member, signature, args))

    def get(self, name: str, *, path: str = INTERFACE_PATH, interface: str = INTERFACE) -> Any:
        """Read a property as a plain value."""
        return plain(self.call("Get", "ss", [interface, name], path=path, interface=PROPERTIES)[0])

    def network(self, path: str) -> dict[str, Any]:
        """The settings of a configured network."""
        settings: dict[str, Any] = self.get("Properties", path=path, interface=NETWORK)
        return settings

    def own_changes(self) -> list[dict[str, Variant]]:
        """The properties in each of its own PropertiesChanged signals, of whichever object, in order."""
        return [
            notice.body[0] for notice in self.notices if notice.interface == INTERFACE and notice.member == "PropertiesChanged"
        ]

    def states(self) -> list[str]:
        """The state words of interface 1 in the order in which they were announced."""
        return [
            notice.body[0]["State"].value
            for notice in self.notices
            if (notice.path, notice.interface, notice.member) == (INTERFACE_PATH, INTERFACE, "PropertiesChanged")
            and "State" in notice.body[0]
        ]
