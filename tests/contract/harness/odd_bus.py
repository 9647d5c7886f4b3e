"""A bus that misbehaves: it stands between the daemon and a real bus, passes everything on, and breaks the rules when told to.

    with OddBus(world, world.user_bus) as bus:
        bus.retype("RequestName")
        world.start_daemon(environment=bus.environment)
"""

from __future__ import annotations

import asyncio
import struct
import weakref
from types import TracebackType

from dbus_next import Message, MessageType
from vantora_sim import World
from vantora_sim.buses import Bus

GARBAGE = bytes(range(256)) * 16
_GARBLED = GARBAGE + b"\r\n"
_REJECTION = [b"DATA\r\n", b"REJECTED EXTERNAL\r\n", b'ERROR "no"\r\n']
"""What a bus says to the lines with which a client asks to be let in."""
_ADMISSION = b"DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n"
"""What it says to them to let a client in."""
HANGS_UP = ("at once", "after AUTH", "after OK", "at Hello")
"""The moments at which it may hang up on who connects."""
_HEADER = 16
_buses: "weakref.WeakKeyDictionary[World, OddBus]" = weakref.WeakKeyDictionary()
_VARIABLES = {"user": "DBUS_SESSION_BUS_ADDRESS", "system": "DBUS_SYSTEM_BUS_ADDRESS"}


def odd_bus(world: World) -> "OddBus":
    """The odd bus of this world."""
    return _buses[world]


class OddBus:
    """The bus as the daemon sees it, at an address of its own."""

    def __init__(self, world: World, bus: Bus) -> None:
        self._world = world
        self._bus = bus
        self._path = world.work / "run" / f"odd-{bus.name}-bus"
        self.environment: dict[str, str] = {_VARIABLES[bus.name]: f"unix:path=/run/{self._path.name}"}
        """What makes the daemon take it for its bus."""
        self.handled = 0
        """How many messages of clients it has handled so far."""
        self._rejects = self._garbles = self._is_silent = False
        self._hangs_up: str | None = None
        self._admitted: int | None = None
        self._lets_in = False
        self._pause = 0.0
        self._retyped: bytes | None = None
        self._most: int | None = None
        self._connections: set[asyncio.Task[None]] = set()
        self._to_daemon: set[asyncio.StreamWriter] = set()
        self._server: asyncio.AbstractServer | None = None

        _buses[world] = self

    def __enter__(self) -> "OddBus":
        self._world.loop.run(self._open())
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None) -> None:
        self._world.loop.run(self._close())

    # Misbehaviour, from any thread

    def reject(self) -> None:
        """Let nobody in any more."""
        self._rejects = True

    def be_silent(self) -> None:
        """Take connections and say nothing on them."""
        self._is_silent = True

    def admit(self, count: int, let_in_the_others: bool = False) -> None:
        """Serve so many connections as any bus does; each later one is let in at most, and otherwise answered nothing."""
        self._admitted = count
        self._lets_in = let_in_the_others

    def slow_down(self, seconds: float) -> None:
        """Handle each message only after so many seconds, that with which a client is let in included."""
        self._pause = seconds

    def hang_up(self, moment: str) -> None:
        """Take connections and hang up at this one of HANGS_UP."""
        assert moment in HANGS_UP
        self._hangs_up = moment

    def garble(self) -> None:
        """Greet everybody who comes with bytes that mean nothing."""
        self._garbles = True

    def retype(self, member: str) -> None:
        """Answer this call of the bus itself with a value of another type."""
        self._retyped = member.encode()

    def stop_reading(self, most: int) -> None:
        """Stop reading from a connection in the middle of a message whose body has more bytes than this."""
        self._most = most

    def behave(self) -> None:
        """Break no rule any more."""
        self._rejects = self._garbles = self._is_silent = False
        self._hangs_up = self._admitted = self._retyped = self._most = None
        self._pause = 0.0

    def inject_garbage(self) -> None:
        """Send bytes that mean nothing to everybody who is connected."""

        def send() -> None:
            for writer in self._to_daemon:
                writer.write(GARBAGE)

        self._world.loop.call(send)

    # On the loop

    async def _open(self) -> None:
        self._server = await asyncio.start_unix_server(self._accept, self._path, backlog=100)
        self._path.chmod(0o666)

    async def _close(self) -> None:
        assert self._server
        self._server.close()
        for task in list(self._connections):
            task.cancel()
        await asyncio.gather(*self._connections, return_exceptions=True)
        # Python from 3.13 on has removed it already.
        self._path.unlink(missing_ok=True)

    async def _accept(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        task = asyncio.current_task()
        assert task is not None
        self._connections.add(task)
        try:
            await self._serve(reader, writer)
        except (OSError, asyncio.IncompleteReadError, asyncio.CancelledError):
            pass  # one of the two has gone, or the world ends
        finally:
            self._to_daemon.discard(writer)
            self._connections.discard(task)
            writer.close()

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        is_mute = False
        if self._admitted is not None:
            is_mute = self._admitted <= 0
            self._admitted -= 1
        if self._is_silent or (is_mute and not self._lets_in):
            await reader.read(-1)
            return
        if self._hangs_up is not None:
            await self._begin_and_hang_up(reader, writer, HANGS_UP.index(self._hangs_up))
            return
        if self._rejects or self._garbles:
            await reader.read(1)
            writer.write(b"".join([_GARBLED] * len(_REJECTION) if self._garbles else _REJECTION))
            await writer.drain()
            await reader.read(-1)
            return
        bus_reader, bus_writer = await asyncio.open_unix_connection(self._bus.socket)
        self._to_daemon.add(writer)
        back = asyncio.ensure_future(_pass_on(bus_reader, writer))
        try:
            bus_writer.write(await reader.readuntil(b"BEGIN\r\n"))
            while True:
                message = await self._read_message(reader)
                await asyncio.sleep(self._pause)
                self.handled += 1
                if is_mute and b"Hello" not in message:
                    continue
                if self._retyped is not None and self._retyped in message:
                    writer.write(_odd_reply(message))
                else:
                    bus_writer.write(message)
        finally:
            back.cancel()
            bus_writer.close()

    async def _begin_and_hang_up(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter, steps: int) -> None:
        if steps >= 1:
            await reader.readuntil(b"BEGIN\r\n")
        if steps >= 2:
            writer.write(_ADMISSION)
            await writer.drain()
        if steps >= 3:
            await self._read_message(reader)

    async def _read_message(self, reader: asyncio.StreamReader) -> bytes:
        """One whole message, as bytes (the daemon's machine and this one have the same byte order: little)."""
        head = await reader.readexactly(_HEADER)
        body, _, fields = struct.unpack_from("<III", head, 4)
        if self._most is not None and body > self._most:
            await asyncio.get_running_loop().create_future()  # until the world ends
        return head + await reader.readexactly(-(-fields // 8) * 8 + body)


async def _pass_on(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
    while data := await reader.read(65536):
        writer.write(data)
    writer.close()


def _odd_reply(call: bytes) -> bytes:
    """An answer to a call of the bus, well made and of no use."""
    (serial,) = struct.unpack_from("<I", call, 8)
    reply = Message(
        message_type=MessageType.METHOD_RETURN,
        sender="org.freedesktop.DBus",
        reply_serial=serial,
        signature="d",
        body=[0.5],
        serial=1_000_000,
    )
    return bytes(reply._marshall())
