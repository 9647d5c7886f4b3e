"""The command line: which figures, how long."""

from __future__ import annotations

import argparse
import sys
from collections.abc import Callable, Sequence
from pathlib import Path

from . import access_points, client, events, memory, older_name, reads, report, settings, size, starts, stations, wakeups
from .exact.cli import exact
from .report import Section

ROOT = Path(__file__).resolve().parents[2]
RESULTS = ROOT / "bench/RESULTS.md"
BASELINE = ROOT / "bench/baseline.toml"
PACKAGES = ROOT / "build/packages/armhf"

LOADED = "memory"
"""The figure that is left out unless it is asked for: it takes an hour."""


def main(arguments: Sequence[str]) -> int:
    """Measure, print and write down; 0 when every goal that could be measured is reached."""
    options = _parse(arguments)
    build = options.build_dir.resolve()
    if options.exact:
        return exact(build, options.baseline, check=options.check)
    figures: dict[str, Callable[[], Section]] = {
        "read": lambda: reads.plain_read(build, options.quick),
        "commands": lambda: reads.reads_with_commands(build, options.quick),
        "start": lambda: starts.start_to_ready(build, options.quick),
        "access-points": lambda: access_points.access_points(build, options.quick),
        "event": lambda: events.station_event(build, options.quick),
        LOADED: lambda: memory.memory_after_load(build, options.load_seconds),
        "wake-ups": lambda: wakeups.idle_wake_ups(build, options.quick),
        "older-name": lambda: older_name.older_name(build, options.quick),
        "setting": lambda: settings.stored_setting(build, options.quick),
        "stations": lambda: stations.stations_leave(build, options.quick),
        "status": lambda: client.status(build, options.quick),
        "size": lambda: size.armhf_size(PACKAGES),
    }
    unknown = set(options.figures) - set(figures) - {"all"}
    if unknown:
        print(f"bench: unknown figure '{unknown.pop()}' (there are {', '.join(figures)}, all)", file=sys.stderr)
        return 2
    chosen = [
        name
        for name in figures
        if "all" in options.figures or name in options.figures or (not options.figures and name != LOADED)
    ]
    missed = 0
    for name in chosen:
        section = figures[name]()
        report.show(section)
        if not options.quick:
            report.write(options.results, section, arguments)
        missed += sum(row.reached is False for row in section.rows)
    if not options.figures:
        print(f"\nLeft out: {LOADED}, which takes an hour (./scripts/bench {LOADED}).")
    return 1 if missed and not options.quick else 0


def _parse(arguments: Sequence[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="bench")
    parser.add_argument("figures", nargs="*", metavar="FIGURE")
    parser.add_argument("--build-dir", type=Path, default=ROOT / "build/bench")
    parser.add_argument("--results", type=Path, default=RESULTS)
    parser.add_argument("--load-seconds", type=int, default=3600)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--exact", action="store_true")
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--baseline", type=Path, default=BASELINE)
    options = parser.parse_args(arguments)
    if options.check and not options.exact:
        parser.error("--check goes with --exact")
    if options.exact and options.figures:
        parser.error("--exact counts all figures")
    return options
