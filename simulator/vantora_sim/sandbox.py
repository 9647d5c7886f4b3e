"""The sandbox: namespaces and mounts in which the daemon finds the device's own paths, and programs run in it.

Inside: the host's files read-only; /run, /tmp, /etc, /dev, /proc and a network with `wlan0` and `eth0` of its own. What is
fake stays outside and is reached through sockets below /run, which is a folder of the world.
"""

from __future__ import annotations

import os
import shlex
import signal
import subprocess
import threading
import time
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path

from .journal import DEADLINE

ENVIRONMENT = {
    "PATH": "/run/sim/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
    "HOME": "/root",
    "LANG": "C.UTF-8",
    "XDG_RUNTIME_DIR": "/run/user/0",
    "DBUS_SESSION_BUS_ADDRESS": "unix:path=/run/user/0/bus",
}
"""What programs in the sandbox find in their environment."""

_PASSED_ON = ("ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "GCOV_PREFIX", "GCOV_PREFIX_STRIP")


class SandboxError(Exception):
    """The sandbox could not be made; the text says why."""


@dataclass(frozen=True)
class Completed:
    """How a program ended that was run to its end."""

    status: int
    stdout: str
    stderr: str


class Process:
    """A program running in the sandbox. Its output is collected in files and can be read at any time."""

    def __init__(
        self,
        name: str,
        command: Sequence[str],
        environment: Mapping[str, str],
        output: Path,
        ended: Callable[["Process"], None],
    ) -> None:
        self.name = name
        self._stdout = output.with_suffix(".out")
        self._stderr = output.with_suffix(".err")
        self._pid: int | None = None
        with open(self._stdout, "wb") as out, open(self._stderr, "wb") as err:
            # A process group of its own: what a terminal sends at Ctrl-C is meant for the program in front.
            self._enter = subprocess.Popen(
                command, env=dict(environment), stdin=subprocess.DEVNULL, stdout=out, stderr=err, process_group=0
            )
        self._ended = ended
        self._waiter = threading.Thread(target=self._wait, name=f"wait for {name}", daemon=True)
        self._waiter.start()

    def _wait(self) -> None:
        self._enter.wait()
        self._ended(self)

    @property
    def stdout(self) -> str:
        """What it has written to standard output so far."""
        return self._stdout.read_text(errors="surrogateescape")

    def stdout_since(self, position: int) -> bytes:
        """What it has written to standard output from this byte on."""
        with open(self._stdout, "rb") as out:
            out.seek(position)
            return out.read()

    @property
    def stderr(self) -> str:
        """What it has written to standard error so far."""
        return self._stderr.read_text(errors="surrogateescape")

    @property
    def running(self) -> bool:
        """Whether it has not ended yet."""
        return self._enter.poll() is None

    @property
    def status(self) -> int | None:
        """Exit status, or minus the number of the signal that killed it; None while it runs."""
        return self._enter.poll()

    @property
    def pid(self) -> int:
        """Process id as seen from outside the sandbox, for instance for files of /proc."""
        children = Path(f"/proc/{self._enter.pid}/task/{self._enter.pid}/children")
        deadline = time.monotonic() + DEADLINE
        while self._pid is None:
            try:
                found = children.read_text(encoding="utf-8").split()
            except OSError:
                found = []
            if found:
                self._pid = int(found[0])
            elif not self.running:
                raise ProcessLookupError(f"{self.name} has ended with status {self.status}")
            elif time.monotonic() > deadline:
                raise TimeoutError(f"{self.name} does not start")
            else:
                time.sleep(0.0005)
        return self._pid

    @property
    def stopped(self) -> bool:
        """Whether a signal has stopped it, and none has let it go on."""
        try:
            return Path(f"/proc/{self.pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()[0] == "T"
        except (OSError, IndexError):
            return False  # it has just ended

    def waits_in(self, calls: Sequence[int]) -> bool:
        """Whether one of the threads it has started sleeps in one of these system calls (numbers).

        A thread that has just been woken may seem to sleep until its processor has taken it up.
        """
        for thread in Path(f"/proc/{self.pid}/task").iterdir():
            if thread.name == str(self.pid):
                continue
            try:
                word = (thread / "syscall").read_text().split()[0]
            except (OSError, IndexError):
                continue  # the thread has just ended
            if word.isdigit() and int(word) in calls:
                return True
        return False

    def send_signal(self, number: int) -> None:
        """Send it a signal; nothing happens when it has ended."""
        try:
            os.kill(self.pid, number)
        except ProcessLookupError:
            pass
        if number != signal.SIGSTOP:
            self.wake_keeper()

    def wake_keeper(self) -> None:
        """nsenter, which waits for the program, stops itself when the program is stopped, and would then not see its end."""
        self._enter.send_signal(signal.SIGCONT)

    def wait(self, timeout: float = DEADLINE) -> int:
        """Wait for its end and return the status."""
        try:
            status = self._enter.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.name} still runs after {timeout:g} s") from None
        self._waiter.join()
        return status

    def stop(self, number: int = signal.SIGTERM, timeout: float = DEADLINE) -> int:
        """Send it a signal (SIGTERM) and wait for its end."""
        self.send_signal(number)
        return self.wait(timeout)


class Sandbox:
    """One sandbox, alive from construction to `close()`, or until this process dies in whatever way."""

    def __init__(
        self, work: Path, tools: Path, exposed: Sequence[Path] = (), ended: Callable[[Process], None] = lambda process: None
    ) -> None:
        self._work = work
        self._ended = ended
        self._processes: list[Process] = []
        self._outputs = work / "output"
        self._outputs.mkdir()
        self._keeper = subprocess.Popen(
            [tools / "vantora-sim-sandbox", work, *exposed],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            process_group=0,
        )
        self._init: int | None = None

    @property
    def init(self) -> int:
        """Process id of the sandbox's init as seen from outside; waits until the sandbox is complete."""
        if self._init is None:
            assert self._keeper.stdout and self._keeper.stderr
            line = self._keeper.stdout.readline()
            if not line:
                raise SandboxError(self._keeper.stderr.read().decode().strip() or "the sandbox could not be made")
            self._init = int(line)
        return self._init

    def wait_complete(self) -> None:
        """Wait until whatever is started or looked up in the sandbox finds it as it stays."""
        assert self.init

    def path(self, inside: str | Path) -> Path:
        """Where a path of the sandbox is reached from outside, to read, write or remove the file."""
        return Path(f"/proc/{self.init}/root") / str(inside).lstrip("/")

    def start(self, argv: Sequence[str | Path], environment: Mapping[str, str | None] | None = None) -> Process:
        """Start a program in the sandbox. `environment` adds to ENVIRONMENT, and takes away where a value is None."""
        full: dict[str, str] = dict(ENVIRONMENT)
        full.update({name: os.environ[name] for name in _PASSED_ON if name in os.environ})
        for name, value in (environment or {}).items():
            if value is None:
                full.pop(name, None)
            else:
                full[name] = value
        words = [str(word) for word in argv]
        name = Path(words[0]).name
        output = self._outputs / f"{len(self._processes)}-{name}"
        process = Process(name, [*self._enter_command(), *words], full, output, self._ended)
        self._processes.append(process)
        return process

    def run(
        self, argv: Sequence[str | Path], environment: Mapping[str, str | None] | None = None, timeout: float = DEADLINE
    ) -> Completed:
        """Run a program in the sandbox to its end."""
        process = self.start(argv, environment)
        status = process.wait(timeout)
        return Completed(status, process.stdout, process.stderr)

    def sh(self, script: str, timeout: float = DEADLINE) -> Completed:
        """Run a shell script in the sandbox to its end."""
        return self.run(["/bin/sh", "-c", script], timeout=timeout)

    def entrance(self, program: Path) -> str:
        """A shell script that becomes a program in the sandbox, with the arguments that it is given."""
        settings = [f"{name}={value}" for name, value in ENVIRONMENT.items()]
        surroundings = ["/usr/bin/env", "--unset=DBUS_SYSTEM_BUS_ADDRESS", *settings]
        return "#!/bin/sh\nexec " + shlex.join([*self._enter_command(), *surroundings, str(program)]) + ' "$@"\n'

    def close(self) -> None:
        """End everything in it."""
        assert self._keeper.stdin and self._keeper.stdout and self._keeper.stderr
        self._keeper.stdin.close()
        self._keeper.wait()
        self._keeper.stdout.close()
        self._keeper.stderr.close()
        for process in self._processes:
            process.wake_keeper()
            process.wait()

    def _enter_command(self) -> list[str]:
        user = [] if os.geteuid() == 0 else ["--user", "--preserve-credentials"]
        # The namespace's own root is the machine's, which is another one where all of this runs in a chroot.
        mounts = ["--mount", "--root", "--wdns=/"]
        return ["/usr/bin/nsenter", f"--target={self.init}", *user, *mounts, "--net", "--pid", "--ipc", "--uts", "--"]
