"""The daemon's D-Bus object as the page shows it: what it announces, what it says when asked, and what a person asks of it."""

from __future__ import annotations

import asyncio
from collections.abc import Callable
from typing import Any

from dbus_next import Variant, introspection

from ..client import INTERFACE, PATH, SERVICE, Client
from ..dbus_fake import PROPERTIES, CallRefused
from .texts import wire

_TIME_OUT = 60.0
"""Seconds that a person waits for an answer."""
_ALL = "*"
"""Stands for every property while their names are not known yet."""
_READING = 5.0
"""Seconds that a property is waited for: a daemon that hangs is shown as one."""
_AGAIN = 2.0
"""Seconds until a daemon that did not answer is asked again."""
_NO_ANSWER = "no answer"
_QUIET = 0.3
"""Seconds after an announcement until what is never announced is read again."""
_NUMBERS = "ynqiuxt"
_FOLLOWS: dict[str, tuple[str, ...] | None] = {
    "Mode": None,
    "WiFiState": None,
    "SSID": ("ClientSSID",),
    "WiFiClientState": ("ClientSSID",),
}
"""What to read after an announcement because it is not announced itself; None: everything. No more than that, because each
reading makes the daemon ask its surroundings, and all of that is on the time line."""


class Surface:
    """One object. All functions are for the loop."""

    def __init__(self, changed: Callable[[], None]) -> None:
        """`changed` is called after anything here has."""
        self._changed = changed
        self._reader: Client | None = None
        self._actor: Client | None = None
        self._task: asyncio.Task[None] | None = None
        self._wanted: set[str] = set()
        """Properties that are still to be read."""
        self._announcements: dict[str, int] = {}
        """How often each property was announced."""
        self.present = False
        """Whether the daemon has its name."""
        self.values: dict[str, Any] = {}
        """Each property's value, as last announced or read."""
        self.failures: dict[str, str] = {}
        """Why a property could not be read."""
        self.members: dict[str, Any] = {"properties": [], "methods": [], "signals": []}
        """What introspection says."""

    async def open(self, address: str) -> tuple[str, str]:
        """Connect; returns the connection that reads and the one that acts for a person."""
        self._reader, self._actor = await Client.open(address), await Client.open(address)
        return self._reader.unique_name, self._actor.unique_name

    async def close(self) -> None:
        """Disconnect."""
        if self._task is not None:
            self._task.cancel()
        for client in (self._reader, self._actor):
            if client is not None:
                await client.close()

    # What is heard

    def announced(self, values: dict[str, Any]) -> None:
        """Values that were announced just now."""
        self.values.update(values)
        for name in values:
            self.failures.pop(name, None)
            self._announcements[name] = self._announcements.get(name, 0) + 1
        self._changed()
        following = {name: _FOLLOWS[name] for name in values if name in _FOLLOWS}
        if None in following.values():
            self.refresh(_QUIET, leave=set(values))
        elif following:
            self.refresh(_QUIET, only={name for names in following.values() for name in names or ()})

    def heard(self, member: str, body: list[Any]) -> None:
        """A signal of the daemon that is no announcement of properties."""
        if member == "AccessPointsChanged" and body:
            self.values["AccessPoints"] = body[0]
            self._announcements["AccessPoints"] = self._announcements.get("AccessPoints", 0) + 1
            self._changed()

    def owner(self, present: bool) -> None:
        """The daemon is there, or gone."""
        self.present = present
        if present:
            self.values.clear()  # those of its predecessor
            self.failures.clear()
            self.refresh(_QUIET)
        self._changed()

    def refresh(self, after: float = 0.0, *, leave: set[str] | None = None, only: set[str] | None = None) -> None:
        """Read everything again, or only this, but not what was announced just now. What is still to be read stays so."""
        if self._task is None or self._task.done():
            self._wanted = set()
        else:
            self._task.cancel()
        names = {one["name"] for one in self.members["properties"]}
        self._wanted |= (only if only is not None else names or {_ALL}) - (leave or set())
        self._task = asyncio.get_running_loop().create_task(self._read(after))

    async def _read(self, after: float) -> None:
        await asyncio.sleep(after)
        if not self.members["properties"]:
            await self._introspect()
        names = [one["name"] for one in self.members["properties"]]
        if _ALL in self._wanted and names:
            self._wanted = set(names)
        for name in names:
            if name in self._wanted:
                if not await self._read_one(name):
                    self._silent(names)
                    return
                self._wanted.discard(name)
        self._changed()

    def _silent(self, names: list[str]) -> None:
        """It does not answer: that holds for all that is still to be read, which is asked for again later."""
        self.failures.update({name: _NO_ANSWER for name in names if name in self._wanted})
        self._changed()
        self._task = asyncio.get_running_loop().create_task(self._read(_AGAIN))

    async def _read_one(self, name: str) -> bool:
        """Returns whether there was an answer, of whatever kind."""
        assert self._reader
        announced = self._announcements.get(name)
        try:
            value = wire(await asyncio.wait_for(self._reader.get(name), _READING))
            # What was announced meanwhile is newer, although it came by another way and was here first.
            if self._announcements.get(name) == announced:
                self.values[name] = value
            self.failures.pop(name, None)
        except CallRefused as refusal:
            self.failures[name] = refusal.text
        except asyncio.TimeoutError:
            return False
        except OSError as error:
            self.failures[name] = str(error)
        return True

    async def _introspect(self) -> None:
        assert self._reader
        try:
            reply = await asyncio.wait_for(
                self._reader.call(SERVICE, PATH, "org.freedesktop.DBus.Introspectable", "Introspect"), _READING
            )
        except (CallRefused, OSError, asyncio.TimeoutError):
            return  # the daemon is not there yet, or hangs; the next reading asks again
        interface = next((one for one in introspection.Node.parse(reply[0]).interfaces if one.name == INTERFACE), None)
        if interface is None:
            return
        self.members = {
            "properties": [
                {"name": one.name, "signature": one.signature, "access": one.access.value} for one in interface.properties
            ],
            "methods": [
                {"name": one.name, "in": [arg.signature for arg in one.in_args], "out": [arg.signature for arg in one.out_args]}
                for one in interface.methods
            ],
            "signals": [{"name": one.name, "signature": [arg.signature for arg in one.args]} for one in interface.signals],
        }

    # What a person asks

    async def write(self, name: str, text: str) -> None:
        """Write a property, given as a person writes it. Raises CallRefused, ValueError for what is no such value."""
        found = next((one for one in self.members["properties"] if one["name"] == name), None)
        if found is None:
            raise ValueError(f"there is no property {name!r}")
        await self._ask(
            PROPERTIES, "Set", "ssv", [INTERFACE, name, Variant(found["signature"], value_of(found["signature"], text))]
        )

    async def call(self, member: str, texts: list[str]) -> Any:
        """Call a method with arguments as a person writes them; returns the reply. Raises CallRefused and ValueError."""
        found = next((one for one in self.members["methods"] if one["name"] == member), None)
        if found is None:
            raise ValueError(f"there is no method {member!r}")
        if len(texts) != len(found["in"]):
            raise ValueError(f"{member} has {len(found['in'])} arguments")
        arguments = [value_of(signature, text) for signature, text in zip(found["in"], texts)]
        return wire(await self._ask(INTERFACE, member, "".join(found["in"]), arguments))

    async def _ask(self, interface: str, member: str, signature: str, arguments: list[Any]) -> list[Any]:
        assert self._actor
        try:
            return await asyncio.wait_for(self._actor.call(SERVICE, PATH, interface, member, signature, arguments), _TIME_OUT)
        except asyncio.TimeoutError:
            raise CallRefused(
                "org.freedesktop.DBus.Error.NoReply", f"Did not receive a reply. {_TIME_OUT:g} s were waited for it."
            ) from None


def value_of(signature: str, text: str) -> Any:
    """A value of this type, as a person writes it. Raises ValueError."""
    if signature == "b":
        if text not in ("true", "false"):
            raise ValueError("write true or false")
        return text == "true"
    if signature in _NUMBERS:
        try:
            return int(text)
        except ValueError:
            raise ValueError(f"{text!r} is no number") from None
    if signature == "s":
        return text
    raise ValueError(f"values of type {signature} cannot be written here")
