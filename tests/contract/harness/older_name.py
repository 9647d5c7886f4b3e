"""wpa_supplicant's older bus name: the program that stands in for it, a wpa_supplicant with the newer one only, and callers."""

from __future__ import annotations

import resource
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

from connections import names_of
from dbus_next import Message, MessageFlag, MessageType, Variant
from dbus_next.aio import MessageBus
from vantora_sim import DEADLINE, CallRefused, Process, World, log, notify
from vantora_sim.client import Client
from vantora_sim.dbus_fake import PROPERTIES, Call, DBusFake, connect, disconnect
from vantora_sim.wpa_supplicant import BSS, INTERFACE, WpaSupplicant

OLDER = "fi.epitest.hostap.WPASupplicant"
NEWER = "fi.w1.wpa_supplicant1"
ROOT = "/fi/w1/wpa_supplicant1"
FIRST = f"{ROOT}/Interfaces/1"
PROGRAM = "vantora-supplicant-names"
INTERFACE_UNKNOWN = (f"{NEWER}.InterfaceUnknown", "wpa_supplicant knows nothing about this interface.")
LEFT = ("org.freedesktop.DBus.Error.NoReply", "Message recipient disconnected from message bus without replying")
NOBODY = ("org.freedesktop.DBus.Error.ServiceUnknown", f"The name {OLDER} was not provided by any .service files")


async def _nothing() -> None:
    """The journal need not be brought into order: the daemon is not there."""


class Supplicant(DBusFake):
    """A wpa_supplicant whose `wlan0` is any of its objects. Its methods are not wpa_supplicant's: "Echo" returns what it is
    given, "Own" answers as `own` says; and each object has the properties that `properties` says."""

    names = (NEWER,)

    def __init__(self, world: World) -> None:
        super().__init__(world.loop, world.journal, _nothing)
        self.address = world.system_bus.address
        self.interfaces = {"wlan0": f"{ROOT}/Interfaces/7"}
        self.bsss: list[str] = []
        self.own: tuple[MessageType, str | None, str, list[Any]] = (MessageType.METHOD_RETURN, None, "", [])
        self.flags: list[MessageFlag] = []
        """Of each call."""
        self.senders: list[str] = []
        """Of each call."""

    async def answer(self, call: Call) -> tuple[str, list[Any]]:
        if (call.path, call.member) == (ROOT, "GetInterface"):
            if call.args[0] not in self.interfaces:
                raise CallRefused(*INTERFACE_UNKNOWN)
            return "o", [self.interfaces[call.args[0]]]
        if call.member == "Get":
            return "v", [Variant("ao", self.bsss)]
        if call.member == "GetAll":
            return "a{sv}", [{"SSID": Variant("ay", call.path.encode()), "Signal": Variant("n", -40)}]
        return call.signature, call.args

    async def _decide(self, message: Message, call: Call, action: Any) -> Message:
        if call.member == "Own":
            kind, name, signature, body = self.own
            return Message(
                message_type=kind,
                reply_serial=message.serial,
                destination=message.sender,
                error_name=name,
                signature=signature,
                body=body,
            )
        return await super()._decide(message, call, action)

    def _receive(self, message: Message) -> bool:
        if message.message_type is MessageType.METHOD_CALL:
            self.flags.append(message.flags)
            self.senders.append(message.sender or "")
        return super()._receive(message)

    def take(self, name: str) -> str:
        """Ask for one more name, as at a start; what the bus says."""
        assert self._bus
        reply = self._loop.run(self._bus.request_name(name))
        return str(reply.name)

    def renumber(self, path: str) -> None:
        """`wlan0` is removed and made again as another object, as when somebody replugs it."""
        self.emit(ROOT, NEWER, "InterfaceRemoved", "o", [self.interfaces["wlan0"]])
        self.interfaces["wlan0"] = path
        self.emit(ROOT, NEWER, "InterfaceAdded", "oa{sv}", [path, {}])


class RenumberedSupplicant(WpaSupplicant):
    """The wpa_supplicant of the usual world with its newer name only, and with `wlan0` as another object than the first."""

    names = (NEWER,)
    object = f"{ROOT}/Interfaces/4"

    async def answer(self, call: Call) -> tuple[str, list[Any]]:
        if (call.path, call.member) == (ROOT, "GetInterface"):
            return "o", [self.object]
        if call.path == FIRST or call.path.startswith(f"{FIRST}/"):
            raise CallRefused("org.freedesktop.DBus.Error.UnknownMethod", "there is no such object")
        return _renamed(await super().answer(_renamed(call, self.object, FIRST)), FIRST, self.object)

    def emit(self, path: str, interface: str, member: str, signature: str, body: list[Any]) -> None:
        super().emit(_renamed(path, FIRST, self.object), interface, member, signature, _renamed(body, FIRST, self.object))


def _renamed(value: Any, old: str, new: str) -> Any:
    """A value in which each path below an object is below another one."""
    if isinstance(value, str):
        return new + value[len(old) :] if value == old or value.startswith(f"{old}/") else value
    if isinstance(value, Variant):
        return Variant(value.signature, _renamed(value.value, old, new))
    if isinstance(value, dict):
        return {_renamed(key, old, new): _renamed(item, old, new) for key, item in value.items()}
    if isinstance(value, list):
        return [_renamed(item, old, new) for item in value]
    if isinstance(value, tuple):
        return tuple(_renamed(item, old, new) for item in value)
    if isinstance(value, Call):
        return Call(
            value.destination,
            _renamed(value.path, old, new),
            value.interface,
            value.member,
            value.signature,
            _renamed(value.args, old, new),
            value.sender,
        )
    return value


class Caller:
    """One connection to the system bus, on which calls of the older name are made."""

    def __init__(self, world: World) -> None:
        self.world = world
        self.bus: MessageBus = world.loop.run(connect(world.system_bus.address))
        self._client = Client(self.bus)

    @property
    def name(self) -> str:
        """Its unique name."""
        return self.bus.unique_name or ""

    def start(
        self,
        member: str,
        signature: str = "",
        body: list[Any] | None = None,
        *,
        path: str = FIRST,
        interface: str | None = INTERFACE,
        destination: str = OLDER,
        flags: MessageFlag = MessageFlag.NONE,
    ) -> "Any":
        """Make a call; a future of the whole answer."""
        return self.world.loop.submit(
            self.bus.call(Message(destination, path, interface, member, flags=flags, signature=signature, body=body or []))
        )

    def call(self, member: str, signature: str = "", body: list[Any] | None = None, **more: Any) -> Message:
        """Make a call and wait for the whole answer, an error or not."""
        answer: Message = self.start(member, signature, body, **more).result(DEADLINE)
        return answer

    def get_all(self, path: str) -> Message:
        """Everything about an access point."""
        return self.call("GetAll", "s", [BSS], path=path, interface=PROPERTIES)

    def send(self, member: str, signature: str = "", body: list[Any] | None = None, *, path: str = FIRST) -> None:
        """Make a call that expects no answer."""
        flags = MessageFlag.NO_REPLY_EXPECTED
        message = Message(OLDER, path, INTERFACE, member, flags=flags, signature=signature, body=body or [])
        self.world.loop.call(lambda: self.bus.send(message))

    def ask_bus(self, member: str, *args: str) -> Any:
        """Ask the bus itself something."""
        return self.world.loop.run(self._client.ask_bus(member, "s" * len(args), list(args)))

    def ask_bus_for_name(self, name: str) -> None:
        """Own a name."""
        self.world.loop.run(self.bus.request_name(name))

    def owner(self, name: str = OLDER) -> str | None:
        """Who owns a name."""
        try:
            owner: str = self.ask_bus("GetNameOwner", name)[0]
            return owner
        except CallRefused:
            return None

    def leave(self) -> None:
        """Disconnect."""
        self.world.loop.run(disconnect(self.bus))


class OlderName:
    """A world with the program in it, and somebody to call it."""

    def __init__(self, world: World, build: Path) -> None:
        self.world = world
        self.journal = world.journal
        self._program = build / PROGRAM
        self.supplicant = Supplicant(world)
        self.caller = Caller(world)
        self._callers = [self.caller]
        self.process: Process | None = None

    def start(self, *prefix: str, environment: dict[str, str | None] | None = None) -> Process:
        """Start the program and wait until it says that it is ready."""
        mark = self.journal.mark()
        full = {"NOTIFY_SOCKET": "/run/sim/notify", **(environment or {})}
        self.process = self.world.sandbox.start([*prefix, self._program], full)
        self.journal.wait_for(notify("READY=1"), mark)
        return self.process

    @property
    def program(self) -> Path:
        """The executable."""
        return self._program

    def up(self) -> None:
        """Bring wpa_supplicant and the program up, until the older name is there."""
        self.up_with({})

    def up_with(self, environment: dict[str, str | None]) -> None:
        """The same with more in the program's environment."""
        self.start(environment=environment)
        self.supplicant.come_back()
        self.wait_owned()

    def another_caller(self) -> Caller:
        """Somebody else."""
        caller = Caller(self.world)
        self._callers.append(caller)
        return caller

    def wait_until(self, condition: Callable[[], Any], what: str) -> Any:
        """Wait for something that only asking shows."""
        deadline = time.monotonic() + DEADLINE
        while not (found := condition()):
            assert time.monotonic() < deadline, f"waited in vain for {what}\n{self.journal.dump()}"
            time.sleep(0.002)
        return found

    def wait_owned(self, owned: bool = True) -> None:
        """Wait until the older name is there, or is not."""
        self.wait_until(lambda: (self.caller.owner() is not None) == owned, f"{OLDER} to be {'there' if owned else 'gone'}")

    def wait_call(self, member: str, since: int = 0, times: int = 1, **more: Any) -> None:
        """Wait until wpa_supplicant has been called so often."""
        self.journal.wait_until(
            lambda: len(self.calls(member, since, **more)) >= times, f"{times} calls of {member}", since=since
        )

    def calls(self, member: str | None = None, since: int = 0, **fields: Any) -> list[Any]:
        """The calls that have reached wpa_supplicant, without the questions for `wlan0`'s object."""
        return [
            entry
            for entry in self.journal.since(since)
            if entry.kind == "call"
            and entry.bus == "system"
            and (member or entry.member) == entry.member
            and (entry.member != "GetInterface" or member == "GetInterface")
            and all(getattr(entry, name) == value for name, value in fields.items())
        ]

    def settle(self) -> None:
        """Return when the program has handled all that had reached it: it hands a call on and the answer back."""
        path = f"{ROOT}/Settle"
        assert self.caller.call("Echo", path=path).message_type is MessageType.METHOD_RETURN

    def settle_without_name(self) -> None:
        """The same while the older name is not there: the program asks the bus whose a call is, and answers."""
        mine = [name for name in self.caller.ask_bus("ListNames")[0] if name.startswith(":") and self._is_mine(name)]
        first = min(mine, key=lambda name: int(name.rpartition(".")[2]))
        for _ in range(2):
            self.caller.call("Ping", destination=first, interface="org.freedesktop.DBus.Peer", path=f"{ROOT}/Settle")

    def _is_mine(self, name: str) -> bool:
        assert self.process
        try:
            return bool(self.caller.ask_bus("GetConnectionUnixProcessID", name)[0] == self.process.pid)
        except CallRefused:
            return False  # it has just left

    def wait_log_count(self, priority: str, text: str, times: int) -> None:
        """Wait until a line has been written so often."""
        self.journal.wait_until(
            lambda: self.journal.count(log(priority, text, ident=PROGRAM)) >= times, f"{text!r} {times} times"
        )

    @staticmethod
    def limit_descriptors(pid: int, limit: int) -> None:
        """Let a process open no descriptor above a number any more."""
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (limit, resource.prlimit(pid, resource.RLIMIT_NOFILE)[1]))

    def connections(self) -> int:
        """How many connections to the system bus the program has."""
        assert self.process
        return len(self.world.loop.run(names_of(self.caller._client, self.process.pid)))

    def logged(self, priority: str, text: str, since: int = 0) -> None:
        """Wait for a line of the program."""
        self.journal.wait_for(log(priority, text, ident=PROGRAM), since)

    def close(self) -> None:
        """End it all; the program must end well, if it has not ended yet."""
        self.supplicant.clear()
        if self.process is not None and self.process.running:
            assert self.process.stop() == 0
        for caller in self._callers:
            caller.leave()
        self.world.loop.run(self.supplicant.close())
        self.world.loop.call(self.supplicant.end)


def error_of(message: Message) -> tuple[str, str]:
    """Name and text of an error."""
    assert message.message_type is MessageType.ERROR, message.body
    return message.error_name or "", message.body[0] if message.body else ""


async def old_start(address: str, journal_owner: Callable[[str], None]) -> MessageBus:
    """What a wpa_supplicant with the old D-Bus interface does at its start: it takes both names, one right after the other, and
    gives up where it does not own one at once. Returns its connection."""
    bus = await connect(address)
    bus.add_message_handler(lambda message: message.message_type is MessageType.METHOD_CALL)  # it answers nothing yet
    for name in (NEWER, OLDER):
        reply = await bus.request_name(name)
        journal_owner(reply.name)
    return bus
