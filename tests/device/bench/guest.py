"""Commands in the machine, over the serial lines of its agents."""

from __future__ import annotations

import base64
import socket

from .deadline import COMMAND, Deadline


class CommandFailed(AssertionError):
    """A command ended with another status than 0."""


class Agent:
    """One agent: it runs one command after the other."""

    def __init__(self, line: socket.socket) -> None:
        self._line = line
        self._rest = b""
        self._number = 0

    def run(self, command: str, *, deadline: Deadline) -> tuple[int, str]:
        """Runs a shell command; its status and what it printed, standard error included."""
        self._number += 1
        name = f"{id(self):x}.{self._number}"
        self._line.sendall(f"{name} {base64.b64encode(command.encode()).decode()}\n".encode())
        while True:
            fields = self._read_line(command, deadline).split(" ")
            if fields[0] == name:
                return int(fields[1]), base64.b64decode(fields[2] if len(fields) > 2 else "").decode(errors="replace")

    def _read_line(self, command: str, deadline: Deadline) -> str:
        while b"\n" not in self._rest:
            self._line.settimeout(max(deadline.left, 0.001))
            try:
                part = self._line.recv(1 << 16)
            except TimeoutError:
                raise TimeoutError(f"no answer after {deadline.seconds:.0f} s to: {command}") from None
            if not part:
                raise ConnectionError(f"the machine ended during: {command}")
            self._rest += part
        line, self._rest = self._rest.split(b"\n", 1)
        return line.decode()


class Guest:
    """The shell of the machine."""

    def __init__(self, lines: dict[str, socket.socket]) -> None:
        self._agents = {name: Agent(line) for name, line in lines.items() if name.startswith("agent.")}

    def try_run(self, command: str, *, seconds: float = COMMAND, agent: int = 1) -> tuple[int, str]:
        """Runs a command; status and output."""
        return self._agents[f"agent.{agent}"].run(command, deadline=Deadline(seconds))

    def run(self, command: str, *, seconds: float = COMMAND, agent: int = 1) -> str:
        """Runs a command that must succeed; its output without the blanks at the end."""
        status, output = self.try_run(command, seconds=seconds, agent=agent)
        if status != 0:
            raise CommandFailed(f"status {status} of: {command}\n{output}")
        return output.rstrip()

    def wait_until(self, condition: str, *, seconds: float = COMMAND, agent: int = 1) -> str:
        """Waits until a shell command succeeds; its output.

        The machine asks itself again every fifth of a second of its own time: cheaper than asking from outside.
        """
        rounds = int(seconds * 5)
        script = (
            f"n=0; until out=$( ({condition}) 2>&1); do n=$((n+1)); [ $n -lt {rounds} ] || exit 97; sleep 0.2; done; "
            'echo "$out"'
        )
        status, output = self.try_run(script, seconds=seconds, agent=agent)
        if status != 0:
            raise TimeoutError(f"not so after {seconds:.0f} s: {condition}\n{output}")
        return output.rstrip()
