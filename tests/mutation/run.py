"""Puts faults into the code one at a time and looks whether a test catches each.

A test suite says little about itself: a test that cannot fail looks like one that passes. So this works on a copy of the
tree, built with the address sanitizer (a missed release is a fault, too). It first runs all the named tests on the
unchanged code, where they must pass; then for each fault it replaces one piece of text, builds, runs the tests that
faults.toml names for it, and wants one of them to fail.
"""

import argparse
import contextlib
import os
import shutil
import subprocess
import sys
import time
import tomllib
from collections.abc import Callable, Iterator
from dataclasses import dataclass, fields
from pathlib import Path
from typing import NoReturn

ROOT = Path(__file__).resolve().parents[2]
FAULTS = Path(__file__).with_name("faults.toml")
PYTHON = "/usr/bin/python3"
PRESET = "asan"
DAEMONS = ["vantora-network", "vantora-settingsd", "vantora-sim-sandbox", "vantora-sim-tool"]
# A fault may make a program wait for ever; no single test program takes this long without one.
TIME_LIMIT = 300
SANITIZERS = {
    "ASAN_OPTIONS": "exitcode=86:detect_leaks=1:strict_string_checks=1",
    "UBSAN_OPTIONS": "exitcode=86:print_stacktrace=1",
}


class Failure(Exception):
    """What keeps the check itself from being made: no verdict about a test."""


@dataclass(frozen=True)
class Fault:
    name: str
    file: str
    old: str
    new: str
    unit: tuple[str, ...] = ()
    contract: tuple[str, ...] = ()

    @staticmethod
    def read(table: dict) -> "Fault":
        fault = Fault(
            table["name"],
            table["file"],
            table["old"],
            table["new"],
            tuple(table.get("unit", ())),
            tuple(table.get("contract", ())),
        )
        unknown = set(table) - {field.name for field in fields(Fault)}
        if unknown:
            raise Failure(f"{fault.name}: unknown keys {', '.join(sorted(unknown))}")
        if not fault.unit and not fault.contract:
            raise Failure(f"{fault.name}: names no test")
        return fault


class Tree:
    """A copy of the sources that may be broken."""

    def __init__(self, folder: Path, preset: str = PRESET) -> None:
        self.folder = folder
        self.preset = preset
        self.build = folder / "build" / preset

    def refresh(self) -> None:
        """Copies what has changed only, so that a second run builds little."""
        listed = run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], ROOT).stdout
        wanted = {name for name in listed.split("\0") if name and (ROOT / name).is_file()}
        for name in wanted:
            source, target = ROOT / name, self.folder / name
            if target.is_file() and target.read_bytes() == source.read_bytes():
                continue
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)
        for target in self.folder.rglob("*"):
            name = str(target.relative_to(self.folder))
            if target.is_file() and not name.startswith("build/") and name not in wanted:
                target.unlink()

    def configure(self) -> None:
        command = ["cmake", "--preset", self.preset]
        if shutil.which("ccache"):
            command.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
        if run(command, self.folder).returncode != 0:
            raise Failure("CMake cannot configure the copy")

    def make(self, targets: list[str]) -> bool:
        return run(["cmake", "--build", str(self.build), "--target", *targets], self.folder).returncode == 0


def run(
    command: list[str], folder: Path, limit: float = 1800, environment: dict[str, str] | None = None
) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        command,
        cwd=folder,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        errors="replace",
        timeout=limit,
        env=environment,
        check=False,
    )


def timed(command: list[str], folder: Path, limit: float = TIME_LIMIT) -> tuple[int, str]:
    """Status and output; one that had to be ended has failed."""
    try:
        ended = run(command, folder, limit, {**os.environ, **SANITIZERS})
    except subprocess.TimeoutExpired:
        return 1, "had to be ended"
    return ended.returncode, ended.stdout


def fails_unit(tree: Tree, name: str) -> bool:
    program = tree.build / "tests" / "unit" / name
    if not program.exists():
        raise Failure(f"there is no unit test program {name}")
    return timed([str(program)], tree.build)[0] != 0


def fails_contract(tree: Tree, selection: str) -> bool:
    file, _, narrowed = selection.partition(" -k ")
    (path,) = (tree.folder / "tests" / "contract").glob(f"*/{file}")
    command = [
        PYTHON,
        "-m",
        "pytest",
        str(path),
        "-x",
        "-q",
        "-n",
        "4",
        "-p",
        "no:cacheprovider",
        "--build-dir",
        str(tree.build),
    ]
    if narrowed:
        command += ["-k", narrowed]
    status, output = timed(command, tree.folder)
    if status != 0 and " failed" not in output and " error" not in output and "had to be ended" not in output:
        raise Failure(f"{selection}: pytest ended with {status}:\n{output[-2000:]}")
    return status != 0


def catcher(tree: Tree, fault: Fault) -> str | None:
    """The first of the fault's tests that fails; None when all pass."""
    for name in fault.unit:
        if fails_unit(tree, name):
            return name
    for selection in fault.contract:
        if fails_contract(tree, selection):
            return selection
    return None


def targets_of(fault: Fault) -> list[str]:
    return [*fault.unit, *(DAEMONS if fault.contract else [])]


def check_unchanged(tree: Tree, faults: list[Fault]) -> None:
    """All the tests that are to catch something pass on sound code."""
    if not tree.make(sorted({target for fault in faults for target in targets_of(fault)})):
        raise Failure("the unchanged code does not build")
    for name in sorted({name for fault in faults for name in fault.unit}):
        if fails_unit(tree, name):
            raise Failure(f"{name} fails without any fault")
    for selection in sorted({selection for fault in faults for selection in fault.contract}):
        if fails_contract(tree, selection):
            raise Failure(f"{selection} fails without any fault")


@contextlib.contextmanager
def planted(tree: Tree, name: str, file: str, old: str, new: str) -> Iterator[None]:
    """The copy with one piece of text replaced."""
    broken = tree.folder / file
    sound = broken.read_text()
    if sound.count(old) != 1:
        raise Failure(f"{name}: the text to replace stands {sound.count(old)} times in {file}")
    broken.write_text(sound.replace(old, new))
    try:
        yield
    finally:
        broken.write_text(sound)


def check(tree: Tree, fault: Fault) -> str | None:
    with planted(tree, fault.name, fault.file, fault.old, fault.new):
        if not tree.make(targets_of(fault)):
            raise Failure(f"{fault.name}: does not build")
        return catcher(tree, fault)


def main() -> int:
    parser = argparse.ArgumentParser(prog="scripts/mutation", description=__doc__.split("\n", 1)[0])
    parser.add_argument("words", nargs="*", metavar="WORD", help="only faults whose name or file holds one of these")
    parser.add_argument("--list", action="store_true", help="only list the faults")
    arguments = parser.parse_args()

    faults = [Fault.read(table) for table in tomllib.loads(FAULTS.read_text(encoding="utf-8"))["fault"]]
    if arguments.words:
        faults = [fault for fault in faults if any(word in fault.name or word in fault.file for word in arguments.words)]
    if arguments.list:
        for fault in faults:
            print(f"{fault.file}: {fault.name}")
        return 0
    if not faults:
        raise Failure("no such fault")

    tree = Tree(ROOT / "build" / "mutation")
    tree.refresh()
    tree.configure()
    print(f"-- the tests of {len(faults)} faults on the unchanged code", flush=True)
    check_unchanged(tree, faults)

    caught = 0
    for fault in faults:
        began = time.monotonic()
        try:
            by = check(tree, fault)
            verdict = f"caught by {by}" if by else "NOT CAUGHT"
        except Failure as failure:
            by, verdict = None, f"NOT CHECKED, {failure}"
        caught += by is not None
        print(f"{verdict}: {fault.name} ({fault.file}, {time.monotonic() - began:.0f} s)", flush=True)
    print(f"{caught} passed, {len(faults) - caught} failed")
    return 0 if caught == len(faults) else 1


def as_program(script: str, begin: Callable[[], int]) -> NoReturn:
    """Ends this program with the status that `begin` returns; with 2 and a line of its script's name where it cannot begin."""
    try:
        sys.exit(begin())
    except Failure as failure:
        print(f"{script}: {failure}", file=sys.stderr)
        sys.exit(2)


if __name__ == "__main__":
    as_program("scripts/mutation", main)
