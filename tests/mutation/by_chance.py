"""Plants random faults into src, platform, client and support, and prints how many of them the tests catch.

Which faults is a matter of chance (and of the seed, which is printed), so no test can have been written for them. Each is
put into a copy of the tree; then the unit tests that the source is linked into run, then the contract tests of its room, those
first whose names have a word in common with it, then all other contract tests. The first failure ends it: caught. What does
not compile is no fault, and another is drawn. What nobody can tell from the sound code is named in survivors.toml with the
reason, and does not count.
"""

from __future__ import annotations

import argparse
import json
import os
import queue
import random
import re
import shlex
import sys
import threading
import time
import tomllib
from dataclasses import dataclass
from pathlib import Path

from mutants import Mutant, mutants_of
from run import DAEMONS, PYTHON, Failure, Tree, run, timed

ROOT = Path(__file__).resolve().parents[2]
SURVIVORS = Path(__file__).with_name("survivors.toml")
FOLDERS = ("src/", "platform/", "client/", "doctor/", "support/")
ROOMS = {
    "src/core": ("core", "faults"),
    "src/config": ("config",),
    "src/radio": ("radio", "core"),
    "src/listeners": ("listeners", "core"),
    "src/utils": ("utils", "core"),
    "src/main.cpp": ("core",),
    "client": ("client",),
    "doctor": ("doctor",),
    "platform/settingsd": ("config", "faults"),
    "platform/korrin-info": ("core",),
    "platform/dbus-helper": ("config", "listeners"),
    "support": ("core", "faults"),
}
"""Contract tests' folders, nearest first, for the folders of the code."""
UNIT_TESTS = "tests/unit/"


@dataclass(frozen=True)
class Verdict:
    """What became of one mutant: who caught it, None for nobody; or that it is no fault, because it does not compile."""

    mutant: Mutant
    caught_by: str | None
    compiles: bool
    seconds: float


def compile_flags(tree: Tree) -> dict[str, list[str]]:
    """The sources that mutants are made of, each with the flags that say where its headers are."""
    flags: dict[str, list[str]] = {}
    for entry in json.loads((tree.build / "compile_commands.json").read_text()):
        file = os.path.relpath(entry["file"], tree.folder)
        if file.startswith(FOLDERS):
            words = shlex.split(entry["command"])
            system = [word for flag, word in zip(words, words[1:]) if flag == "-isystem"]
            flags[file] = [word for word in words if word.startswith(("-I", "-D", "-std"))]
            flags[file] += [f"-I{folder}" for folder in system]
    return flags


def linked_into(tree: Tree) -> dict[str, list[str]]:
    """Source file -> unit test programs that it is linked into."""
    programs = sorted(path.name for path in (tree.build / UNIT_TESTS).iterdir() if path.is_file() and os.access(path, os.X_OK))
    found: dict[str, list[str]] = {}
    for program in programs:
        inputs = run(["ninja", "-C", str(tree.build), "-t", "inputs", UNIT_TESTS + program], tree.folder).stdout
        for line in inputs.splitlines():
            file = os.path.relpath(line.strip(), tree.folder)
            if file.startswith(FOLDERS):
                found.setdefault(file, []).append(program)
    return found


def nearness(file: str, name: str) -> int:
    """How many words a source's name and a test's have in common, as a key that sorts the most first."""
    return -len(set(re.split(r"[/_.\-]", file)) & set(re.split(r"[/_.\-]", name)) - {"cpp", "test", "py", "src", "tests"})


def contract_files(tree: Tree, file: str) -> tuple[list[Path], list[Path]]:
    """Contract tests for a source: those of its rooms, nearest first, and all others."""
    every = sorted((tree.folder / "tests/contract").glob("*/test_*.py"))
    rooms = next((rooms for folder, rooms in ROOMS.items() if file.startswith(folder)), ())
    near = sorted(
        (path for path in every if path.parent.name in rooms),
        key=lambda path: (nearness(file, path.name), rooms.index(path.parent.name)),
    )
    return near, [path for path in every if path not in near]


def fails_contract(tree: Tree, files: list[Path]) -> bool:
    command = [
        PYTHON,
        "-m",
        "pytest",
        *map(str, files),
        "-x",
        "-q",
        "-n",
        "3",
        "-p",
        "no:cacheprovider",
        "--build-dir",
        str(tree.build),
    ]
    status, output = timed(command, tree.folder, 1200)
    if status != 0 and " failed" not in output and " error" not in output and "had to be ended" not in output:
        raise Failure(f"pytest ended with {status}:\n{output[-2000:]}")
    return status != 0


def judge(tree: Tree, mutant: Mutant, units: list[str]) -> Verdict:
    """Plant a mutant, run what may catch it, and take it out again."""
    began = time.monotonic()
    path = tree.folder / mutant.file
    sound = path.read_bytes()
    near, others = contract_files(tree, mutant.file)

    def verdict(caught_by: str | None, compiles: bool = True) -> Verdict:
        return Verdict(mutant, caught_by, compiles, time.monotonic() - began)

    path.write_bytes(sound[: mutant.begin] + mutant.new.encode() + sound[mutant.end :])
    try:
        units = sorted(units, key=lambda name: (nearness(mutant.file, name), name))
        if not tree.make([*(UNIT_TESTS + name for name in units), *DAEMONS]):
            return verdict(None, compiles=False)
        for name in units:
            if timed([str(tree.build / UNIT_TESTS / name)], tree.build, 120)[0] != 0:
                return verdict(name)
        if not tree.make(["all"]):
            return verdict(None, compiles=False)
        for files in (near[:4], near[4:], others):
            if files and fails_contract(tree, files):
                return verdict(", ".join(path.stem for path in files[:4]) + (" ..." if len(files) > 4 else ""))
        return verdict(None)
    finally:
        path.write_bytes(sound)


def excused() -> dict[tuple[str, str, str], tuple[bool, str]]:
    """Mutants that are known to survive: (file, function, change) -> (whether nobody can tell it from the sound code, reason)."""
    listed = tomllib.loads(SURVIVORS.read_text(encoding="utf-8")).get("survivor", []) if SURVIVORS.exists() else []
    return {
        (each["file"], each["function"], each["change"]): (bool(each.get("equivalent", False)), each["reason"])
        for each in listed
    }


def prepare(number: int, preset: str) -> Tree:
    tree = Tree(ROOT / "build" / f"mutation-{number}", preset)
    tree.refresh()
    tree.configure()
    if not tree.make(["all"]):
        raise Failure("the unchanged code does not build")
    return tree


class Rounds:
    """Draws mutants until enough of them were faults, on as many trees as there are."""

    def __init__(self, trees: list[Tree], drawn: list[Mutant], units: dict[str, list[str]], wanted: int) -> None:
        self._trees, self._units, self._wanted = trees, units, wanted
        self._drawn: queue.SimpleQueue[Mutant] = queue.SimpleQueue()
        for mutant in drawn:
            self._drawn.put(mutant)
        self._lock = threading.Lock()
        self._known = excused()
        self.verdicts: list[Verdict] = []
        self.failures: list[str] = []

    def run(self) -> None:
        threads = [threading.Thread(target=self._work, args=(tree,)) for tree in self._trees]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def counted(self) -> list[Verdict]:
        """The verdicts about mutants that are faults: they compile, and somebody could tell them from the sound code."""
        return [each for each in self.verdicts if each.compiles and not self._reason(each.mutant)[0]]

    def _reason(self, mutant: Mutant) -> tuple[bool, str]:
        return self._known.get((mutant.file, mutant.function, mutant.title), (False, ""))

    def _work(self, tree: Tree) -> None:
        while True:
            with self._lock:
                if len(self.counted()) >= self._wanted or self.failures or self._drawn.empty():
                    return
                mutant = self._drawn.get()
            try:
                found = judge(tree, mutant, self._units.get(mutant.file, []))
            except Failure as failure:
                self.failures.append(f"{mutant.file}:{mutant.line}: {failure}")
                return
            with self._lock:
                if found.compiles and len(self.counted()) < self._wanted:
                    self.verdicts.append(found)
                    self._say(found)

    def _say(self, found: Verdict) -> None:
        mutant = found.mutant
        equivalent, reason = self._reason(mutant)
        text = f"caught by {found.caught_by}" if found.caught_by else f"SURVIVED{' (no difference)' if equivalent else ''}"
        print(
            f"{text}: {mutant.file}:{mutant.line} {mutant.function}: {mutant.title} ({found.seconds:.0f} s)"
            + (f"; {reason}" if reason and not found.caught_by else ""),
            flush=True,
        )


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/mutation --random", description=__doc__.split("\n", 1)[0])
    parser.add_argument("count", type=int, help="so many mutants that compile")
    parser.add_argument("words", nargs="*", metavar="WORD", help="only in files whose path holds one of these")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1_000_000))
    parser.add_argument("--trees", type=int, default=2, help="how many are tried at a time (2)")
    parser.add_argument("--preset", default="asan", help="the build that is broken (asan: it sees what is not released, too)")
    parser.add_argument("--want", type=float, default=97.0, help="fail below this kill rate, in per cent (97)")
    arguments = parser.parse_intermixed_args()

    print(f"-- seed {arguments.seed}, {arguments.trees} trees, {arguments.preset}", flush=True)
    trees = [prepare(number, arguments.preset) for number in range(arguments.trees)]
    flags = compile_flags(trees[0])
    files = [file for file in sorted(flags) if not arguments.words or any(word in file for word in arguments.words)]
    every = [mutant for file in files for mutant in mutants_of(trees[0].folder, file, flags[file])]
    if not every:
        raise Failure("there is nothing to break")
    random.Random(arguments.seed).shuffle(every)
    print(f"-- {len(every)} places in {len(files)} files", flush=True)

    rounds = Rounds(trees, every, linked_into(trees[0]), arguments.count)
    rounds.run()
    for failure in rounds.failures:
        print(f"NOT CHECKED, {failure}")
    counted = rounds.counted()
    survivors = [each.mutant for each in counted if not each.caught_by]
    rate = 100 * (len(counted) - len(survivors)) / max(1, len(counted))
    for folder in FOLDERS:
        inside = [each for each in counted if each.mutant.file.startswith(folder)]
        if inside:
            print(f"{folder} {sum(1 for each in inside if each.caught_by)} of {len(inside)} caught")
    for mutant in survivors:
        print(
            f'[[survivor]]\nfile = "{mutant.file}"\nfunction = "{mutant.function}"\nchange = {json.dumps(mutant.title)}\nreason = ""\n'
        )
    print(f"kill rate: {rate:.1f} % of {len(counted)}, {len(rounds.verdicts) - len(counted)} without a difference")
    print(f"{len(counted) - len(survivors)} passed, {len(survivors)} failed")
    return 0 if counted and not rounds.failures and rate >= arguments.want else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:
        print(f"scripts/mutation: {failure}", file=sys.stderr)
        sys.exit(2)
