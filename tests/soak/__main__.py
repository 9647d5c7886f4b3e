"""Runs a soak from the command line: see scripts/soak."""

from __future__ import annotations

import argparse
import sys
from pathlib import Path

from vantora_sim import World

from .report import page
from .run import Plan, Sample, run

ROOT = Path(__file__).resolve().parents[2]


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="soak")
    parser.add_argument("--build-dir", type=Path, default=ROOT / "build/release")
    parser.add_argument("--requests", type=int, default=Plan.requests)
    parser.add_argument("--events", type=int, default=Plan.events)
    parser.add_argument("--clients", type=int, default=Plan.clients)
    parser.add_argument("--output", type=Path, help="write the results to this file, too")
    given = parser.parse_args()
    if not (given.requests >= 1000 and 0 < given.events <= given.requests and given.clients > 0):
        parser.error("wants at least 1000 requests, a client, and from 1 event to as many as there are requests")
    return given


def show(sample: Sample) -> None:
    cost = sample.footprint
    print(
        f"{sample.seconds:7.0f} s  {sample.answered:8d} answered  {sample.mode:6s}  {cost.descriptors} descriptors  "
        f"{cost.threads} threads  private dirty {cost.private_dirty} KiB",
        file=sys.stderr,
        flush=True,
    )


def main() -> int:
    given = arguments()
    plan = Plan(given.requests, given.events, given.clients)
    with World(given.build_dir, lasting=True) as world:
        outcome = run(world, world.build / "tests/soak/load-client", plan, show)
    command = f"./scripts/soak --requests {plan.requests} --events {plan.events} --clients {plan.clients}"
    text = page(outcome, command)
    print(text)
    if given.output:
        given.output.write_text(text)
    for fault in outcome.faults():
        print(f"soak: {fault}", file=sys.stderr)
    return 1 if outcome.faults() else 0


if __name__ == "__main__":
    sys.exit(main())
