"""Running `vantora-wifi` against a world: on pipes, on a terminal of its own, or each test on both (fixture `way`)."""

from __future__ import annotations

import fcntl
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import threading
import time
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any

from ignored_signals import forget_ignored_signals
from vantora_sim import DEADLINE, World

DONE, REFUSED, USAGE, UNREACHABLE, TIMED_OUT = range(5)
"""The exit statuses."""
DAEMON_LEFT = "vantora-wifi: the daemon has left the bus in the middle of this\n"
"""What a client says whose daemon dies while it is at work."""

COMMANDS = [
    ["status"],
    ["on"],
    ["off"],
    ["mode", "host"],
    ["band", "5"],
    ["ssid", "x"],
    ["scan"],
    ["connect", "x", "--open"],
    ["disconnect"],
    ["monitor"],
]
"""Each sub-command, as it needs nothing else."""


@dataclass(frozen=True)
class Ended:
    """How a client ended that ran on pipes."""

    status: int
    stdout: str
    stderr: str

    @property
    def objects(self) -> list[dict[str, Any]]:
        """The JSON objects on standard output; a line that is none fails here."""
        return [json.loads(line) for line in self.stdout.splitlines()]


def environment(world: World | None, **changes: str | None) -> dict[str, str]:
    """What the client finds in its environment: the world's bus, a UTF-8 locale, and the changes (None removes)."""
    address = world.user_bus.address if world is not None else "unix:path=/nonexistent/bus"
    full: dict[str, str | None] = {
        "PATH": "/usr/bin:/bin",
        "LC_ALL": "C.UTF-8",
        "TERM": "xterm-256color",
        "DBUS_SESSION_BUS_ADDRESS": address,
        **{name: os.environ.get(name) for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS")},
        **changes,
    }
    return {name: value for name, value in full.items() if value is not None}


def program(world: World) -> str:
    """The client's executable."""
    return str(world.build / "vantora-wifi")


def run(world: World, *arguments: str | bytes, stdin: str = "", **changes: str | None) -> Ended:
    """Run the client on pipes to its end."""
    completed = subprocess.run(
        [program(world), *arguments],
        env=environment(world, **changes),
        input=stdin.encode(),
        capture_output=True,
        timeout=90,
        check=False,
    )
    return Ended(completed.returncode, completed.stdout.decode("utf-8"), completed.stderr.decode("utf-8"))


def _begin_on_terminal() -> None:
    """The new session's terminal is standard input."""
    forget_ignored_signals()
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)


class Running:
    """A client in the background. `wait_for` reads what it writes as it comes."""

    def __init__(
        self,
        command: Sequence[str | bytes],
        full_environment: Mapping[str, str],
        *,
        terminal: bool = False,
        stdin: str | None = None,
    ) -> None:
        """`stdin` is what a client on a pipe finds on standard input."""
        self._text = b""
        self._more = threading.Condition()
        if terminal:
            self._output, inner = pty.openpty()
            self._process = subprocess.Popen(
                command,
                env=dict(full_environment),
                stdin=inner,
                stdout=inner,
                stderr=inner,
                start_new_session=True,
                preexec_fn=_begin_on_terminal,
            )
            os.close(inner)
        else:
            self._process = subprocess.Popen(
                command,
                env=dict(full_environment),
                stdin=subprocess.DEVNULL if stdin is None else subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                process_group=0,
                preexec_fn=forget_ignored_signals,
            )
            if stdin is not None:
                assert self._process.stdin
                self._process.stdin.write(stdin.encode())
                self._process.stdin.close()
            assert self._process.stdout
            self._output = os.dup(self._process.stdout.fileno())
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self) -> None:
        """Collect output until nobody can write any more; a terminal says so by an error."""
        while True:
            try:
                ready, _, _ = select.select([self._output], [], [], 0.2)
                part = os.read(self._output, 65536) if ready else None
            except OSError:
                part = b""
            with self._more:
                if part is not None:
                    self._text += part
                self._more.notify_all()
            if part == b"":
                return

    @property
    def text(self) -> str:
        """Everything written so far."""
        with self._more:
            return self._text.decode("utf-8", "replace")

    @property
    def plain(self) -> str:
        """The same without what a terminal adds: the line ends of its own, and the client's colours."""
        return _plain(self.text)

    def wait_until(self, condition: Callable[[str], Any], what: str, timeout: float = DEADLINE) -> Any:
        """Wait until a condition on the text holds, and return what it yields."""
        deadline = time.monotonic() + timeout
        with self._more:
            while not (found := condition(self._text.decode("utf-8", "replace"))):
                left = deadline - time.monotonic()
                assert left > 0, f"no {what} in what the client wrote:\n{self._text.decode('utf-8', 'replace')}"
                self._more.wait(left)
        return found

    def wait_for(self, pattern: str, count: int = 1) -> None:
        """Wait until a regular expression is found in the text so many times."""
        self.wait_until(lambda text: len(re.findall(pattern, text)) >= count, repr(pattern))

    def type(self, text: str) -> None:
        """Type on its terminal."""
        os.write(self._output, text.encode())

    def resize(self, rows: int, columns: int) -> None:
        """Give its terminal another size."""
        fcntl.ioctl(self._output, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def echoes(self) -> bool:
        """Whether its terminal shows what is typed."""
        return bool(termios.tcgetattr(self._output)[3] & termios.ECHO)

    def end(self, timeout: float = DEADLINE) -> int:
        """Wait for its end and return the status, below 0 for a signal."""
        status = self._process.wait(timeout)
        self._reader.join(timeout)
        return status

    @property
    def pid(self) -> int:
        """Its process id."""
        return self._process.pid

    @property
    def running(self) -> bool:
        """Whether it has not ended."""
        return self._process.poll() is None

    def send_signal(self, number: int) -> None:
        """Send it a signal."""
        self._process.send_signal(number)

    def close(self) -> None:
        """End it, whatever it does."""
        if self.running:
            self._process.send_signal(signal.SIGKILL)
            self._process.wait()
        self._reader.join()
        os.close(self._output)
        if self._process.stdout:
            self._process.stdout.close()

    def __enter__(self) -> "Running":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def start(world: World, *arguments: str, **changes: str | None) -> Running:
    """Start the client on a pipe."""
    return Running([program(world), *arguments], environment(world, **changes))


def on_terminal(world: World, *arguments: str, **changes: str | None) -> Running:
    """Start the client on a terminal of its own."""
    return Running([program(world), *arguments], environment(world, **changes), terminal=True)


def kill_daemon(world: World) -> None:
    """The daemon dies, whatever it is doing."""
    assert world.daemon
    world.daemon.send_signal(signal.SIGKILL)
    world.daemon.wait()


def ends_with_the_daemon(world: World, client: Running) -> str:
    """Kill the daemon in the middle of what a client does: it ends with 3. Returns what it had to say."""
    kill_daemon(world)
    assert client.end() == UNREACHABLE
    return client.plain


def objects_in(text: str) -> list[dict[str, Any]]:
    """The JSON objects on the complete lines of a text."""
    return [json.loads(line) for line in text.splitlines(keepends=True) if line.endswith("\n")]


def _plain(text: str) -> str:
    """A text as it would be on a pipe: no colours (other escape sequences stay), and a terminal's line ends undone."""
    return re.sub(r"\x1b\[[0-9;]*m", "", text).replace("\r\n", "\n")


@dataclass(frozen=True)
class Way:
    """What a client's standard streams are: three pipes, or one terminal."""

    terminal: bool

    def start(self, world: World, *arguments: str | bytes, stdin: str | None = None, **changes: str | None) -> Running:
        """Start the client; what it finds on standard input is for pipes only."""
        return Running([program(world), *arguments], environment(world, **changes), terminal=self.terminal, stdin=stdin)

    def run(self, world: World, *arguments: str | bytes, **changes: str | None) -> Ended:
        """Run the client to its end. A terminal is one stream: everything is in `stdout` then, without the colours."""
        if not self.terminal:
            return run(world, *arguments, **changes)
        with self.start(world, *arguments, **changes) as client:
            return Ended(client.end(90), client.plain, "")

    def ended(self, status: int, stdout: str = "", stderr: str = "") -> Ended:
        """What `run` returns for a client that ended like this."""
        return Ended(status, stdout + stderr, "") if self.terminal else Ended(status, stdout, stderr)

    def connect(self, world: World, ssid: str, passphrase: str, *options: str) -> Running:
        """Start `connect` and give it the passphrase as one does here: at the prompt, or through standard input."""
        if not self.terminal:
            return self.start(world, "connect", ssid, "--passphrase-stdin", *options, stdin=passphrase + "\n")
        client = self.start(world, "connect", ssid, *options)
        client.wait_for(re.escape(self.prompt(ssid).rstrip("\n")) + "$")
        client.type(passphrase + "\n")
        return client

    def prompt(self, ssid: str) -> str:
        """What stands above everything else that such a `connect` shows."""
        return f'Passphrase for "{ssid}": \n' if self.terminal else ""

    def __str__(self) -> str:
        return "terminal" if self.terminal else "pipe"


PIPE, TERMINAL = Way(False), Way(True)
