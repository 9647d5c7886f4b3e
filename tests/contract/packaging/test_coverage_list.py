"""The list of lines that no test reaches: the functions and lines are there, and so are the tests that it relies on."""

from __future__ import annotations

import re
import runpy
from typing import Any

import pytest
from conftest import ROOT

REPORT = runpy.run_path(str(ROOT / "tests/coverage/report.py"))
ENTRIES = REPORT["Left"].read()


@pytest.mark.parametrize("entry", ENTRIES, ids=lambda entry: f"{entry.file}:{entry.function}")
def test_what_an_entry_names_is_there(entry: Any) -> None:
    source = (ROOT / entry.file).read_text()
    assert re.search(rf"\b{re.escape(entry.function)}\(", source)
    assert set(entry.lines) <= {line.strip() for line in source.splitlines()}
    assert entry.reason.endswith(".") and entry.tests
    for test in entry.tests:
        file, _, name = test.partition("::")
        text = (ROOT / "tests" / file).read_text()
        assert re.search(rf"def {name}\(|TEST(_F|_P)?\({name.replace('.', ', ')}\)", text), test


def test_no_line_of_a_function_is_excused_twice() -> None:
    named = [(entry.file, entry.function, line) for entry in ENTRIES for line in entry.lines]
    assert sorted(set(named)) == sorted(named)


@pytest.mark.parametrize(
    ("name", "expected"),
    [
        ("shell_run(std::__cxx11::basic_string<char, std::char_traits<char> > const&)", "shell_run"),
        ("DbusHelper::DbusConnector::State::open_bus(DbusHelper::Install)", "DbusHelper::DbusConnector::State::open_bus"),
        ("ShellPipe::~ShellPipe()", "ShellPipe::~ShellPipe"),
        ("settingsd::(anonymous namespace)::write_all(int, std::basic_string_view<char>)", "settingsd::write_all"),
        ("int (anonymous namespace)::ask<f()::{lambda()#1}>(f()::{lambda()#1})", "ask"),
        ("int sdbus_utils::detail::(anonymous namespace)::decode_basic<bool, int>(char)", "sdbus_utils::detail::decode_basic"),
    ],
)
def test_the_report_knows_functions_by_their_plain_names(name: str, expected: str) -> None:
    assert REPORT["plain"](name) == expected


def test_a_line_belongs_to_the_function_that_began_last_and_not_to_a_lambda() -> None:
    functions = [
        {"lineno": 10, "name": "f(int)"},
        {"lineno": 12, "name": "f(int)::{lambda()#1}::operator()() const"},
        {"lineno": 20, "name": "int g<f(int)::{lambda()#1}>(f(int)::{lambda()#1})"},
    ]
    assert [REPORT["function_at"](functions, number) for number in (9, 10, 13, 19, 20, 99)] == ["", "f", "f", "f", "g", "g"]
