"""The sockets that the daemon writes to without waiting: syslog and the service manager's notification socket.

Both are datagram sockets in the world's work folder. The kernel stamps each datagram on arrival, so entries of the two come
into the journal in the order in which they were sent.
"""

from __future__ import annotations

import asyncio
import re
import socket
import struct
from pathlib import Path

from .journal import Journal

PRIORITIES = ["emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"]

_SYSLOG = re.compile(r"<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?([^:\[\]\s]*)(?:\[(\d+)\])?: ?", re.ASCII)
_LARGEST_DATAGRAM = 1 << 18
_RECEIVE_BUFFER = 8 << 20
_SO_TIMESTAMPNS = 35
_SCM_TIMESTAMPNS = 35


class Recorder:
    """Receives both sockets and keeps them drained: a full queue would make the daemon wait for us. As the log daemon it can be
    told not to."""

    def __init__(self, journal: Journal, folder: Path, loop: asyncio.AbstractEventLoop) -> None:
        self._journal = journal
        self._loop = loop
        self.path = folder / "log"
        self._hangs = False
        self._log: socket.socket | None = _bind(self.path)
        self._notify = _bind(folder / "notify")

    def begin(self) -> None:
        """Begin to receive (on the loop)."""
        for receiver in self._receivers():
            self._loop.add_reader(receiver.fileno(), self.drain)

    def stop(self) -> None:
        """Receive what is left, then close the sockets (on the loop)."""
        self._hangs = False
        self.drain()
        for receiver in self._receivers():
            self._loop.remove_reader(receiver.fileno())
            receiver.close()

    # What a log daemon may do (on the loop)

    def hang(self) -> None:
        """Take no line out of the queue any more."""
        self._hangs = True
        if self._log is not None:
            self._loop.remove_reader(self._log.fileno())

    def release(self) -> None:
        """Go on after that."""
        self._hangs = False
        self.begin()
        self.drain()

    def die(self) -> None:
        """End: what is in the queue is lost, the file stays, and nobody is behind it."""
        if self._log is not None:
            self._loop.remove_reader(self._log.fileno())
            self._log.close()
        self._log, self._hangs = None, False

    def start(self) -> None:
        """Be there again, with a socket of its own."""
        self.path.unlink(missing_ok=True)
        self._log = _bind(self.path)
        self.begin()

    def _receivers(self) -> list[socket.socket]:
        return [self._notify] if self._log is None else [self._log, self._notify]

    def drain(self) -> None:
        """Put everything that has arrived into the journal."""
        notifications = _receive_all(self._notify)
        lines = [] if self._log is None or self._hangs else _receive_all(self._log)
        for when, data in lines:
            while notifications and notifications[0][0] < when:
                self._add_notification(notifications.pop(0)[1])
            self._add_log(data)
        for _, data in notifications:
            self._add_notification(data)

    def _add_notification(self, data: bytes) -> None:
        self._journal.add("notify", text=data.decode(errors="surrogateescape"))

    def _add_log(self, data: bytes) -> None:
        text = data.decode(errors="surrogateescape")
        header = _SYSLOG.match(text)
        if header is None:
            self._journal.add("log", priority="none", text=text, ident="", pid=None)
            return
        pid = int(header[3]) if header[3] else None
        self._journal.add("log", priority=PRIORITIES[int(header[1]) & 7], text=text[header.end() :], ident=header[2], pid=pid)


def _bind(path: Path) -> socket.socket:
    receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
    receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, _RECEIVE_BUFFER)
    receiver.setsockopt(socket.SOL_SOCKET, _SO_TIMESTAMPNS, 1)
    receiver.bind(str(path))
    path.chmod(0o666)
    return receiver


def _receive_all(receiver: socket.socket) -> list[tuple[int, bytes]]:
    received: list[tuple[int, bytes]] = []
    while True:
        try:
            data, ancillary, _, _ = receiver.recvmsg(_LARGEST_DATAGRAM, socket.CMSG_SPACE(16))
        except BlockingIOError:
            return received
        when = 0
        for level, kind, payload in ancillary:
            if level == socket.SOL_SOCKET and kind == _SCM_TIMESTAMPNS:
                seconds, nanoseconds = struct.unpack("qq", payload)
                when = seconds * 1_000_000_000 + nanoseconds
        received.append((when, data))
