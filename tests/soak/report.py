"""The results of a soak as a page of Markdown."""

from __future__ import annotations

import os
import platform
import textwrap
import time
from collections.abc import Iterable
from pathlib import Path

from .run import MEMORY_BOUND, WARM_UP, Outcome, Sample

ROWS = 16
WIDTH = 120


def table(head: list[str], rows: Iterable[Iterable[object]]) -> str:
    """A table; columns after the first that hold numbers are for the reader to line up."""
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines)


def machine() -> str:
    """This machine in a few words."""
    model = next(
        (
            line.split(":", 1)[1].strip()
            for line in Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines()
            if line.startswith("model name")
        ),
        "unknown processor",
    )
    cores = len(os.sched_getaffinity(0))
    busy = ", ".join(f"{load:.1f}" for load in os.getloadavg())
    return f"{model}, {cores} cores, Linux {platform.release()}, {platform.machine()}, load averages at the end {busy}"


def _some(samples: list[Sample]) -> list[Sample]:
    """The first, the last and some in between."""
    last = len(samples) - 1
    return [samples[number] for number in sorted({round(last * row / (ROWS - 1)) for row in range(ROWS)})]


def _row(sample: Sample) -> list[object]:
    seen = sample.footprint
    return [
        f"{sample.answered:,}",
        f"{sample.seconds:.0f}",
        sample.mode,
        seen.descriptors,
        seen.threads,
        seen.rss,
        seen.pss,
        seen.private_dirty,
    ]


def _range(values: list[int]) -> str:
    return str(values[0]) if len(set(values)) == 1 else f"{min(values)} to {max(values)}"


def _flatness(outcome: Outcome) -> list[list[object]]:
    rows: list[list[object]] = []
    for mode in ("Host", "Client"):
        looks = outcome.in_mode(mode)
        rows.append([f"descriptors, {mode} mode", _range([look.descriptors for look in looks]), "always the same"])
        rows.append([f"threads, {mode} mode", _range([look.threads for look in looks]), "always the same"])
    settled = outcome.settled()
    for name, bound in (("private_dirty", f"at most {MEMORY_BOUND} KiB above the first"), ("pss", ""), ("rss", "")):
        values = [getattr(look, name) for look in settled]
        rows.append(
            [
                f"{name.replace('_', ' ')} after the first {WARM_UP:.0%}, KiB",
                f"{values[0]} at first, {max(values)} at most, {values[-1]} in the end",
                bound or "(no bound)",
            ]
        )
    return rows


def page(outcome: Outcome, command: str) -> str:
    """The whole page."""
    plan, faults = outcome.plan, outcome.faults()
    parts = [
        "# Results of the last soak",
        f"`{command}` on {time.strftime('%Y-%m-%d', time.gmtime())}: {machine()}.",
        f"{outcome.answered:,} of {plan.requests:,} requests from {plan.clients} clients at once were answered, "
        f"{outcome.wrong_answers} of them otherwise than documented, while {plan.events:,} events happened; "
        f"{outcome.seconds:.0f} s in all. "
        + ("Everything held." if not faults else "**It did not hold:** " + "; ".join(faults) + "."),
        "What is run and how: [README.md](README.md).",
        "## Flat",
        table(["", "Seen", "Required"], _flatness(outcome)),
        f"Some of the {len(outcome.samples)} samples, the first and the last among them (memory in KiB):",
        table(
            ["Requests answered", "Second", "Mode", "Descriptors", "Threads", "RSS", "PSS", "Private dirty"],
            [_row(sample) for sample in _some(outcome.samples)],
        ),
        "## What was asked and answered",
        table(["Request", "Answer", "Times"], [[kind, answer, f"{count:,}"] for kind, answer, count in outcome.answers]),
        "## What happened meanwhile",
        table(["Event", "Times"], [[kind, f"{count:,}"] for kind, count in sorted(outcome.events.items())]),
        "## What was announced",
        table(["Property or signal", "Times"], [[name, f"{count:,}"] for name, count in sorted(outcome.announced.items())]),
        "## The state right after the last answer",
        table(
            ["", "Is", "Should be"],
            [[name, f"`{is_}`", f"`{should}`"] for name, (is_, should) in outcome.state.items()]
            + [["exit status on SIGTERM", f"`{outcome.exit_status}`", "`0`"]],
        ),
    ]
    return "\n\n".join(part if part.startswith(("|", "#")) else _wrapped(part) for part in parts) + "\n"


def _wrapped(paragraph: str) -> str:
    return textwrap.fill(paragraph, WIDTH, break_long_words=False, break_on_hyphens=False)
