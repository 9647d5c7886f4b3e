"""The settings daemon on a bus of its own, with strace beside it to make a system call of its fail or kill it there.

The bus and the daemon are the real programs. A fault is planted while the daemon waits for its next request, so the n-th call of
a name means the n-th one from then on.
"""

from __future__ import annotations

import asyncio
import ctypes
import json
import os
import re
import signal
import socket
import subprocess
from collections import Counter
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType
from typing import Any

from dbus_next import Message, MessageType, Variant
from dbus_next.aio import MessageBus

SERVICE = "com.vantora.common.Settings1"
BASE = "/com/vantora/common/Settings1"
DEADLINE = 20

_BUS_CONFIGURATION = """<busconfig><type>session</type><listen>unix:path={socket}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy>
</busconfig>"""

_OF_THE_ALLOCATOR = {"brk", "futex", "madvise", "mmap", "mprotect", "munmap", "mremap"}
"""Made when the allocator or a sanitizer feels like it: no step of a write, and not the same twice."""

_PR_SET_PTRACER = 0x59616D61
_PR_SET_PDEATHSIG = 1
_ANYBODY = ctypes.c_ulong(-1)


@dataclass(frozen=True)
class Step:
    """One system call of a write: the `number`-th of its name."""

    name: str
    number: int


@dataclass(frozen=True)
class Answer:
    """What a request was answered. No error: it was acknowledged."""

    error: str | None

    @property
    def acknowledged(self) -> bool:
        return self.error is None

    @property
    def lost(self) -> bool:
        """Nobody can know: the daemon ended before it answered. The bus says so, or nobody does."""
        return self.error in (
            "org.freedesktop.DBus.Error.NoReply",
            "org.freedesktop.DBus.Error.ServiceUnknown",
            "org.freedesktop.DBus.Error.NameHasNoOwner",
        )

    @property
    def refused(self) -> bool:
        return not self.acknowledged and not self.lost


def _let_anybody_trace() -> None:
    """Where only a parent may trace, and end with the test. Runs in the child, before the program."""
    library = ctypes.CDLL(None)
    library.prctl(_PR_SET_PTRACER, _ANYBODY, 0, 0, 0)
    library.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


class TracedSettings:
    """The bus, the daemon and a client, in a folder of the test's: `async with TracedSettings(folder, build_dir) as settings`."""

    def __init__(self, folder: Path, build_dir: Path) -> None:
        self.file = folder / "state" / "settings.json"
        self._folder = folder
        self._program = build_dir / "vantora-settingsd"
        self._bus_socket = folder / "bus"
        self._ready = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._bus: subprocess.Popen[str] | None = None
        self._daemon: subprocess.Popen[bytes] | None = None
        self._client: MessageBus | None = None

    async def __aenter__(self) -> TracedSettings:
        self._ready.bind(str(self._folder / "notify"))
        self._ready.settimeout(DEADLINE)
        configuration = self._folder / "bus.conf"
        configuration.write_text(_BUS_CONFIGURATION.format(socket=self._bus_socket))
        self._bus = subprocess.Popen(
            ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile", "--print-address"],
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
            preexec_fn=_let_anybody_trace,
        )
        assert self._bus.stdout is not None and self._bus.stdout.readline(), "no bus"
        self._client = await MessageBus(bus_address=f"unix:path={self._bus_socket}").connect()
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        if self._client is not None:
            self._client.disconnect()
        self.kill()
        if self._bus is not None:
            self._bus.kill()
            self._bus.wait()
            assert self._bus.stdout is not None
            self._bus.stdout.close()
        self._ready.close()

    # The daemon

    def start_traced(self, fault: str) -> None:
        """Start the daemon with a fault planted where it deals with its file, and wait until it is ready."""
        log = self._folder / "trace"
        self.start("strace", "-D", "-o", str(log), "-P", str(self.file), "-e", fault)
        assert "(INJECTED)" in log.read_text()

    def start(self, *tracer: str) -> None:
        """Start the daemon, under a tracer that becomes a child of it if one is given, and wait until it is ready."""
        sanitizers = os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"  # which it cannot look for while it is traced
        environment = {
            **os.environ,
            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={self._bus_socket}",
            "NOTIFY_SOCKET": str(self._folder / "notify"),
            "ASAN_OPTIONS": sanitizers,
        }
        with (self._folder / "daemon.log").open("ab") as log:
            self._daemon = subprocess.Popen(
                [*tracer, self._program, "--state", self.file],
                env=environment,
                stdout=log,
                stderr=log,
                preexec_fn=_let_anybody_trace,
            )
        while (said := self._ready.recv(100)) != b"READY=1":
            assert said == b"STOPPING=1", said  # by the one before

    def wait(self) -> None:
        """Wait until the daemon has ended, of itself or of a fault."""
        assert self._daemon is not None
        self._daemon.wait(DEADLINE)

    @property
    def was_killed(self) -> bool:
        """Whether the daemon ended by SIGKILL."""
        return self._daemon is not None and self._daemon.poll() == -signal.SIGKILL

    def kill(self) -> None:
        """End the daemon as a power cut does."""
        if self._daemon is not None:
            self._daemon.kill()
            self._daemon.wait()

    def stop(self) -> None:
        """End the daemon as the service manager does."""
        assert self._daemon is not None
        self._daemon.terminate()
        assert self._daemon.wait(DEADLINE) == 0

    def restart(self) -> None:
        """Kill the daemon, if it still runs, and start it again."""
        self.kill()
        self.start()

    # Its client

    async def _call(self, path: str, interface: str, member: str, signature: str, body: list[Any]) -> Message:
        assert self._client is not None
        request = Message(destination=SERVICE, path=path, interface=interface, member=member, signature=signature, body=body)
        try:
            reply = await asyncio.wait_for(self._client.call(request), DEADLINE)
        except TimeoutError:
            log = self._folder / "trace"
            raise AssertionError(
                "no answer; the daemon's last calls:\n" + (log.read_text()[-3000:] if log.exists() else "")
            ) from None
        assert reply is not None
        return reply

    async def write(self, section: str, key: str, value: Variant) -> Answer:
        """Write a setting."""
        reply = await self._call(f"{BASE}/{section}", "org.freedesktop.DBus.Properties", "Set", "ssv", [SERVICE, key, value])
        return Answer(reply.error_name if reply.message_type is MessageType.ERROR else None)

    async def reset(self, section: str) -> Answer:
        """Put a section back to its defaults."""
        reply = await self._call(BASE, SERVICE, "ResetSection", "s", [section])
        return Answer(reply.error_name if reply.message_type is MessageType.ERROR else None)

    async def read(self, section: str, key: str) -> Any:
        """What the daemon says a setting is."""
        reply = await self._call(f"{BASE}/{section}", "org.freedesktop.DBus.Properties", "Get", "ss", [SERVICE, key])
        assert reply.message_type is MessageType.METHOD_RETURN, reply.error_name
        return reply.body[0].value

    async def read_unless_it_ends(self, section: str, key: str) -> Any:
        """What the daemon says a setting is; None when it ends instead."""
        reply = await self._call(f"{BASE}/{section}", "org.freedesktop.DBus.Properties", "Get", "ss", [SERVICE, key])
        if Answer(reply.error_name).lost:
            self.wait()
            return None
        return reply.body[0].value

    def stored(self, section: str, key: str, default: Any) -> Any:
        """What the file says a setting is."""
        if not self.file.exists():
            return default
        return json.loads(self.file.read_text()).get(section, {}).get(key, default)

    # The tracer

    def trace(self, *expressions: str) -> Tracer:
        """Follow the running daemon: `with settings.trace("inject=fsync:error=EIO:when=2") as tracer`."""
        assert self._daemon is not None
        return Tracer(self._daemon.pid, self._folder / "trace", expressions)


class Tracer:
    """strace on a process that waits for work, from the moment that it is attached."""

    def __init__(self, pid: int, log: Path, expressions: tuple[str, ...]) -> None:
        self._command = ["strace", "-p", str(pid), "-o", str(log), *(word for one in expressions for word in ("-e", one))]
        self._log = log

    def __enter__(self) -> Tracer:
        self._log.unlink(missing_ok=True)
        self._process = subprocess.Popen(self._command, stderr=subprocess.PIPE, stdout=subprocess.DEVNULL, text=True)
        assert self._process.stderr is not None
        first = self._process.stderr.readline()
        assert "attached" in first, first + self._process.stderr.read()
        return self

    def __exit__(self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None) -> None:
        self._process.send_signal(signal.SIGINT)
        self._process.communicate(timeout=DEADLINE)

    @property
    def hit(self) -> bool:
        """Whether an error was planted. To be asked when the tracer has gone."""
        return "(INJECTED)" in self._log.read_text()

    def steps(self) -> list[Step]:
        """Every system call up to the one that sent the answer. To be asked when the tracer has gone."""
        names = [match[1] for line in self._log.read_text().splitlines() if (match := re.match(r"(\w+)\(", line))]
        answered = max(index for index, name in enumerate(names) if name == "sendmsg")
        seen: Counter[str] = Counter()
        steps = []
        for name in names[: answered + 1]:
            seen[name] += 1
            if name not in _OF_THE_ALLOCATOR:
                steps.append(Step(name, seen[name]))
        return steps
