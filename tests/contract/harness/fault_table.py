"""Writes the table of faults in docs/reliability.md from the rows that the tests try.

    /usr/bin/python3 tests/contract/harness/fault_table.py      # after a change of a row

test_fault_table.py fails when the table is not what this would write.
"""

from __future__ import annotations

import importlib
import sys
import textwrap
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
if __name__ == "__main__":
    sys.path[:0] = [str(ROOT / "simulator"), str(ROOT / "tests/contract/harness"), str(ROOT / "tests/contract/faults")]

from faults import REAL_TIMEOUT, SHORT_TIMEOUT, SUCCESS, Asked, Impossible, Line, Neighbour, Row, shown  # noqa: E402
from settings_texts import GET_BOOL, GET_STRING, PROPERTIES_CHANGED, SET_STRING  # noqa: E402

PAGE = ROOT / "docs/reliability.md"
BEGIN, END = (
    "<!-- The table of faults: written by tests/contract/harness/fault_table.py -->",
    "<!-- end of the table of faults -->",
)
MODULES = (
    "test_faults_user_bus",
    "test_faults_system_bus",
    "test_faults_settings_daemon",
    "test_faults_systemd",
    "test_faults_wpa_supplicant",
    "test_faults_hostapd",
    "test_faults_kernel_addresses",
    "test_faults_shell_tools",
    "test_faults_system_log",
)
"""The tests of faults, in the order of the table."""

SLOW_TEST = "test_faults_in_real_time.py::test_neighbours_that_hang_are_waited_for_as_long_as_on_a_device"
"""The test that tries all slow rows at once."""

ABBREVIATIONS = {
    GET_BOOL: "(GetSetting)",
    GET_STRING: "(GetSetting)",
    SET_STRING: "(SetSetting)",
    PROPERTIES_CHANGED: "(PropertiesChanged)",
}
"""Names of functions that fill more than a line."""

_LONGEST_ANSWER = 100

HEAD = """\
| Fault | The caller sees | Logged | Takes | Afterwards | Test |
|---|---|---|---|---|---|"""


def neighbours_of(module: str) -> list[Neighbour]:
    """The neighbours whose faults a file of tests is about."""
    loaded = importlib.import_module(module)
    return list(getattr(loaded, "NEIGHBOURS", None) or [loaded.NEIGHBOUR])


def name_of_test(row: Row, module: str) -> str:
    """The test of a row, as pytest names it within tests/contract."""
    if row.slow:
        return SLOW_TEST
    if not row.test:
        return f"{module}.py::test_fault[{row.id}]"
    return row.test if "::" in row.test else f"{module}.py::{row.test}"


def rendered() -> str:
    """The whole table."""
    return "\n".join(_neighbour(neighbour, module) for module in MODULES for neighbour in neighbours_of(module))


def page_with(table: str, page: str) -> str:
    """The page with this table in place of the one that it has."""
    before, rest = page.split(BEGIN, 1)
    after = rest.split(END, 1)[1]
    return f"{before}{BEGIN}\n\n{table}\n{END}{after}"


def _neighbour(neighbour: Neighbour, module: str) -> str:
    lines = [f"### {neighbour.title}", "", textwrap.fill(neighbour.about, 118), "", HEAD]
    logged_before: dict[str, str] = {}
    for row in neighbour.rows:
        if isinstance(row, Impossible):
            lines.append(f"| **{', '.join(row.kinds)}** | cannot be: {row.reason} | | | | |")
            continue
        test, logged = name_of_test(row, module), _logged(row)
        if logged in logged_before:
            logged = f"as for *{logged_before[logged]}*"
        elif "<br>" in logged:  # several lines: they stand once in a neighbour's table
            logged_before[logged] = row.kind
        cells = [f"**{row.kind}**: {row.how}", _seen(row), logged, _takes(row), row.after or "as before", f"`{test}`"]
        lines.append(f"| {' | '.join(cells)} |")
    return "\n".join([*lines, ""])


def _seen(row: Row) -> str:
    by_answer: dict[str, list[str]] = {}
    for asked in row.asked:
        names = by_answer.setdefault(asked.request.seen if asked.seen is None else asked.seen, [])
        if asked.request.name not in names:
            names.append(asked.request.name)
    answers = [f"{', '.join(names)}: {_answer(seen)}" for seen, names in by_answer.items()]
    return "<br>".join([row.text] * bool(row.text) + answers)


def _answer(seen: str) -> str:
    if len(seen) > _LONGEST_ANSWER:
        return f"`{seen[:_LONGEST_ANSWER // 4]}`... ({len(seen)} characters)"
    return seen if seen.startswith(SUCCESS) else f"`{seen}`"


def _logged(row: Row) -> str:
    """The warnings and errors that a request which goes well does not log; each line once."""
    found: list[Line] = []
    for asked in row.asked:
        usual = shown(asked.request.logs)
        found += [
            line for line in shown(usual if asked.logs is None else asked.logs) if line not in usual and line[0] != "info"
        ]
    found += row.lines
    return "<br>".join(dict.fromkeys(f"{priority} `{_abbreviated(text)}`" for priority, text in found)) or "nothing"


def _abbreviated(text: str) -> str:
    for long, short in ABBREVIATIONS.items():
        text = text.replace(long, short)
    return text


def _takes(row: Row) -> str:
    if row.takes:
        return row.takes
    waits: dict[str, list[str]] = {}
    for asked in row.asked:
        waits.setdefault(_wait(asked, bool(row.environment.get("SYSTEMD_BUS_TIMEOUT"))), []).append(asked.request.name)
    if len(waits) == 1:
        return next(iter(waits))
    return "<br>".join(f"{', '.join(dict.fromkeys(names))}: {wait}" for wait, names in waits.items())


def _wait(asked: Asked, shortened: bool) -> str:
    if asked.waits == 0:
        return "at once"
    if not shortened:
        return f"{asked.waits:g} s"
    times = round(asked.waits / SHORT_TIMEOUT)
    return f"{times} x {REAL_TIMEOUT:g} s" if times > 1 else f"{REAL_TIMEOUT:g} s"


def main() -> None:
    PAGE.write_text(page_with(rendered(), PAGE.read_text()))


if __name__ == "__main__":
    main()
