"""The commands of the device that the daemon runs through the shell.

In the sandbox they are one small program under many names, which asks here what to do. Each answers truthfully from the
state of the radio (`ip` is the real one), unless a test tells it otherwise.
"""

from __future__ import annotations

import asyncio
import hashlib
import shutil
import struct
from collections.abc import Awaitable, Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from .faults import Delay, Faults, Hang
from .journal import Journal
from .loop import LoopThread
from .radio import Radio

NAMES = ("rfkill", "iw", "ip", "killall", "wpa_cli", "wpa_passphrase")


@dataclass(frozen=True)
class Output:
    """Print this and exit."""

    stdout: bytes = b""
    status: int = 0
    stderr: bytes = b""


@dataclass(frozen=True)
class Killed:
    """Die of this signal."""

    signal: int


class RealProgram:
    """Become the program of this name that is installed on the machine."""


class Tool:
    """One command. Rules with `on=` fit when the text stands in its arguments ("unblock wlan")."""

    def __init__(self, name: str, truth: Callable[[list[str]], Output | RealProgram], owner: "Tools") -> None:
        self.name = name
        self._truth = truth
        self._owner = owner
        self._faults = Faults()

    def fail(self, status: int = 1, *, on: str | None = None, times: int | None = None, stderr: str = "") -> None:
        """Exit with this status and no output."""
        self._add(on, Output(b"", status, stderr.encode()), times)

    def output(self, stdout: str | bytes, status: int = 0, *, on: str | None = None, times: int | None = None) -> None:
        """Print this instead of the truth."""
        self._add(on, Output(stdout.encode() if isinstance(stdout, str) else stdout, status), times)

    def die(self, signal: int, *, on: str | None = None, times: int | None = None) -> None:
        """End by a signal."""
        self._add(on, Killed(signal), times)

    def hang(self, *, on: str | None = None, times: int | None = None) -> None:
        """Do not end until `release()`; then do what is true."""
        self._add(on, Hang(), times)

    def slow(self, seconds: float, *, on: str | None = None, times: int | None = None) -> None:
        """Do what is true, but so many seconds later."""
        self._add(on, Delay(seconds), times)

    def real(self, *, on: str | None = None, times: int | None = None) -> None:
        """Run the real program of this machine."""
        self._add(on, RealProgram(), times)

    def clear(self) -> None:
        """Forget all rules and let go what hangs."""
        self._faults.clear()
        self.release()

    def release(self) -> None:
        """Let the commands that hang go on."""
        self._owner.release()

    def _add(self, on: str | None, action: Any, times: int | None) -> None:
        self._faults.add(self.name, on, action, times)

    async def act(self, arguments: list[str]) -> Output | Killed | RealProgram:
        """What this run of the command shall do (on the loop)."""
        words = [
            " ".join(arguments[first:last]) for first in range(len(arguments)) for last in range(first + 1, len(arguments) + 1)
        ]
        action = self._faults.take(self.name, tuple(words))
        if isinstance(action, Hang):
            await self._owner.released.wait()
        elif isinstance(action, Delay):
            await asyncio.sleep(action.seconds)
        elif action is not None:
            chosen: Output | Killed | RealProgram = action
            return chosen
        return self._truth(arguments)


class Tools:
    """All commands, by name: `world.tools.rfkill.fail(times=2)`, `world.tools["iw"].output("...")`."""

    def __init__(self, loop: LoopThread, journal: Journal, catch_up: Callable[[], Awaitable[None]], radio: Radio) -> None:
        self._loop = loop
        self._journal = journal
        self._catch_up = catch_up
        self._radio = radio
        self._server: asyncio.AbstractServer | None = None
        self._connections: set[asyncio.Task[Any]] = set()
        self.released = asyncio.Event()
        truths = {
            "rfkill": self._rfkill,
            "iw": self._iw,
            "ip": lambda arguments: RealProgram(),
            "killall": self._killall,
            "wpa_cli": self._wpa_cli,
            "wpa_passphrase": self._wpa_passphrase,
        }
        self._tools = {name: Tool(name, truths[name], self) for name in NAMES}

    def __getitem__(self, name: str) -> Tool:
        return self._tools[name]

    def __getattr__(self, name: str) -> Tool:
        try:
            return self.__dict__["_tools"][name]
        except KeyError:
            raise AttributeError(name) from None

    def clear(self) -> None:
        """Forget all rules of all commands and let go what hangs."""
        for tool in self._tools.values():
            tool.clear()

    def release(self) -> None:
        """Let all commands that hang go on."""

        def let_go() -> None:
            self.released.set()
            self.released = asyncio.Event()

        self._loop.call(let_go)

    def install(self, folder: Path, program: Path) -> None:
        """Put the commands into a folder."""
        folder.mkdir()
        shutil.copy(program, folder / program.name)
        for name in NAMES:
            (folder / name).symlink_to(program.name)

    async def open(self, path: Path) -> None:
        """Begin to answer on this socket."""
        self._server = await asyncio.start_unix_server(self._serve, path, backlog=100)
        path.chmod(0o666)

    async def close(self) -> None:
        """Stop answering; commands still waiting end with a failure."""
        if self._server is not None:
            self._server.close()
        for task in list(self._connections):
            task.cancel()
        await asyncio.gather(*self._connections, return_exceptions=True)

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        task = asyncio.current_task()
        assert task is not None
        self._connections.add(task)
        try:
            (size,) = struct.unpack("=I", await reader.readexactly(4))
            request = await reader.readexactly(size)
            argv = [word.decode(errors="surrogateescape") for word in request.split(b"\0")[:-1]]
            await self._catch_up()
            self._journal.add("command", line=" ".join(argv), argv=argv)
            writer.write(_order(await self._tools[argv[0]].act(argv[1:])))
            await writer.drain()
        except (asyncio.CancelledError, asyncio.IncompleteReadError, ConnectionError):
            pass  # the command was killed, or the world ends
        finally:
            self._connections.discard(task)
            writer.close()

    # The truth

    def _rfkill(self, arguments: list[str]) -> Output:
        match arguments:
            case ["--version"]:
                return Output(b"rfkill from util-linux 2.38.1\n")
            case ["list", "wlan" | "wifi" | "all"] | ["list"]:
                if not self._radio.present:
                    return Output()
                blocked = {True: "yes", False: "no"}
                return Output(
                    (
                        f"0: phy0: Wireless LAN\n\tSoft blocked: {blocked[self._radio.soft_blocked]}\n"
                        f"\tHard blocked: {blocked[self._radio.hard_blocked]}\n"
                    ).encode()
                )
            case ["block", "wlan" | "wifi" | "all"]:
                self._radio.block(soft=True)
                return Output()
            case ["unblock", "wlan" | "wifi" | "all"]:
                self._radio.block(soft=False)
                return Output()
        return Output(b"", 1, b"rfkill: invalid arguments\n")

    def _iw(self, arguments: list[str]) -> Output:
        match arguments:
            case ["dev", "wlan0", "info"] | ["wlan0", "info"]:
                return self._interface()
            case ["--version"]:
                return Output(b"iw version 5.19\n")
            case ["list"]:
                return Output(_radio_description(self._radio) if self._radio.present else b"")
            case ["reg", "get"]:
                return Output(f"global\ncountry {self._radio.country}: DFS-UNSET\n".encode())
            case ["dev"] if self._radio.present:
                return Output(f"phy#0\n\tInterface wlan0\n\t\tifindex 3\n\t\taddr {self._radio.mac}\n".encode())
            case ["dev"]:
                return Output()
        return Output(b"", 1, b"Usage:\tiw [options] command\n")

    def _interface(self) -> Output:
        if not self._radio.present:
            return Output(b"", 237, b"command failed: No such device (-19)\n")
        radio = self._radio
        lines = [b"Interface wlan0", b"\tifindex 3", b"\twdev 0x1", f"\taddr {radio.mac}".encode()]
        ssid = radio.ap_ssid if radio.interface_type == "AP" else radio.station_ssid
        if ssid:
            lines.append(b"\tssid " + printable(ssid))
        lines += [f"\ttype {radio.interface_type}".encode(), b"\twiphy 0"]
        if ssid:
            lines.append(
                f"\tchannel {channel(radio.frequency)} ({radio.frequency} MHz), width: 20 MHz (no HT), "
                f"center1: {radio.frequency} MHz".encode()
            )
        if radio.tx_power is not None:
            lines.append(f"\ttxpower {radio.tx_power} dBm".encode())
        return Output(b"\n".join(lines) + b"\n")

    def _killall(self, arguments: list[str]) -> Output:
        return Output(b"", 1, f"{arguments[-1] if arguments else ''}: no process found\n".encode())

    def _wpa_cli(self, arguments: list[str]) -> Output:
        if arguments == ["-v"]:
            return Output(b"wpa_cli v2.10\n")
        if not self._radio.station_running:
            return Output(b"", 255, b"Failed to connect to non-global ctrl_ifname: (nil)  error: No such file or directory\n")
        if arguments != ["status"]:
            return Output(b"Selected interface 'wlan0'\nUNKNOWN COMMAND\n")
        lines = [b"Selected interface 'wlan0'"]
        if self._radio.station_ssid is not None:
            lines += [
                f"bssid={self._radio.station_bssid}".encode(),
                f"freq={self._radio.frequency}".encode(),
                b"ssid=" + printable(self._radio.station_ssid),
                b"id=0",
                b"mode=station",
                b"pairwise_cipher=CCMP",
                b"group_cipher=CCMP",
                b"key_mgmt=WPA2-PSK",
            ]
        lines += [
            f"wpa_state={self._radio.station_state}".encode(),
            f"address={self._radio.mac}".encode(),
            b"uuid=5c1e6d0e-7e4d-5b43-9a8f-3f0c2d6a1b77",
        ]
        return Output(b"\n".join(lines) + b"\n")

    def _wpa_passphrase(self, arguments: list[str]) -> Output:
        if len(arguments) != 2:
            return Output(b"usage: wpa_passphrase <ssid> [passphrase]\n", 1)
        ssid, passphrase = (argument.encode(errors="surrogateescape") for argument in arguments)
        if not 8 <= len(passphrase) <= 63:
            return Output(b"Passphrase must be 8..63 characters\n", 1)
        key = hashlib.pbkdf2_hmac("sha1", passphrase, ssid, 4096, 32).hex().encode()
        return Output(b'network={\n\tssid="' + ssid + b'"\n\t#psk="' + passphrase + b'"\n\tpsk=' + key + b"\n}\n")


def channel(frequency: int) -> int:
    """The channel at this frequency in MHz."""
    if frequency == 2484:
        return 14
    return (frequency - 2407) // 5 if frequency < 5000 else (frequency - 5000) // 5


def _radio_description(radio: Radio) -> bytes:
    """As much of `iw list` as says what the radio can be, and where."""
    frequencies = {"2.4": (2412, 2437, 2462), "5": (5180, 5200)}
    lines = ["Wiphy phy0", "\twiphy index: 0", "\tSupported interface modes:", "\t\t * managed"]
    lines += ["\t\t * AP"] if radio.can_be_access_point else []
    for number, band in enumerate(radio.bands, start=1):
        lines += [f"\tBand {number}:", "\t\tFrequencies:"]
        lines += [f"\t\t\t* {mhz} MHz [{channel(mhz)}] (20.0 dBm)" for mhz in frequencies[band]]
    return ("\n".join(lines) + "\n").encode()


def printable(name: bytes) -> bytes:
    """A network name as the wireless tools print it: one line of ASCII with escapes for the rest."""
    special = {0x22: b'\\"', 0x5C: b"\\\\", 0x1B: b"\\e", 0x0A: b"\\n", 0x0D: b"\\r", 0x09: b"\\t"}
    return b"".join(special.get(byte) or (bytes([byte]) if 32 <= byte <= 126 else f"\\x{byte:02x}".encode()) for byte in name)


def _order(action: Output | Killed | RealProgram) -> bytes:
    """The answer as the program in the sandbox reads it."""
    if isinstance(action, RealProgram):
        return b"x" + struct.pack("=I", 0)
    if isinstance(action, Killed):
        return b"k" + struct.pack("=I", action.signal)
    return (
        b"r"
        + struct.pack("=II", action.status, len(action.stdout))
        + action.stdout
        + struct.pack("=I", len(action.stderr))
        + action.stderr
    )
