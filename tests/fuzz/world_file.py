#!/usr/bin/python3
"""Fuzzes the simulator's parser of world files.

A mutational fuzzer of our own: Debian has no coverage-guided one for Python. In the place of coverage stands what the parser
says: an input that is complained about in a way not seen before is kept and mutated further. So it finds less than a
fuzzer that sees branches, and is worth as much as the seeds and the dictionary that it starts from.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import math
import random
import re
import secrets
import sys
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "simulator"))

from vantora_sim.plan import BAND_OF_RADIO_TYPE, SECURITIES, Plan  # noqa: E402  (found through the line above)
from vantora_sim.world_file import CHANNELS, WorldFileError, read_world  # noqa: E402

CORPUS = ROOT / "tests/fuzz/corpus/world_file"
LARGEST = 20_000
_ADDRESS = re.compile("[0-9a-f]{2}(:[0-9a-f]{2}){5}")
_WORDS = [
    '"name"',
    '"networks"',
    '"stations"',
    '"device"',
    '"settings"',
    '"ssid"',
    '"ssid_hex"',
    '"bssid"',
    '"band"',
    '"channel"',
    '"signal"',
    '"security"',
    '"passphrase"',
    '"hidden"',
    '"address"',
    '"mac"',
    '"joins_after"',
    '"model"',
    '"serial"',
    '"radio_type"',
    '"5"',
    '"2.4"',
    '"wpa2"',
    '"open"',
    "null",
    "true",
    "1e999",
    "-0",
    "1" * 5000,
    '"\\ud800"',
    '"\\u0000"',
    '"a\\n"',
    '"02:00:00:01:00:01"',
    '"10.0.0.1/24"',
    "[" * 3000,
    '{"a":' * 3000,
    "NaN",
    "-1",
    "36",
    "\u00e9",
    "\\",
    "{}",
    "[]",
    ",",
    ":",
]
_VALUES: list[Any] = [
    None,
    True,
    0,
    -1,
    1e300,
    math.inf,
    2**70,
    "",
    "x" * 33,
    "\u00e9" * 17,
    "a\n",
    "\ud800",
    "\0",
    "02:00:00:01:00:01\n",
    [],
    {},
    "0.0.0.0/0",
    "12345678",
    "1" * 63,
    "00" * 33,
    [[]],
    {"ssid": "a"},
    {"name": "v"},
]


class Finding(Exception):
    """The parser did something that it must not do."""


def judge(data: bytes, file: Path) -> str:
    """Have the parser read these bytes; returns what it says, without the numbers and names in it. Raises Finding."""
    file.write_bytes(data)
    try:
        plan = read_world(str(file))
    except WorldFileError as error:
        lines = str(error).splitlines()
        if not lines or not lines[0].startswith(f"{file}:"):
            raise Finding(f"a complaint does not name the file: {error}") from None
        try:
            str(error).encode()
        except UnicodeEncodeError:
            raise Finding("a complaint that cannot be printed") from None
        return re.sub(r'"[^"]*"|\d+', "?", lines[0].removeprefix(str(file)))
    except Exception as error:  # whatever it is: it is the finding
        raise Finding(f"{type(error).__name__}: {str(error)[:200]}") from error
    for fault in faults(plan):
        raise Finding(f"a plan with {fault}")
    return f"a plan with {min(len(plan.networks), 3)} networks and {min(len(plan.visitors), 3)} stations"


def faults(plan: Plan) -> Iterator[str]:
    """What no plan may have."""
    for network in plan.networks:
        if not 1 <= len(network.ssid) <= 32:
            yield f"an SSID of {len(network.ssid)} bytes"
        if network.channel not in CHANNELS[network.band] or network.security not in SECURITIES:
            yield "a network that cannot be"
        if network.passphrase and not (8 <= len(network.passphrase) <= 63 and network.passphrase.isprintable()):
            yield f"the passphrase {network.passphrase!r}"
        if not -110 <= network.signal <= 0:
            yield f"a signal of {network.signal}"
    addresses = [network.bssid for network in plan.networks] + [visitor.mac for visitor in plan.visitors]
    if not all(map(_ADDRESS.fullmatch, addresses)):
        yield f"an address that is none: {addresses}"
    if len(set(addresses)) != len(addresses):
        yield f"one address twice: {addresses}"
    for visitor in plan.visitors:
        if visitor.joins_after is not None and not math.isfinite(visitor.joins_after):
            yield "a station that joins never"
    for key, value in plan.device.items():
        if "\n" in value:
            yield f"the value {value!r} for {key}, which is more than a line of device.conf"
    if int(plan.device.get("radio_type", 0)) not in BAND_OF_RADIO_TYPE:
        yield "a radio that does not exist"
    texts = [plan.name, plan.device, plan.settings, [visitor.name for visitor in plan.visitors]]
    try:
        json.dumps(texts, ensure_ascii=False).encode()
    except UnicodeEncodeError:
        yield "a text that is none"


class Mutator:
    """Makes new inputs out of old ones."""

    def __init__(self, chance: random.Random) -> None:
        self._chance = chance

    def mutate(self, data: bytes, other: bytes) -> bytes:
        """A few changes, in the bytes or in the values."""
        if self._chance.random() < 0.5:
            data = self._in_values(data)
        for _ in range(self._chance.choice((0, 1, 1, 2, 4))):
            data = self._in_bytes(data, other)
        return data[:LARGEST]

    def _in_bytes(self, data: bytes, other: bytes) -> bytes:
        at, length = self._chance.randrange(len(data) + 1), self._chance.choice((1, 1, 2, 8, 64))
        match self._chance.randrange(6):
            case 0:
                return data[:at] + self._chance.randbytes(length) + data[at:]
            case 1:
                return data[:at] + data[at + length :]
            case 2:
                return data[:at] + self._chance.choice(_WORDS).encode() + data[at:]
            case 3:
                return data[:at] + data[at : at + length] * 2 + data[at + length :]
            case 4:
                return data[:at] + self._chance.choice(_WORDS).encode() + data[at + length :]
        return data[:at] + other[self._chance.randrange(len(other) + 1) :]

    def _in_values(self, data: bytes) -> bytes:
        """Put another value in the place of one, where the bytes are JSON."""
        try:
            return self._with_other_values(json.loads(data))
        except (ValueError, RecursionError):
            return data

    def _with_other_values(self, document: Any) -> bytes:
        for _ in range(self._chance.choice((1, 1, 2, 5))):
            places = list(_places(document))
            if not places:
                break
            container, key = self._chance.choice(places)
            if self._chance.random() < 0.2:
                del container[key]
            elif isinstance(container, list) and self._chance.random() < 0.5:
                container.append(container[key])
            else:
                container[key] = self._chance.choice(_VALUES)
        return json.dumps(document, indent=self._chance.choice((None, 1))).encode()


def _places(value: Any) -> Iterator[tuple[Any, Any]]:
    items = value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ()
    for key, item in list(items):
        yield value, key
        yield from _places(item)


def fuzz(seconds: float, seed: int, merge: bool, reproducers: Path) -> int:
    """Fuzz for so long. Returns the exit status."""
    chance = random.Random(seed)
    mutator = Mutator(chance)
    pool = [file.read_bytes() for file in sorted(CORPUS.iterdir())]
    seeds, runs, deadline = len(pool), 0, time.monotonic() + seconds
    with tempfile.TemporaryDirectory(prefix="vantora-fuzz-") as folder:
        file = Path(folder) / "world.json"
        heard = {judge(data, file) for data in pool}
        while time.monotonic() < deadline:
            data = mutator.mutate(chance.choice(pool), chance.choice(pool))
            runs += 1
            try:
                said = judge(data, file)
            except Finding as finding:
                reproducer = reproducers / f"world_file-{_name(data)}"
                reproducer.write_bytes(data)
                print(f"world_file: {finding}\nreproducer: {reproducer}", file=sys.stderr)
                return 1
            if said not in heard:
                heard.add(said)
                pool.append(data)
    print(f"world_file: seed {seed}, {runs} runs, {len(heard)} different answers, {len(pool) - seeds} new inputs")
    if merge:
        for data in pool[seeds:]:
            if len(data) < 2_000 and len(list(CORPUS.iterdir())) < 100:
                (CORPUS / _name(data)).write_bytes(data)
    return 0


def _name(data: bytes) -> str:
    return hashlib.sha1(data).hexdigest()


def replay(paths: list[Path]) -> int:
    """Read files, and those in folders, once. Returns the exit status."""
    files = [file for path in paths for file in (sorted(path.iterdir()) if path.is_dir() else [path])]
    if not files:
        print("no files", file=sys.stderr)
        return 2
    with tempfile.TemporaryDirectory(prefix="vantora-fuzz-") as folder:
        for file in files:
            try:
                judge(file.read_bytes(), Path(folder) / "world.json")
            except Finding as finding:
                print(f"{file}: {finding}", file=sys.stderr)
                return 1
    print(f"{len(files)} files")
    return 0


def main() -> int:
    """The command-line program."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=60, help="how long (default: %(default)s)")
    parser.add_argument("--seed", type=int, default=None, help="where the random numbers begin")
    parser.add_argument("--merge", action="store_true", help="add what was found to the corpus")
    parser.add_argument("--reproducers", type=Path, default=Path.cwd(), help="folder for an input that fails")
    parser.add_argument("--replay", type=Path, nargs="+", help="read these files once instead")
    options = parser.parse_args()
    if options.replay:
        return replay(options.replay)
    seed = secrets.randbits(32) if options.seed is None else options.seed
    return fuzz(options.seconds, seed, options.merge, options.reproducers)


if __name__ == "__main__":
    sys.exit(main())
