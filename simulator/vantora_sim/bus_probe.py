"""A connection that asks the bus daemon for nothing but a sign of life, hundreds of times for each test.

The D-Bus library takes apart and checks every message, which for these questions alone was a seventh of all that the tests
cost. Here a question is a constant, and of an answer only the length is read.
"""

from __future__ import annotations

import asyncio
import contextlib
import os
import socket
import struct

_SERIAL = struct.Struct("<I")
_SERIAL_AT = 8  # in the header of a message
_HEAD = struct.Struct("<4x I 4x I")  # the length of the body, the length of the header's fields


def _call(member: str, interface: str) -> bytearray:
    """A call of the bus daemon itself, without arguments: all of it is header."""

    def field(code: int, signature: str, text: str) -> bytes:
        written = struct.pack("<BB", code, 1) + signature.encode() + struct.pack("<xI", len(text)) + text.encode() + b"\0"
        return written + bytes(-len(written) % 8)

    fields = [
        field(1, "o", "/org/freedesktop/DBus"),
        field(2, "s", interface),
        field(3, "s", member),
        field(6, "s", "org.freedesktop.DBus"),
    ]
    # The padding behind the last field belongs to the header and not to its fields.
    length = len(b"".join(fields).rstrip(b"\0")) + 1
    return bytearray(struct.pack("<cBBBIII", b"l", 1, 0, 1, 0, 1, length) + b"".join(fields))


class BusProbe:
    """One connection to a bus. Its coroutines run on the loop."""

    def __init__(self, connection: socket.socket) -> None:
        self._connection = connection
        self._loop = asyncio.get_running_loop()
        self._ping = _call("Ping", "org.freedesktop.DBus.Peer")
        self._serial = 1

    @classmethod
    async def open(cls, address: str) -> "BusProbe":
        """Connect to the bus at this address, a socket in the file system; OSError and EOFError say that it cannot be had."""
        connection = socket.socket(socket.AF_UNIX)
        try:
            connection.setblocking(False)
            probe = cls(connection)
            await probe._loop.sock_connect(connection, address.removeprefix("unix:path="))
            await probe._introduce()
        except BaseException:
            connection.close()
            raise
        return probe

    async def close(self) -> None:
        """Disconnect; whoever waits for an answer gets an EOFError."""
        with contextlib.suppress(OSError):
            self._connection.shutdown(socket.SHUT_RDWR)
        # The loop, which serves everybody, has to see the end before the number of the descriptor can be another's.
        for _ in range(3):
            await asyncio.sleep(0)
        self._connection.close()

    async def ping(self) -> None:
        """Return when the bus daemon has answered; OSError and EOFError say that it is gone."""
        self._serial += 1
        _SERIAL.pack_into(self._ping, _SERIAL_AT, self._serial)
        await self._loop.sock_sendall(self._connection, self._ping)
        await self._read_message()

    async def _introduce(self) -> None:
        user = str(os.getuid()).encode().hex().encode()
        await self._loop.sock_sendall(self._connection, b"\0AUTH EXTERNAL " + user + b"\r\n")
        answer = b""
        while not answer.endswith(b"\r\n"):
            answer += await self._read(1)
        if not answer.startswith(b"OK "):
            raise ConnectionError(answer.decode())
        await self._loop.sock_sendall(self._connection, b"BEGIN\r\n" + _call("Hello", "org.freedesktop.DBus"))
        for _ in range(2):  # the answer, and the signal that the connection has its name
            await self._read_message()

    async def _read_message(self) -> None:
        body, fields = _HEAD.unpack(await self._read(_HEAD.size))
        await self._read(fields + -fields % 8 + body)

    async def _read(self, length: int) -> bytes:
        taken = b""
        while len(taken) < length:
            piece = await self._loop.sock_recv(self._connection, length - len(taken))
            if not piece:
                raise EOFError("the bus has closed the connection")
            taken += piece
        return taken
