"""The table of faults in docs/reliability.md: it says what the tests assert, and leaves nothing out."""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path

import pytest
from fault_table import BEGIN, END, MODULES, PAGE, SLOW_TEST, name_of_test, neighbours_of, page_with, rendered
from faults import Impossible, Kind, Row

HERE = Path(__file__).parent
CONTRACT = HERE.parent


def rows() -> list[tuple[str, Row]]:
    """Every row with the file it is in."""
    return [
        (module, row)
        for module in MODULES
        for neighbour in neighbours_of(module)
        for row in neighbour.rows
        if isinstance(row, Row)
    ]


@pytest.fixture(scope="module")
def tests() -> set[str]:
    """All tests that a row may name: as "file.py::test[id]", and without the id."""
    names = {name_of_test(row, module).split("::")[0] for module, row in rows()} | {f"{module}.py" for module in MODULES}
    files = sorted(str(path) for path in CONTRACT.glob("*/test_*.py") if path.name in names)
    assert len(files) == len(names)
    collect = [sys.executable, "-m", "pytest", "--collect-only", "-q", "-p", "no:cacheprovider", "-p", "no:xdist", *files]
    listed = subprocess.run(collect, cwd=HERE, capture_output=True, text=True, check=False)
    found = {re.sub("^([^:]*/)?", "", line) for line in listed.stdout.splitlines() if "::" in line}
    assert found, listed.stdout + listed.stderr
    return found | {name.split("[")[0] for name in found}


def test_the_page_holds_the_table_that_the_rows_give() -> None:
    page = PAGE.read_text()
    assert page.count(BEGIN) == page.count(END) == 1
    assert page == page_with(rendered(), page), "run /usr/bin/python3 tests/contract/harness/fault_table.py"


def test_every_neighbour_has_every_kind_of_fault_or_a_reason_against_it() -> None:
    for module in MODULES:
        for neighbour in neighbours_of(module):
            kinds = [kind for row in neighbour.rows for kind in (row.kinds if isinstance(row, Impossible) else (row.kind,))]
            assert set(kinds) == set(Kind), neighbour.title
            assert kinds == sorted(kinds, key=list(Kind).index), f"{neighbour.title}: in the order of the kinds"


def test_every_row_names_a_test_that_exists(tests: set[str]) -> None:
    assert [name for name in (name_of_test(row, module) for module, row in rows()) if name not in tests] == []


def test_every_name_of_test_a_fault_is_in_the_table(tests: set[str]) -> None:
    named = {name_of_test(row, module) for module, row in rows()}
    named |= {name.split("[")[0] for name in named if not name.split("::")[1].startswith("test_fault[")}
    ours = {name for name in tests if name.split(".")[0] in MODULES and not name.endswith("::test_fault")}
    assert {name for name in ours if name not in named and name.split("[")[0] not in named} == set()


def test_every_file_of_faults_is_in_the_table() -> None:
    assert sorted(path.stem for path in HERE.glob("test_faults_*.py")) == sorted([*MODULES, SLOW_TEST.partition(".")[0]])
