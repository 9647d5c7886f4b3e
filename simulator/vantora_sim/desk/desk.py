"""The desk of a running device: gathers what happens, and does what a person asks for."""

from __future__ import annotations

import asyncio
import threading
from collections.abc import Callable
from typing import Any

from .. import places, settings, state, words
from ..client import SERVICE, Client
from ..commands import CommandError
from ..dbus_fake import CallRefused
from ..journal import Entry
from ..parts import Parts
from ..plan import Network
from .addresses import Addresses
from .facts import Facts
from .monitor import BusMonitor
from .recording import Recording
from .replay import Deeds, call_line, write_line
from .surface import Surface
from .texts import shorten, wire

_LOOK = 0.25
"""Seconds between two looks at how things are."""
_SAMPLE = 1.0
"""Seconds between two samples of the signals."""
_PROGRAMS = ("vantora-network", "vantora-settingsd")
_STORED = 5.0
"""Seconds that the settings daemon is waited for."""


class Desk:
    """What the page shows and does. Open it when the world stands and nothing has been started in it yet."""

    def __init__(self, parts: Parts, run: Callable[[str, dict[str, Any]], str]) -> None:
        """`run` does a command of vantora-simctl, or raises CommandError."""
        self._parts = parts
        self._run = run
        self._loop = parts.world.loop
        self.live = True
        self.facts = Facts(places.dbus_api_page())
        self.deeds = Deeds(parts.plan)
        self._open = False
        self._seen: dict[str, dict[str, Any]] = {}
        """Every network that there was, by address, as it was last."""
        self._tasks: list[asyncio.Task[None]] = []

    def open(self) -> None:
        """Begin to gather. Not for the loop's thread."""
        world = self._parts.world
        self.recording = self._loop.call(Recording)
        self.surface = Surface(self._touch)
        self._addresses = Addresses(world, self.recording, self._touch)
        self._addresses.start()
        self.state: dict[str, Any] = {}
        # Counts how often state or surface have changed.
        self.version = 0
        self._position = world.journal.mark()
        self._loop.run(self._start())
        self._open = True
        threading.Thread(target=self._follow_journal, name="desk", daemon=True).start()

    async def _start(self) -> None:
        world = self._parts.world
        self._monitors = [BusMonitor("user", self.recording), BusMonitor("system", self.recording)]
        self._monitors[0].on_properties.append(self.surface.announced)
        self._monitors[0].on_signal.append(self.surface.heard)
        self._monitors[0].on_owner.append(lambda name, there: self.surface.owner(there) if name == SERVICE else None)
        reader, actor = await self.surface.open(world.user_bus.address)
        self._monitors[0].call_it(reader, None)
        self._monitors[0].call_it(actor, "the desk")
        self._settings_reader = await Client.open(world.user_bus.address)
        self._monitors[0].call_it(self._settings_reader.unique_name, None)
        await self._monitors[0].open(world.user_bus.address)
        await self._monitors[1].open(world.system_bus.address)
        world.hostapd.on_event.append(self._hostapd_event)
        self._tasks = [
            asyncio.get_running_loop().create_task(work) for work in (self._look(), self._sample(), self._addresses.follow())
        ]

    def close(self) -> None:
        """Gather no more. Not for the loop's thread."""
        if self._open:
            self._open = False
            self._loop.run(self._stop())

    async def _stop(self) -> None:
        for task in self._tasks:
            task.cancel()
        await self.surface.close()
        await self._settings_reader.close()
        for monitor in self._monitors:
            await monitor.close()

    @property
    def head(self) -> dict[str, Any]:
        """What the page is told first, and the first line of a saved run."""
        return {
            "world": self._parts.plan.name,
            "started": self.recording.started,
            "stations": [{"name": visitor.name, "mac": visitor.mac} for visitor in self._parts.plan.visitors],
            "daemons": list(words.NAMES),
            "facts": {"properties": self.facts.properties, "methods": self.facts.methods, "writes": self.facts.writes},
        }

    def device(self) -> dict[str, Any]:
        """The daemon's object as it is known now."""
        surface = self.surface
        return {"present": surface.present, "values": surface.values, "failures": surface.failures, "members": surface.members}

    # What happens

    def _touch(self) -> None:
        self.version += 1
        self.recording.poke()

    def _hostapd_event(self, data: bytes) -> None:
        text = data.decode(errors="backslashreplace")
        self.recording.entry(
            "hostapd",
            shorten(text),
            {"event": text},
            what="event",
            level="warning" if "DISABLED" in text or "TERMINATING" in text else "info",
        )

    async def _look(self) -> None:
        while True:
            found = state.at_once(self._parts)
            for network in found["networks"]:
                del network["signal"]  # told apart: it changes all the time
            for network, one in zip(found["networks"], self._parts.air.networks):
                network["strength"] = one.signal
            joined = self._parts.station.joined
            found["client"]["bssid"] = joined.bssid if joined is not None else None
            found["addresses"], found["cable"] = self._addresses.of, self._addresses.cable
            found["removed"] = self._removed(found["networks"])
            if found != self.state:
                self.state = {**found, "addresses": {name: list(known) for name, known in found["addresses"].items()}}
                self._touch()
            await asyncio.sleep(_LOOK)

    def _removed(self, networks: list[dict[str, Any]]) -> list[dict[str, Any]]:
        """The networks that were on the air once, as they were last: they can be switched on again."""
        here = {network["bssid"]: network for network in networks}
        self._seen.update(here)
        return [network for bssid, network in self._seen.items() if bssid not in here]

    async def _sample(self) -> None:
        before: dict[str, int | None] = {}
        while True:
            air = self._parts.air
            now: dict[str, int | None] = {network.bssid: air.signal(network) for network in air.networks}
            changed = {bssid: signal for bssid, signal in now.items() if before.get(bssid) != signal}
            changed |= {bssid: None for bssid in before.keys() - now.keys()}
            if changed:
                names = {one.bssid: _label(one) for one in air.networks if one.bssid not in before}
                self.recording.signals(changed, names)
            before = now
            await asyncio.sleep(_SAMPLE)

    def _follow_journal(self) -> None:
        journal = self._parts.world.journal
        while self._open:
            entries = journal.follow(self._position, 0.5)
            if entries and self._open:
                self._position = entries[-1].index + 1
                self._loop.call(self._take, entries)

    def _take(self, entries: list[Entry]) -> None:
        for entry in entries:
            self._take_one(entry)

    def _take_one(self, entry: Entry) -> None:
        fields, add = wire(entry.fields), self.recording.entry
        match entry.kind:
            case "log":
                add(
                    "log", shorten(entry.text), fields, what=entry.ident or "log", level=_level(entry.priority), when=entry.when
                )
            case "command":
                add("command", shorten(entry.line), fields, what="command", when=entry.when)
            case "hostapd":
                add("hostapd", f"asked: {shorten(entry.request)}", fields, what="request", when=entry.when)
            case "notify":
                add(
                    "log",
                    shorten(f"to the service manager: {entry.text}"),
                    fields,
                    what="notify",
                    level="debug",
                    when=entry.when,
                )
            case "exit" if entry.program in _PROGRAMS:
                add(
                    "world",
                    f"{entry.program} has ended with status {entry.status}",
                    fields,
                    what="exit",
                    level="err" if entry.status else "warning",
                    when=entry.when,
                )
            case "world":
                add(
                    "world",
                    shorten(entry.text),
                    fields,
                    what=entry.command,
                    level="err" if fields.get("failed") else "notice",
                    when=entry.when,
                )
                if not fields.get("by_plan"):
                    deed = self.deeds.command(self.recording.time(entry.when), entry.command, entry.arguments)
                    self.recording.deed(deed.at, entry.text, deed.line, world=True)

    # What a person asks for

    async def command(self, command: str, arguments: dict[str, Any]) -> dict[str, Any]:
        """Do a command of vantora-simctl."""
        try:
            line = words.command_line(command, arguments)
        except (KeyError, TypeError, AttributeError):
            return {"error": f"arguments of {command}"}
        try:
            # Not on the loop: commands wait for the world, and the world lives on the loop.
            return {"text": await asyncio.to_thread(self._run, command, arguments), "line": line}
        except CommandError as error:
            return {"error": str(error), "line": line}

    async def write(self, name: str, text: str) -> dict[str, Any]:
        """Write a property of the daemon."""
        signature = next((one["signature"] for one in self.surface.members["properties"] if one["name"] == name), "s")
        line = write_line(name, signature, text)
        return await self._ask(line, name, f"{name} = {text}", self.surface.write(name, text))

    async def call(self, member: str, texts: list[str]) -> dict[str, Any]:
        """Call a method of the daemon."""
        signature = next(("".join(one["in"]) for one in self.surface.members["methods"] if one["name"] == member), "")
        line = call_line(member, signature, texts)
        return await self._ask(line, member, f"{member}({', '.join(texts)})", self.surface.call(member, texts))

    async def _ask(self, line: str, member: str, what: str, asking: Any) -> dict[str, Any]:
        at = self.recording.time()
        try:
            reply = await asking
        except ValueError as error:
            return {"error": str(error), "line": line}
        except CallRefused as refusal:
            return {
                "error": refusal.text,
                "name": refusal.name,
                "about": self.facts.about_error(refusal.name, refusal.text, member),
                "line": line,
            }
        except OSError as error:
            return {"error": str(error), "line": line}
        self.recording.deed(self.deeds.line(at, line).at, shorten(what), line, world=False)
        return {"text": "done", "reply": reply, "line": line}

    async def stored(self) -> dict[str, Any]:
        """All stored settings by section, or why they cannot be had."""
        try:
            asking = self._settings_reader.call(
                settings.SERVICE, settings.BASE_PATH, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"
            )
            reply = wire(await asyncio.wait_for(asking, _STORED))
        except CallRefused as refusal:
            return {"error": refusal.text}
        except asyncio.TimeoutError:
            return {"error": "the settings daemon does not answer"}
        except OSError as error:
            return {"error": str(error)}
        found = {
            path.rsplit("/", 1)[-1]: values
            for path, interfaces in reply[0].items()
            for name, values in interfaces.items()
            if name == settings.SERVICE
        }
        return {"settings": {section: dict(sorted(values.items())) for section, values in sorted(found.items()) if values}}


def _label(network: Network) -> str:
    return f"{network.label}{' (hidden)' if network.hidden else ''}, {network.band} GHz"


def _level(priority: str) -> str:
    return {"emerg": "err", "alert": "err", "crit": "err", "none": "info"}.get(priority, priority)
