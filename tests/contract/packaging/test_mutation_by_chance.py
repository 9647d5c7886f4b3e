"""`scripts/mutation --random`: which tests it asks first, what fails, what it writes down, and how it counts."""

from __future__ import annotations

import re
import sys
import time
from dataclasses import replace
from pathlib import Path

import pytest
from conftest import ROOT

sys.path.insert(0, str(ROOT / "tests/mutation"))

import rounds  # noqa: E402
from failing import first_failure  # noqa: E402
from mutant import Mutant  # noqa: E402
from nearest import contract_files  # noqa: E402
from run import Failure, Tree  # noqa: E402
from verdicts import Record, Verdict, moved  # noqa: E402


def mutant(line: int, old: str = "a < b", file: str = "src/core/heartbeat.cpp") -> Mutant:
    return Mutant(file, line, line * 10, line * 10 + len(old), old, "a <= b", "beat")


def verdict(of: Mutant, caught_by: str | None = "beat_test", compiles: bool = True) -> Verdict:
    return Verdict(of, caught_by, compiles, 1.0, True)


# The survivors


def test_a_survivor_that_is_named_can_still_be_planted() -> None:
    for excuse in rounds.excuses():
        old, arrow, _ = excuse.change.rpartition(" -> ")
        source = " ".join((ROOT / excuse.file).read_text().split())
        assert arrow and old in source and excuse.line in source, excuse
        assert re.search(rf"{re.escape(excuse.function)}\b", source), excuse
        assert excuse.reason.endswith("."), excuse


def test_of_the_same_change_of_two_like_lines_only_the_named_one_is_excused() -> None:
    lines = rounds.lines_of("client/daemon.cpp")
    first = next(number for number, line in enumerate(lines, 1) if line.strip() == "if (result >= 0) {")
    one, other = (Mutant("client/daemon.cpp", line, 0, 2, ">=", ">", "open_user_bus") for line in (first, first + 3))
    excuse = rounds.Excuse("client/daemon.cpp", "open_user_bus", rounds.text_from(other)[:60], ">= -> >", "Nobody can tell.")
    assert (excuse.is_for(one), excuse.is_for(other)) == (False, True)


def test_of_the_same_change_in_two_places_of_a_line_only_the_named_one_is_excused() -> None:
    text = (ROOT / "client/daemon.cpp").read_text()
    line = text.index("left % 1'000'000 * 1000")
    number = text.count("\n", 0, line) + 1
    places = [text.rindex("left", 0, line), line]
    assert text.rindex("\n", 0, line) < places[0]
    mutants = [Mutant("client/daemon.cpp", number, begin, begin + 4, "left", "0", "wait") for begin in places]
    excuse = rounds.Excuse(
        "client/daemon.cpp", "wait", "const timespec time", "left -> 0", "Fine.", behind="static_cast<long>("
    )
    assert [excuse.is_for(each) for each in mutants] == [False, True]


# Which tests are asked


@pytest.mark.parametrize(
    ("file", "nearest"),
    [
        ("src/core/wired_dhcp_server.cpp", "core/test_wired_dhcp_server.py"),
        ("src/radio/hostapd_config.cpp", "radio/test_hostapd_unit.py"),
        ("src/listeners/kernel_netlink_listener.cpp", "listeners/test_kernel_addresses.py"),
        ("src/radio/wpa_supplicant.cpp", "core/test_station_connect.py"),
        ("client/scan.cpp", "client/test_client_scan.py"),
        ("platform/settingsd/src/store.cpp", "config/test_real_settings_daemon.py"),
    ],
)
def test_the_contract_tests_with_most_words_in_common_come_first_and_none_is_left_out(file: str, nearest: str) -> None:
    files = contract_files(Tree(ROOT, "release"), file)
    assert nearest in [str(path.relative_to(ROOT / "tests/contract")) for path in files[:2]]
    assert sorted(files) == sorted((ROOT / "tests/contract").glob("*/test_*.py"))


# What fails first


TESTS = """
import time
import pytest

@pytest.fixture
def build_dir(request):
    return request.config.getoption("--build-dir")

@pytest.mark.parametrize("number", range(4))
def test_fine(number): pass

def test_broken(build_dir): assert build_dir == "sound"

def test_waits(): time.sleep(WAIT)
"""


def first_failure_of(tmp_path: Path, build: str, tests: list[str], waits: float = 0.0, limit: float = 60.0) -> str | None:
    (tmp_path / "conftest.py").write_text("def pytest_addoption(parser): parser.addoption('--build-dir')")
    (tmp_path / "test_some.py").write_text(TESTS.replace("WAIT", str(waits)))
    tree = Tree(tmp_path)
    tree.build = Path(build)
    return first_failure(tree, tests, limit)


def test_the_first_test_that_fails_is_named_and_the_others_are_not_waited_for(tmp_path: Path) -> None:
    began = time.monotonic()
    assert first_failure_of(tmp_path, "broken", ["test_some.py"], waits=600) == "test_some.py::test_broken"
    assert time.monotonic() - began < 60


def test_where_all_pass_or_none_has_failed_in_time_none_is_named(tmp_path: Path) -> None:
    assert first_failure_of(tmp_path, "sound", ["test_some.py"]) is None
    assert first_failure_of(tmp_path, "sound", ["test_some.py"], waits=600, limit=2) is None


def test_a_case_whose_name_is_not_found_is_looked_for_among_all_of_its_test(tmp_path: Path) -> None:
    assert first_failure_of(tmp_path, "broken", ["test_some.py::test_fine[9]"]) is None
    assert first_failure_of(tmp_path, "broken", ["test_some.py::test_broken[odd]"]) == "test_some.py::test_broken"


def test_tests_that_cannot_be_run_are_no_verdict(tmp_path: Path) -> None:
    with pytest.raises(Failure, match="^pytest ended with"):
        first_failure_of(tmp_path, "sound", ["test_other.py"])


# What is written down


def test_of_two_verdicts_about_the_same_fault_the_later_holds(tmp_path: Path) -> None:
    record = Record(tmp_path / "made" / "1.jsonl")
    assert record.read() == {}
    record.add(verdict(mutant(1), caught_by=None))
    record.add(verdict(mutant(2)))
    record.add(verdict(mutant(1)))
    assert record.read() == {mutant(1): verdict(mutant(1)), mutant(2): verdict(mutant(2))}


def test_a_fault_is_found_again_where_its_text_stands_now() -> None:
    assert moved(mutant(20), [mutant(3), mutant(22), mutant(21, old="a < c")]) == mutant(22)
    assert moved(mutant(20), [mutant(19), mutant(20)]) == mutant(20)
    assert moved(mutant(20), [mutant(20, file="src/core/main_loop.cpp")]) is None


# How faults are drawn and counted


class Judged:
    """Stands in for building and testing: says of the faults at these lines what is expected, and remembers who asked."""

    def __init__(self, survive: set[int] = frozenset(), broken: set[int] = frozenset(), same: set[int] = frozenset()) -> None:
        self._survive, self._broken, self._same = survive, broken, same
        self.asked: list[int] = []

    def __call__(self, _tree: Tree, of: Mutant) -> Verdict:
        self.asked.append(of.line)
        caught_by = None if of.line in self._survive | self._same else "beat_test"
        return replace(verdict(of, caught_by, of.line not in self._broken), same=of.line in self._same)


@pytest.fixture
def record(tmp_path: Path) -> Record:
    return Record(tmp_path / "1.jsonl")


def rounds_of(judged: Judged, record: Record, count: int, again: bool = False, shift: int = 0) -> rounds.Rounds:
    made = rounds.Rounds([Tree(ROOT, "release")], judged, record)
    made.run([mutant(line + shift, old=f"a < {line}") for line in range(1, 10)], count, again)
    return made


def test_what_does_not_compile_is_no_fault_and_another_is_drawn(record: Record) -> None:
    judged = Judged(survive={3}, broken={1})
    made = rounds_of(judged, record, 3)
    assert judged.asked == [1, 2, 3, 4]
    assert [each.caught_by for each in made.counted()] == ["beat_test", None, "beat_test"]


def test_what_compiles_to_the_same_is_no_fault_and_not_judged_again(record: Record) -> None:
    made = rounds_of(Judged(survive={3}, same={1}), record, 2)
    assert [each.mutant.line for each in made.counted()] == [2, 3]
    judged = Judged()
    assert [each.mutant.line for each in rounds_of(judged, record, 2, again=True).counted()] == [2, 3]
    assert judged.asked == [3]


def test_a_run_goes_on_where_an_earlier_one_ended(record: Record) -> None:
    rounds_of(Judged(survive={2}, broken={1}), record, 2)
    judged = Judged()
    made = rounds_of(judged, record, 5)
    assert judged.asked == [4, 5, 6]
    assert [each.caught_by for each in made.counted()].count(None) == 1


def test_survivors_are_judged_again_on_request_even_where_the_text_has_moved(record: Record) -> None:
    rounds_of(Judged(survive={2, 4}), record, 4)
    judged = Judged(survive={7})
    made = rounds_of(judged, record, 4, again=True, shift=3)
    assert judged.asked == [5, 7]
    assert [each.mutant.line for each in made.counted() if not each.caught_by] == [7]
    assert [each.mutant.line for each in record.read().values() if not each.caught_by] == [4]


def test_a_fault_that_makes_no_difference_does_not_count(record: Record, monkeypatch: pytest.MonkeyPatch) -> None:
    record.add(verdict(mutant(1), caught_by=None))
    text = rounds.line_of(mutant(1))
    file = "src/core/heartbeat.cpp"
    known = [rounds.Excuse(file, "beat", text, f"a < {name} -> a <= b", "Nobody can tell.", True) for name in "bc"]
    monkeypatch.setattr(rounds, "excuses", lambda: known)
    judged = Judged()
    made = rounds.Rounds([Tree(ROOT, "release")], judged, record)
    made.run([mutant(1), mutant(1, old="a < c"), mutant(1, old="a < d"), mutant(2, old="a < c")], 2, again=True)
    assert judged.asked == [1, 2]
    assert [each.mutant.title for each in made.counted()] == ["a < d -> a <= b", "a < c -> a <= b"]
    assert [each.mutant.title for each in made.verdicts][0] == "a < b -> a <= b"


def test_what_cannot_be_judged_ends_the_run_and_is_told(record: Record) -> None:
    def fails(_tree: Tree, _of: Mutant) -> Verdict:
        raise Failure("no compiler")

    made = rounds.Rounds([Tree(ROOT, "release")], fails, record)
    made.run([mutant(1), mutant(2)], 2, again=False)
    assert (made.failures, made.counted()) == (["src/core/heartbeat.cpp:1: no compiler"], [])
