"""How often an idle daemon wakes up."""

from __future__ import annotations

import contextlib
import re
import time
from pathlib import Path

from vantora_sim import Process

from .device import Device
from .report import Row, Section

_STATED = {"Host": 1.0 + 1.0 + 0.5, "Client": 1.0 + 0.5}
"""Wake-ups a second: heartbeat, hostapd listener (an access point's only), kernel address listener."""

_EDGES = 2
"""Wake-ups that may fall into the interval by chance: one at most for each of two timers that were about to run out."""


def idle_wake_ups(build: Path, quick: bool) -> Section:
    """Both modes at once: devices share nothing."""
    interval = 4 if quick else 60
    with contextlib.ExitStack() as stack:
        daemons: dict[str, Process] = {}
        for mode in _STATED:
            daemons[mode] = stack.enter_context(Device.booted(build, mode)).start_daemon()
        time.sleep(2)  # whatever start-up and the questions before have left is over
        before = {mode: _switches(daemon.pid) for mode, daemon in daemons.items()}
        begin = time.monotonic()
        time.sleep(interval)
        after = {mode: _switches(daemon.pid) for mode, daemon in daemons.items()}
        elapsed = time.monotonic() - begin
    rows, notes = [], []
    for mode, stated in _STATED.items():
        woken = [after[mode][thread] - before[mode].get(thread, 0) for thread in after[mode]]
        rate = sum(woken) / elapsed
        rows.append(
            Row(
                f"wake-ups a second, {mode}",
                f"{rate:.2f}",
                f"{stated:.2f}",
                f"{rate - stated:+.2f}",
                "nothing beyond",
                sum(woken) <= stated * elapsed + _EDGES,
            )
        )
        notes.append(f"{mode}: by thread {', '.join(f'{count / elapsed:.2f}' for count in woken)}; over {elapsed:.0f} s")
    return Section("7. Wake-ups while idle", rows, notes)


def _switches(pid: int) -> dict[str, int]:
    """How often each thread has gone to sleep by itself."""
    counts = {}
    for thread in sorted(Path(f"/proc/{pid}/task").iterdir(), key=lambda path: int(path.name)):
        found = re.search(r"^voluntary_ctxt_switches:\s+(\d+)$", (thread / "status").read_text(), re.MULTILINE)
        assert found
        counts[thread.name] = int(found[1])
    return counts
