"""hostapd's control socket for `wlan0`: commands are answered, attached clients are sent events."""

from __future__ import annotations

import asyncio
import fcntl
import os
import shutil
import socket
import struct
import termios
from collections.abc import Awaitable, Callable
from pathlib import Path
from typing import Any

from .faults import Chatter, Delay, Faults, Hang
from .journal import DEADLINE, Journal
from .loop import LoopThread

_LARGEST_REQUEST = 8192
_LONGEST_READ = 2.0
"""Seconds for which an event that nobody reads holds up the next, where events are spaced."""
_LOOK_AGAIN = 0.02
_STATION = (
    "flags=[AUTH][ASSOC][AUTHORIZED][WMM][HT]\naid={aid}\ncapability=0x431\nlisten_interval=10\n"
    "supported_rates=02 04 0b 16 0c 12 18 24 30 48 60 6c\ntimeout_next=NULLFUNC POLL\n"
    "dot11RSNAStatsSTAAddress={mac}\ndot11RSNAStatsVersion=1\ndot11RSNAStatsSelectedPairwiseCipher=00-0f-ac-4\n"
    "dot11RSNAStatsTKIPLocalMICFailures=0\ndot11RSNAStatsTKIPRemoteMICFailures=0\nwpa=2\nAKMSuiteSelector=00-0f-ac-2\n"
    "hostapdWPAPTKState=11\nhostapdWPAPTKGroupState=0\nrx_packets=113\ntx_packets=98\nrx_bytes=11872\n"
    "tx_bytes=10310\ninactive_msec=1200\nsignal=-45\nconnected_time=23\n"
)


class Hostapd:
    """A running or dead hostapd. `on=` of a rule takes the whole command ("STA-NEXT 02:...")."""

    def __init__(
        self, loop: LoopThread, journal: Journal, catch_up: Callable[[], Awaitable[None]], run: Path, tmp: Path
    ) -> None:
        self._loop = loop
        self._journal = journal
        self._catch_up = catch_up
        self._folder = run / "hostapd"
        self._places = {"/tmp/": tmp, "/run/": run, "/var/run/": run}
        self._socket: socket.socket | None = None
        self._faults = Faults()
        self._released = asyncio.Event()
        self._tasks: set[asyncio.Task[None]] = set()
        self._attached: list[str] = []
        self._events: list[bytes] = []
        self._sender: asyncio.Task[None] | None = None
        self.stations: list[str] = []
        """Addresses of the associated stations, in hostapd's order: the latest first."""
        self._lingering: set[str] = set()
        """Those of them that have left."""
        self.on_event: list[Callable[[bytes], None]] = []
        """Called on the loop with each event, also when nobody is attached to hear it."""
        self.in_haste = False
        """Whether requests are answered without first having everything in the journal that came before them."""
        self.before_event: Callable[[], None] | None = None
        """Called before each event, on the caller's thread; None to send events as fast as possible."""
        self.spacing = 0.0
        """Seconds between the reading of an event and the next one: on the air nothing happens at the same instant."""

    # From any thread

    @property
    def running(self) -> bool:
        """Whether it answers."""
        return self._socket is not None

    @property
    def attached(self) -> int:
        """How many clients are attached for events."""
        return len(self._attached)

    @property
    def unread(self) -> int:
        """Bytes of events and answers that nobody has read yet."""
        return self._loop.call(self._unread)

    def start(self) -> None:
        """Come up: the socket appears, no station yet. Events of the start are gone before anyone can attach."""
        self._loop.call(self._start)

    def terminate(self) -> None:
        """End like after SIGTERM: the attached hear that each station leaves, AP-DISABLED and CTRL-EVENT-TERMINATING; then the
        folder is removed."""
        self._loop.call(self._terminate)

    def kill(self) -> None:
        """End like after SIGKILL: no event, and the socket file stays, but nobody listens."""
        self._loop.call(self._close)

    def wait_attached(self, count: int = 1, timeout: float = DEADLINE) -> None:
        """Wait until so many clients are attached."""
        self._journal.wait_until(lambda: self.attached >= count, f"{count} clients attached to hostapd", timeout)

    def event(self, text: str | bytes) -> None:
        """Send an event to the attached; the "<3>" in front is added unless the text brings its own "<"."""
        data = text.encode() if isinstance(text, str) else text
        self.datagram(data if data.startswith(b"<") else b"<3>" + data)

    def datagram(self, data: bytes) -> None:
        """Send exactly these bytes to the attached."""
        if self.before_event is not None and self._attached:
            self.before_event()
        self._loop.call(self._event, data)

    def enable(self) -> None:
        """Report the access point ready."""
        self.event("AP-ENABLED ")

    def disable(self) -> None:
        """Report the access point not ready, and that each station has left it."""
        self.event("AP-DISABLED ")
        joined = self._joined()
        self.stations.clear()
        for mac in joined:
            self.event(f"AP-STA-DISCONNECTED {mac}")

    def join(self, mac: str) -> None:
        """A station associates."""
        if mac not in self.stations:
            self.stations.insert(0, mac)
        self._lingering.discard(mac)
        self.event(f"AP-STA-CONNECTED {mac}")

    def leave(self, mac: str, *, linger: bool = True) -> None:
        """A station leaves. It lingers in the list, as it does for a while on the real one, unless told otherwise."""
        self._lingering.add(mac)
        if not linger and mac in self.stations:
            self.stations.remove(mac)
        self.event(f"AP-STA-DISCONNECTED {mac}")

    def refuse(self, command: str, *, on: str | None = None, times: int | None = None) -> None:
        """Answer "FAIL" to this command (its first word: "ATTACH", "STA-FIRST", ...)."""
        self.answer(command, b"FAIL\n", on=on, times=times)

    def answer(self, command: str, reply: str | bytes, *, on: str | None = None, times: int | None = None) -> None:
        """Answer exactly this to the command, for instance b"" or a truncated record."""
        self._faults.add(command, on, reply.encode() if isinstance(reply, str) else reply, times)

    def hang(self, command: str | None = None, *, on: str | None = None, times: int | None = None) -> None:
        """Do not answer the command until `release()`."""
        self._faults.add(command, on, Hang(), times)

    def slow(self, command: str | None, seconds: float, *, times: int | None = None) -> None:
        """Answer the command so many seconds later."""
        self._faults.add(command, None, Delay(seconds), times)

    def chatter(self, command: str, event: str, seconds: float, *, times: int | None = None) -> None:
        """Send the client this event again and again, so many seconds apart, instead of an answer, until `release()`."""
        self._faults.add(command, None, Chatter(f"<3>{event}".encode(), seconds), times)

    def release(self) -> None:
        """Answer what hangs."""

        def let_go() -> None:
            self._released.set()
            self._released = asyncio.Event()

        self._loop.call(let_go)

    def clear(self) -> None:
        """Forget all rules and answer what hangs."""
        self._faults.clear()
        self.release()

    # On the loop

    def end(self) -> None:
        """Give up everything in progress and close the socket."""
        for task in list(self._tasks):
            task.cancel()
        self._close()

    def _start(self) -> None:
        self._close()
        self._folder.mkdir(exist_ok=True)
        path = self._folder / "wlan0"
        path.unlink(missing_ok=True)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self._socket.bind(str(path))
        path.chmod(0o777)
        self._loop.asyncio.add_reader(self._socket.fileno(), self._receive)

    def _close(self) -> None:
        if self._sender is not None:
            self._sender.cancel()
            self._sender = None
        self._events.clear()
        self.stations.clear()
        self._lingering.clear()
        self._attached.clear()
        if self._socket is not None:
            self._loop.asyncio.remove_reader(self._socket.fileno())
            self._socket.close()
            self._socket = None
        self._journal.poke()

    def _terminate(self) -> None:
        if self._socket is not None:
            for mac in self._joined():
                self._send_to_attached(f"<3>AP-STA-DISCONNECTED {mac}".encode())
            self._send_to_attached(b"<3>AP-DISABLED ")
            self._send_to_attached(b"<3>CTRL-EVENT-TERMINATING ")
        self._close()
        shutil.rmtree(self._folder, ignore_errors=True)

    def _joined(self) -> list[str]:
        return [mac for mac in self.stations if mac not in self._lingering]

    def _outside(self, client: str) -> str | None:
        """Where the socket of a client in the sandbox is found from here."""
        for inside, outside in self._places.items():
            if client.startswith(inside):
                return str(outside / client[len(inside) :])
        return None

    def _send(self, client: str, data: bytes) -> bool:
        path = self._outside(client)
        if self._socket is None or path is None:
            return False
        try:
            self._socket.sendto(data, path)
        except BlockingIOError:
            return True  # the client does not read; hostapd drops the event as well
        except OSError:
            return False
        return True

    def _send_to_attached(self, data: bytes) -> None:
        for hook in self.on_event:
            hook(data)
        self._attached = [client for client in self._attached if self._send(client, data)]

    def _event(self, data: bytes) -> None:
        if not self.spacing:
            self._send_to_attached(data)
            return
        self._events.append(data)
        if self._sender is None:
            self._sender = self._loop.asyncio.create_task(self._send_spaced())

    async def _send_spaced(self) -> None:
        while self._events:
            self._send_to_attached(self._events.pop(0))
            until = asyncio.get_running_loop().time() + _LONGEST_READ
            while self._unread() and asyncio.get_running_loop().time() < until:
                await asyncio.sleep(_LOOK_AGAIN)
            await asyncio.sleep(self.spacing)
        self._sender = None

    def _unread(self) -> int:
        """Bytes sent that have not been read yet: of a unix socket the kernel counts them for the sender."""
        if self._socket is None:
            return 0
        return struct.unpack("i", fcntl.ioctl(self._socket, termios.TIOCOUTQ, bytes(4)))[0]

    def _receive(self) -> None:
        while self._socket is not None:
            try:
                data, client = self._socket.recvfrom(_LARGEST_REQUEST)
            except BlockingIOError:
                return
            task = self._loop.asyncio.create_task(self._serve(data.decode(errors="surrogateescape"), os.fsdecode(client or "")))
            self._tasks.add(task)
            task.add_done_callback(self._tasks.discard)

    async def _serve(self, request: str, client: str) -> None:
        server = self._socket
        if not self.in_haste:
            await self._catch_up()
        self._journal.add("hostapd", request=request)
        word = request.split(" ", 1)[0]
        action: Any = self._faults.take(word, (request,))
        if isinstance(action, Hang):
            await self._released.wait()
        elif isinstance(action, Delay):
            await asyncio.sleep(action.seconds)
        elif isinstance(action, Chatter):
            await self._chatter(action, client)
        if server is not self._socket:
            return  # died meanwhile
        if isinstance(action, bytes):
            self._send(client, action)
            return
        if word == "DETACH" and client not in self._attached:
            self._send(client, b"FAIL\n")
            return
        self._send(client, self._truth(word, request[len(word) + 1 :]))
        if word == "ATTACH" and client not in self._attached:
            self._attached.append(client)
        elif word == "DETACH" and client in self._attached:
            self._attached.remove(client)
        self._journal.poke()

    async def _chatter(self, chatter: Chatter, client: str) -> None:
        released = self._released
        while not released.is_set() and self._send(client, chatter.text):
            await asyncio.sleep(chatter.seconds)

    def _truth(self, word: str, argument: str) -> bytes:
        match word:
            case "ATTACH" | "DETACH":
                return b"OK\n"
            case "PING":
                return b"PONG\n"
            case "STA-FIRST":
                return self._record(0)
            case "STA-NEXT" if argument:
                mac = argument[:17]
                return self._record(self.stations.index(mac) + 1) if mac in self.stations else b"FAIL\n"
        return b"UNKNOWN COMMAND\n"

    def _record(self, index: int) -> bytes:
        if index >= len(self.stations):
            return b""
        mac = self.stations[index]
        return (mac + "\n" + _STATION.format(mac=mac, aid=index + 1)).encode()
