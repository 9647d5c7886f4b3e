"""Plants random faults into src, platform, client, doctor and support, and prints how many of them the tests catch.

Which faults is a matter of chance (and of the seed, which is printed), so no test can have been written for them. Each is
put into a copy of the tree; then the unit tests that hold the source run, then the contract tests of its room, those
first whose names have a word in common with it, then all other contract tests. The first failure ends it: caught. What does
not compile is no fault, and another is drawn. What nobody can tell from the sound code is named in survivors.toml with the
reason, and does not count.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import random
import time
from pathlib import Path

from failing import failed_contract, failed_unit
from mutant import Mutant
from nearest import UNIT_TESTS, contract_files, unit_programs
from places import drawn, places_of
from rounds import Rounds, line_of, text_before
from run import Failure, Tree, as_program
from sources import FOLDERS, compile_commands, object_of
from verdicts import Record, Verdict

ROOT = Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
PROGRAMS = ("network", "settingsd", "wifi", "doctor", "supplicant-names", "sim-sandbox", "sim-tool")
NEAR = 2
"""So many files of contract tests are near to a source."""
NEAR_LIMIT = 75
"""Seconds that these may take where no others are asked."""


def judge(tree: Tree, mutant: Mutant, units: list[str], compiled: Compiled, near: bool) -> Verdict:
    """Plant a mutant, run what may catch it, and take it out again. `compiled` is what the sound source compiles to."""
    began = time.monotonic()
    path = tree.folder / mutant.file
    sound = path.read_bytes()
    contract = contract_files(tree, mutant.file)
    programs = [f"vantora-{name}" for name in PROGRAMS]

    def verdict(caught_by: str | None, compiles: bool = True, same: bool = False) -> Verdict:
        return Verdict(mutant, caught_by, compiles, time.monotonic() - began, near, same)

    path.write_bytes(sound[: mutant.begin] + mutant.new.encode() + sound[mutant.end :])
    try:
        if not tree.make([compiled.object]):
            return verdict(None, compiles=False)
        if compiled.is_still(tree):
            return verdict(None, same=True)
        # The nearest test alone is built and run first: most faults end there, and the others take longer to link than to run.
        for some in (units[:1], units[1:]):
            if not tree.make([UNIT_TESTS + name for name in some] or programs):
                return verdict(None, compiles=False)
            if failed := failed_unit(tree, some):
                return verdict(failed)
        if not tree.make(programs if near else ["all"]):
            return verdict(None, compiles=False)
        for files in (contract[:NEAR], *([] if near else [contract[NEAR:12], contract[12:]])):
            if failed := failed_contract(tree, files, NEAR_LIMIT if near else 1800):
                return verdict(failed)
        return verdict(None)
    finally:
        path.write_bytes(sound)


class Compiled:
    """What a sound source was compiled to."""

    def __init__(self, tree: Tree, command: str) -> None:
        self.object = object_of(command)
        self._mark = self._mark_now(tree)

    def is_still(self, tree: Tree) -> bool:
        return self._mark_now(tree) == self._mark

    def _mark_now(self, tree: Tree) -> bytes:
        return hashlib.sha256((tree.build / self.object).read_bytes()).digest()


def prepare(number: int, preset: str) -> Tree:
    tree = Tree(BUILD / f"mutation-{number}", preset)
    tree.refresh()
    tree.configure()
    if not tree.make(["all"]):
        raise Failure("the unchanged code does not build")
    return tree


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/mutation --random", description=__doc__.split("\n", 1)[0])
    parser.add_argument("count", type=int, help="so many mutants that compile")
    parser.add_argument("words", nargs="*", metavar="WORD", help="only in files whose path holds one of these")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1_000_000))
    parser.add_argument("--near", action="store_true", help="only the nearest tests: the rate is a lower bound")
    parser.add_argument("--again", action="store_true", help="first judge the survivors of an earlier run with this seed again")
    parser.add_argument("--trees", type=int, default=1, help="how many are tried at a time (1)")
    parser.add_argument(
        "--preset", default="release", help="the build that is broken (release; asan sees what is not released)"
    )
    parser.add_argument("--want", type=float, default=97.0, help="fail below this kill rate, in per cent (97)")
    arguments = parser.parse_intermixed_args()

    print(f"-- seed {arguments.seed}, {arguments.trees} trees, {arguments.preset}", flush=True)
    trees = [prepare(number, arguments.preset) for number in range(arguments.trees)]
    every = places_of(trees[0], arguments.words, BUILD / "mutation-places.json")
    if not every:
        raise Failure("there is nothing to break")
    print(f"-- {len(every)} places", flush=True)

    record = Record(BUILD / "mutation-verdicts" / f"{'-'.join([str(arguments.seed), *arguments.words])}.jsonl")
    units = unit_programs(trees[0])
    sound = {tree.folder: {file: Compiled(tree, command) for file, command in compile_commands(tree).items()} for tree in trees}

    def judged(tree: Tree, mutant: Mutant) -> Verdict:
        return judge(tree, mutant, units.get(mutant.file, []), sound[tree.folder][mutant.file], arguments.near)

    rounds = Rounds(trees, judged, record)
    rounds.run(drawn(every, arguments.seed), arguments.count, arguments.again)
    return say_result(rounds, arguments.want)


def say_result(rounds: Rounds, want: float) -> int:
    for failure in rounds.failures:
        print(f"NOT CHECKED, {failure}")
    counted = rounds.counted()
    survivors = [each.mutant for each in counted if not each.caught_by]
    near = any(each.near and not each.caught_by for each in counted)
    rate = 100 * (len(counted) - len(survivors)) / max(1, len(counted))
    for folder in FOLDERS:
        inside = [each for each in counted if each.mutant.file.startswith(folder)]
        if inside:
            print(f"{folder} {sum(1 for each in inside if each.caught_by)} of {len(inside)} caught")
    for mutant in survivors:
        print(
            f'[[survivor]]\nfile = "{mutant.file}"\nfunction = "{mutant.function}"\nline = {json.dumps(line_of(mutant))}\n'
            f"change = {json.dumps(mutant.title)}\n"
            + (f"behind = {json.dumps(text_before(mutant))}\n" if line_of(mutant).count(mutant.old) > 1 else "")
            + f"reason = {json.dumps(rounds.excuse(mutant).reason)}\n"
        )
    print(
        f"kill rate: {'at least ' if near else ''}{rate:.1f} % of {len(counted)}, "
        f"{len(rounds.verdicts) - len(counted)} without a difference"
    )
    print(f"{len(counted) - len(survivors)} passed, {len(survivors)} failed")
    return 0 if counted and not rounds.failures and rate >= want else 1


if __name__ == "__main__":
    as_program("scripts/mutation", main)
