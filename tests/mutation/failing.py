"""Which of some tests fails first in a tree that may be broken."""

from __future__ import annotations

import os
import re
import signal
import subprocess
import threading
from collections import deque
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from nearest import UNIT_TESTS
from run import PYTHON, Failure, Tree, timed

FAILED = re.compile(r"\[gw\d+\] \[ *\d+%\] (?:FAILED|ERROR) (.+?)\s*$")
AT_ONCE = 3
"""So many tests run at a time: most of them wait, for others or for the clock."""
NOT_FOUND = (4, 5)
"""How pytest ends when there is no test of a name, as of some that are made of odd arguments."""
UNIT_LIMIT = 60
"""Seconds that a unit test program may take."""


def failed_contract(tree: Tree, files: list[Path], limit: float) -> str | None:
    """The first contract test that fails, and does so again alone, as a busy machine may fail one.

    None when all pass, or none has failed within the limit.
    """
    name = first_failure(tree, [str(path) for path in files], limit)
    again = name and first_failure(tree, [name], limit)
    return again.removeprefix("tests/contract/") if again else None


def first_failure(tree: Tree, tests: list[str], limit: float) -> str | None:
    """The name of the first test that is seen to fail; those that still wait for what does not come are not waited for."""
    command = [PYTHON, "-m", "pytest", *tests, "-v", "--tb=no", "-n", str(AT_ONCE), "--build-dir", str(tree.build)]
    command += ["-p", "no:cacheprovider"]
    said: deque[str] = deque(maxlen=40)
    with subprocess.Popen(
        command,
        cwd=tree.folder,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        errors="replace",
        start_new_session=True,
    ) as pytest:
        late = threading.Event()

        def end() -> None:
            late.set()
            os.killpg(pytest.pid, signal.SIGKILL)

        timer = threading.Timer(limit, end)
        timer.start()
        try:
            for line in pytest.stdout or ():
                said.append(line)
                if named := FAILED.match(line):
                    # Asked kindly, it would wait for the others' time-outs. What they have started ends with them.
                    os.killpg(pytest.pid, signal.SIGKILL)
                    return named[1]
        finally:
            timer.cancel()
            status = pytest.wait()
    if status in NOT_FOUND and "[" in tests[0]:
        return first_failure(tree, [tests[0].partition("[")[0]], limit)
    if status != 0 and not late.is_set():
        raise Failure(f"pytest ended with {status}:\n{''.join(said)}")
    return None


def failed_unit(tree: Tree, names: list[str]) -> str | None:
    """What fails in the first of the unit test programs in which anything does; None when all pass."""
    with ThreadPoolExecutor(AT_ONCE) as runners:
        try:
            return next(filter(None, runners.map(lambda name: failed_program(tree, name), names)), None)
        finally:
            runners.shutdown(cancel_futures=True)


def failed_program(tree: Tree, name: str) -> str | None:
    """The first test of a unit test program that fails, or how else it fails, twice; None when all pass."""
    for _ in range(2):
        status, output = timed([str(tree.build / UNIT_TESTS / name), "--gtest_fail_fast"], tree.build, UNIT_LIMIT)
        if status == 0:
            return None
        if output == "had to be ended":
            return f"{name}: it does not end"
        named = re.search(r"^\[  FAILED  \] (\w\S*?),? ", output, re.MULTILINE)
    return f"{name}: {named[1] if named else f'status {status}'}"
