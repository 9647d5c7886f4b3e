"""A soak: the unmodified daemon asked by many clients at once while things happen around it, and looked at again and again."""

from __future__ import annotations

import subprocess
import time
from collections import Counter
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path

from vantora_sim import World
from vantora_sim.hostapd_conf import read_hostapd_conf

from . import footprint
from .events import Events
from .footprint import Footprint

MEMORY_BOUND = 256
"""KiB that private dirty memory may grow by after the first twentieth of the run."""
WARM_UP = 0.05


@dataclass(frozen=True)
class Plan:
    """How much is asked by how many, and how often the daemon is looked at."""

    requests: int = 100_000
    events: int = 10_000
    clients: int = 20
    samples: int = 100
    turns: int = 21
    """Host and Client mode by turns, beginning and ending with Host."""
    judges_memory: bool = True
    """Not for a build with sanitizers, which keep what the daemon has freed."""

    @property
    def step(self) -> int:
        """So many answers for each event."""
        return max(1, self.requests // self.events)


@dataclass(frozen=True)
class Sample:
    """The daemon at rest in the middle of the run."""

    answered: int
    seconds: float
    mode: str
    footprint: Footprint


@dataclass
class Outcome:
    """Everything a run has shown."""

    plan: Plan
    samples: list[Sample] = field(default_factory=list)
    answers: list[tuple[str, str, int]] = field(default_factory=list)
    """Kind of request, answer, count."""
    wrong_answers: int = 0
    events: Counter[str] = field(default_factory=Counter)
    announced: Counter[str] = field(default_factory=Counter)
    state: dict[str, tuple[object, object]] = field(default_factory=dict)
    """What was checked at the end: name, then what it is and what it should be."""
    exit_status: int | None = None
    seconds: float = 0.0

    @property
    def answered(self) -> int:
        """How many requests were answered at all."""
        return sum(count for _, _, count in self.answers)

    def in_mode(self, mode: str) -> list[Footprint]:
        """The samples of one mode, in order: the modes need different threads and descriptors."""
        return [sample.footprint for sample in self.samples if sample.mode == mode]

    def settled(self) -> list[Footprint]:
        """The samples after the warm-up."""
        return [sample.footprint for sample in self.samples if sample.answered >= WARM_UP * self.plan.requests]

    def faults(self) -> list[str]:
        """What is not as it has to be; empty when all is well."""
        found: list[str] = []
        if self.answered != self.plan.requests:
            found.append(f"{self.plan.requests - self.answered} requests were not answered")
        if self.wrong_answers:
            found.append(f"{self.wrong_answers} answers are not documented")
        for mode in ("Host", "Client"):
            counts = {(sample.descriptors, sample.threads) for sample in self.in_mode(mode)}
            if len(counts) != 1:
                found.append(f"descriptors and threads in {mode} mode are not always the same: {sorted(counts)}")
        memory = [sample.private_dirty for sample in self.settled()]
        growth = max(memory) - memory[0]
        if self.plan.judges_memory and growth > MEMORY_BOUND:
            found.append(f"private dirty memory grew by {growth} KiB")
        found += [f"{name} is {is_!r} instead of {should!r}" for name, (is_, should) in self.state.items() if is_ != should]
        if self.exit_status != 0:
            found.append(f"the daemon ended with status {self.exit_status}")
        return found


class LoadClient:
    """The program that asks. It waits for orders between two samples, so that the daemon can rest."""

    def __init__(self, program: Path, address: str, plan: Plan) -> None:
        self._process = subprocess.Popen(
            [program, address, str(plan.clients), str(plan.step)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            bufsize=1,
        )
        assert self._process.stdin and self._process.stdout
        self._orders, self._output = self._process.stdin, self._process.stdout

    def send(self, requests: int, each_step: Callable[[], None]) -> None:
        """Have so many requests sent; returns when all are answered, and `each_step` was called after each step of answers."""
        print(requests, file=self._orders, flush=True)
        for line in self._output:
            if line == "done\n":
                return
            each_step()
        raise AssertionError("the load client has ended")

    def finish(self) -> tuple[list[tuple[str, str, int]], int]:
        """Let it end. Returns what was answered how often, and how many answers were wrong."""
        self._orders.close()
        answers: list[tuple[str, str, int]] = []
        wrong = -1
        for line in self._output:
            match line.rstrip("\n").split("\t"):
                case ["answer", kind, answer, count]:
                    answers.append((kind, answer, int(count)))
                case ["wrong", count]:
                    wrong = int(count)
        self._process.wait(20)
        return answers, wrong

    def kill(self) -> None:
        """End it whatever it does."""
        self._process.kill()
        self._process.wait()
        self._output.close()
        self._orders.close()


@contextmanager
def load_client(program: Path, address: str, plan: Plan) -> Iterator[LoadClient]:
    """A load client that does not outlive the block."""
    client = LoadClient(program, address, plan)
    try:
        yield client
    finally:
        client.kill()


def run(world: World, program: Path, plan: Plan, progress: Callable[[Sample], None] = lambda sample: None) -> Outcome:
    """Soak the daemon of a lasting world, in which none runs yet; it has ended when this returns."""
    outcome = Outcome(plan)
    daemon = world.up()
    events = Events(world, plan.events, plan.turns)
    began = time.monotonic()
    with load_client(program, world.user_bus.address, plan) as client:
        for number in range(plan.samples):
            first, last = plan.requests * number // plan.samples, plan.requests * (number + 1) // plan.samples
            mark = world.journal.mark()
            client.send(last - first, events.send_one)
            events.rest()
            _count_announcements(world, mark, outcome.announced)
            sample = Sample(last, time.monotonic() - began, events.mode, footprint.look(daemon.pid))
            outcome.samples.append(sample)
            progress(sample)
        outcome.answers, outcome.wrong_answers = client.finish()
    outcome.seconds = time.monotonic() - began
    outcome.events = events.sent
    outcome.state = _state(world)
    outcome.exit_status = world.stop_daemon()
    return outcome


def _count_announcements(world: World, mark: int, announced: Counter[str]) -> None:
    entries = world.journal.since(mark)
    assert not entries or entries[0].index == mark, "the journal has forgotten entries before they were counted"
    announced.update(entry.name for entry in entries if entry.kind == "changed")
    announced.update(entry.member for entry in entries if entry.kind == "signal")


def _state(world: World) -> dict[str, tuple[object, object]]:
    """What the daemon says at the end, and what is true: the last turn was Host mode."""
    name, band = world.settings.get("device", "deviceName"), world.settings.get("network", "frequency")
    written = read_hostapd_conf(world.hostapd_conf)
    return {
        "Mode": (world.get("Mode"), "Host"),
        "WiFiState": (world.get("WiFiState"), 1),
        "SSID": (world.get("SSID"), name),
        "WiFiFrequency": (world.get("WiFiFrequency"), band),
        "WiFiConnectedClients": (world.get("WiFiConnectedClients"), len(world.hostapd.stations)),
        "WiFiClientState": (world.get("WiFiClientState"), "off"),
        "IPAddress": (world.get("IPAddress"), "192.168.8.1"),
        "AccessPoints": (world.get("AccessPoints"), []),
        "stored mode": (world.settings.get("network", "mode"), "Host"),
        "hostapd's ssid": (written[b"ssid"].decode(), name),
        "hostapd's hw_mode": (written[b"hw_mode"].decode(), "a" if band == "5" else "g"),
        "listeners on hostapd": (world.hostapd.attached, 1),
    }
