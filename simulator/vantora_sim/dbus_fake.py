"""The base of every fake D-Bus service: a connection, names, a record of each call, and rules for misbehaviour."""

from __future__ import annotations

import asyncio
import contextlib
import socket
from collections.abc import Awaitable, Callable
from dataclasses import dataclass
from typing import Any

from dbus_next import Message, MessageType, Variant
from dbus_next.aio import MessageBus

from .faults import Delay, Faults, Hang, Refuse, Reply, Vanish
from .journal import Journal
from .loop import LoopThread

PROPERTIES = "org.freedesktop.DBus.Properties"


class CallRefused(Exception):
    """A D-Bus error with its name and text: raised by a fake to refuse a call, and by a client whose call was refused."""

    def __init__(self, name: str, text: str = "") -> None:
        super().__init__(f"{name}: {text}")
        self.name = name
        self.text = text


@dataclass(frozen=True)
class Call:
    """One method call as it came in."""

    destination: str
    path: str
    interface: str
    member: str
    signature: str
    args: list[Any]
    sender: str


class _PatientSocket:
    """A full socket takes nothing for the moment; the library's writer would give its connection up for that."""

    def __init__(self, connection: socket.socket) -> None:
        self._connection = connection

    def send(self, data: memoryview) -> int:
        """Bytes that were taken."""
        try:
            return self._connection.send(data)
        except BlockingIOError:
            return 0


async def connect(address: str) -> MessageBus:
    """Open a connection to the bus at this address."""
    bus = await MessageBus(bus_address=address).connect()
    bus._writer.sock = _PatientSocket(bus._sock)  # no descriptors are sent over it
    # A lost connection is seen where it matters; nobody needs the library's own complaint about it.
    lost = asyncio.ensure_future(bus.wait_for_disconnect())
    lost.add_done_callback(lambda future: future.cancelled() or future.exception())
    return bus


async def disconnect(bus: MessageBus) -> None:
    """Close a connection; whoever waits for an answer from it learns that it will not come."""
    if not bus.connected:
        return
    bus.disconnect()
    try:
        await asyncio.wait_for(bus.wait_for_disconnect(), 5)
    except Exception:  # the bus may be gone already; either way the connection is over
        pass
    bus._sock.close()  # the library leaves its socket to the garbage collector


def plain(value: Any) -> Any:
    """A D-Bus value without its variants, as plain Python values."""
    if isinstance(value, Variant):
        return plain(value.value)
    if isinstance(value, dict):
        return {key: plain(item) for key, item in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain(item) for item in value]
    return value


class DBusFake:
    """A service of the outside world. Subclasses say what they own and how they answer truthfully."""

    names: tuple[str, ...] = ()
    bus_name = "system"

    def __init__(self, loop: LoopThread, journal: Journal, catch_up: Callable[[], Awaitable[None]]) -> None:
        self._loop = loop
        self._journal = journal
        self._catch_up = catch_up
        self.address = ""
        """The bus to connect to."""
        self._bus: MessageBus | None = None
        self._named = False
        self._faults = Faults()
        self._released = asyncio.Event()
        self._tasks: set[asyncio.Task[None]] = set()

    # What a subclass says

    async def answer(self, call: Call) -> tuple[str, list[Any]]:
        """The truthful answer: signature and body of the reply. Raise CallRefused for an error."""
        raise CallRefused("org.freedesktop.DBus.Error.UnknownMethod", f"Unknown method {call.member}")

    def subjects(self, call: Call) -> tuple[str, ...]:
        """What the call is about, for rules with `on=`."""
        return (call.path,)

    # Scripting, from any thread

    def refuse(
        self,
        member: str | None = None,
        *,
        on: str | None = None,
        name: str = "org.freedesktop.DBus.Error.Failed",
        text: str | None = "refused",
        times: int | None = None,
    ) -> None:
        """Answer this member with an error; a text of None leaves it out of the message."""
        self._faults.add(member, on, Refuse(name, text), times)

    def reply(self, member: str, signature: str, body: list[Any], *, on: str | None = None, times: int | None = None) -> None:
        """Answer this member with these values, whatever its type should be; "" and [] for an empty reply."""
        self._faults.add(member, on, Reply(signature, body), times)

    def hang(self, member: str | None = None, *, on: str | None = None, times: int | None = None) -> None:
        """Do not answer this member until `release()`."""
        self._faults.add(member, on, Hang(), times)

    def vanish(self, member: str | None = None, *, on: str | None = None) -> None:
        """Drop off the bus in the middle of the next call of this member; `come_back()` brings the service back."""
        self._faults.add(member, on, Vanish(), 1)

    def slow(self, member: str | None, seconds: float, *, on: str | None = None, times: int | None = None) -> None:
        """Answer this member truthfully, but so many seconds later."""
        self._faults.add(member, on, Delay(seconds), times)

    def clear(self) -> None:
        """Forget all rules and answer what hangs."""
        self._faults.clear()
        self.release()

    def release(self) -> None:
        """Answer the calls that hang; later ones hang again if the rule still holds."""

        def let_go() -> None:
            self._released.set()
            self._released = asyncio.Event()

        self._loop.call(let_go)

    @property
    def hangs(self) -> bool:
        """Whether there is a rule that makes it hang, whatever it is asked."""
        return self._faults.any_call_hangs

    @property
    def busy(self) -> bool:
        """Whether there are calls that it has received and not answered."""
        return bool(self._tasks)

    @property
    def present(self) -> bool:
        """Whether the service is on its bus, and has its names."""
        return self._named and self._bus is not None and self._bus.connected

    def go(self) -> None:
        """Drop off the bus now."""
        self._loop.run(self.close())

    def come_back(self) -> None:
        """Connect to the bus again, with all names."""
        self._loop.run(self.open(self.address))

    # Life on the loop

    async def open(self, address: str) -> None:
        """Connect and take the names."""
        if self._bus is not None and self._bus.connected:
            return
        self.address = address
        self._named = False
        bus = await connect(address)
        bus.add_message_handler(self._receive)
        self._bus = bus
        for name in self.names:
            await bus.request_name(name)
        self._named = True

    async def close(self) -> None:
        """Disconnect; calls in progress stay without an answer."""
        bus, self._bus = self._bus, None
        if bus is not None:
            await disconnect(bus)

    async def arrived(self) -> None:
        """Return when all that it has sent waits at its receivers: the bus answers only after what came before."""
        bus = self._bus
        if bus is not None and bus.connected:
            with contextlib.suppress(OSError, EOFError):  # the bus has just been taken away
                await bus.call(Message("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId"))

    def end(self) -> None:
        """Give up everything still in progress (on the loop)."""
        for task in list(self._tasks):
            task.cancel()

    def emit(self, path: str, interface: str, member: str, signature: str, body: list[Any]) -> None:
        """Send a signal, from any thread; nothing happens while the service is off the bus."""

        def send() -> None:
            if self._bus is not None:
                self._bus.send(Message.new_signal(path, interface, member, signature, body))

        self._loop.call(send)

    def _receive(self, message: Message) -> bool:
        if message.message_type is not MessageType.METHOD_CALL:
            return False
        if message.interface == "org.freedesktop.DBus.Introspectable":
            return False
        call = Call(
            message.destination or "",
            message.path or "",
            message.interface or "",
            message.member or "",
            message.signature or "",
            list(message.body),
            message.sender or "",
        )
        task = self._loop.asyncio.create_task(self._serve(message, call))
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)
        return True

    async def _serve(self, message: Message, call: Call) -> None:
        bus = self._bus
        await self._catch_up()
        self._journal.add(
            "call",
            bus=self.bus_name,
            destination=call.destination,
            path=call.path,
            interface=call.interface,
            member=call.member,
            signature=call.signature,
            args=call.args,
            sender=call.sender,
        )
        action = self._faults.take(call.member, self.subjects(call))
        if isinstance(action, Vanish):
            await self.close()
            return
        if isinstance(action, Hang):
            await self._released.wait()
        if isinstance(action, Delay):
            await asyncio.sleep(action.seconds)
        if bus is None or not bus.connected:
            return
        reply = await self._decide(message, call, action)
        if bus.connected:
            bus.send(reply)

    async def _decide(self, message: Message, call: Call, action: Any) -> Message:
        if isinstance(action, Refuse):
            return _error(message, action.name, action.text)
        if isinstance(action, Reply):
            return Message.new_method_return(message, action.signature, action.body)
        try:
            signature, body = await self.answer(call)
        except CallRefused as refusal:
            return Message.new_error(message, refusal.name, refusal.text)
        return Message.new_method_return(message, signature, body)


def _error(message: Message, name: str, text: str | None) -> Message:
    return Message(
        message_type=MessageType.ERROR,
        reply_serial=message.serial,
        destination=message.sender,
        error_name=name,
        signature="" if text is None else "s",
        body=[] if text is None else [text],
    )
