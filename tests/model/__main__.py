"""The command line of scripts/chaos."""

from __future__ import annotations

import argparse
import secrets
import sys
import time
from pathlib import Path

from .search import Search, report

ROOT = Path(__file__).resolve().parents[2]


def main() -> int:
    """The command-line program."""
    parser = argparse.ArgumentParser(prog="scripts/chaos", description=__doc__)
    parser.add_argument("--minutes", type=float, default=5.0)
    parser.add_argument("--steps", type=int)
    parser.add_argument("--seed", type=int)
    parser.add_argument("--build-dir", type=Path, default=ROOT / "build/release")
    parser.add_argument("--findings", type=int)
    options = parser.parse_args()
    seed = secrets.randbits(31) if options.seed is None else options.seed
    print(f"seed {seed}", flush=True)
    began = time.monotonic()
    search = Search(options.build_dir, seed, lambda line: print(line, flush=True))
    search.search(steps=options.steps, seconds=None if options.steps else 60 * options.minutes, findings=options.findings)
    for found in search.found:
        print()
        print(report(found))
    print(f"{search.steps} steps in {search.runs} runs, {time.monotonic() - began:.0f} s: {len(search.found)} findings")
    return 1 if search.found else 0


if __name__ == "__main__":
    sys.exit(main())
