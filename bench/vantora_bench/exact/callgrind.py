"""Instructions and allocations, counted by valgrind's callgrind.

What would differ from one run to the next is taken away: glibc's routines for this processor or that one (a string that is
copied takes other instructions with AVX than without), and the daemon's heartbeat, which comes by the clock.
"""

from __future__ import annotations

import re
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from vantora_sim import Process, World

from .counts import Counts
from .wrapper import script_for

_PLAIN_PROCESSOR = (
    "GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2,-AVX,-AVX_Fast_Unaligned_Load,-AVX512F,-AVX512VL,-AVX512BW,-BMI2,-ERMS,-FSRM,"
    "-LZCNT,-MOVBE,-RTM"
)
_ALLOCATORS = {"malloc", "calloc", "memalign", "aligned_alloc", "posix_memalign"}
"""Not realloc: sd-bus asks for its buffer anew each time it looks for a message, and how often it does is chance."""

_NAME = re.compile(r"^(c?)fn=\((\d+)\)(?: (.*))?$")
_CALLS = re.compile(r"^calls=(\d+) ")
_TOTAL = re.compile(r"^(?:totals|summary): (\d+)", re.MULTILINE)


@dataclass(frozen=True)
class Profile:
    """What one thread did: its instructions, and how often each function was called."""

    instructions: int
    calls: dict[str, int]

    @classmethod
    def read(cls, text: str) -> "Profile":
        """From a file that callgrind wrote."""
        names: dict[str, str] = {}
        calls: dict[str, int] = {}
        called = ""
        for line in text.splitlines():
            if match := _NAME.match(line):
                if match[3] is not None:
                    names[match[2]] = match[3]
                if match[1]:
                    called = names[match[2]]
            elif match := _CALLS.match(line):
                calls[called] = calls.get(called, 0) + int(match[1])
        return cls(sum(int(found) for found in _TOTAL.findall(text)[:1]), calls)

    @property
    def allocations(self) -> int:
        """How many blocks of memory were asked for."""
        return sum(count for name, count in self.calls.items() if name in _ALLOCATORS)

    def times(self, function: str) -> int:
        """How often the functions of this name were called, whatever their arguments."""
        return sum(count for name, count in self.calls.items() if re.search(rf"\b{function}\(", name))


class Callgrind:
    """Runs programs of one world under callgrind."""

    def __init__(self, world: World) -> None:
        self._world = world
        self._folder = world.work / "tmp"

    def wrap(self, program: Path, *options: str) -> Path:
        """A script, as seen in the sandbox, that is the program under callgrind."""
        # Under its own name, which is in its log lines.
        return script_for(
            self._world,
            "counted",
            program,
            "/usr/bin/valgrind -q --tool=callgrind --separate-threads=yes "
            f"--callgrind-out-file=/tmp/{program.name}.profile --vgdb-prefix=/tmp/vgdb {' '.join(options)}",
            f"export {_PLAIN_PROCESSOR}",
        )

    def window(self, process: Process, name: str, work: Callable[[], None]) -> list[Profile]:
        """What each thread of a process under callgrind does while `work` runs; the main thread comes first."""
        self._tell(process, "zero")
        work()
        self._tell(process, "dump")
        return self.take(name)

    def take(self, name: str) -> list[Profile]:
        """The profiles that the program of this name has left last, which are gone then."""
        files = [path for path in self._folder.glob(f"{name}.profile*") if path.stat().st_size]
        found: dict[int, list[tuple[int, Path]]] = {}
        for path in files:
            match = re.search(r"\.profile(?:\.(\d+))?(?:-(\d+))?$", path.name)
            assert match, path
            found.setdefault(int(match[1] or 0), []).append((int(match[2] or 1), path))
        if not found:
            raise RuntimeError(f"callgrind has left nothing of {name}")
        # What is dumped on the way stands before what is left at the end, which has no number.
        first = min(number for number in found if number) if any(found) else 0
        profiles = [Profile.read(path.read_text()) for _, path in sorted(found[first])]
        for path in files:
            path.unlink()
        return profiles

    def _tell(self, process: Process, command: str) -> None:
        inside = re.search(r"^NSpid:.*\s(\d+)$", Path(f"/proc/{process.pid}/status").read_text(encoding="utf-8"), re.MULTILINE)
        assert inside
        told = self._world.sandbox.run(
            ["/usr/bin/vgdb", "--vgdb-prefix=/tmp/vgdb", f"--pid={inside[1]}", "--wait=60", command], timeout=300
        )
        if told.status != 0:
            raise RuntimeError(f"callgrind does not take '{command}': {told.stderr.strip()}")


def counts_of(profile: Profile, times: int, less: float = 0) -> Counts:
    """Instructions and allocations of one of so many requests; `less` instructions are not theirs."""
    return {"instructions": (profile.instructions - less) / times, "allocations": profile.allocations / times}
