"""What `scripts/bench --exact` makes of what its tools write, and that `--check` finds what has become dearer."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import pytest
from conftest import ROOT

sys.path.insert(0, str(ROOT / "bench"))

from vantora_bench.exact.baseline import Baseline  # noqa: E402
from vantora_bench.exact.callgrind import Profile  # noqa: E402
from vantora_bench.exact.cli import report  # noqa: E402
from vantora_bench.exact.counts import Counts, difference, tidy, total  # noqa: E402
from vantora_bench.exact.strace import up_to_ready  # noqa: E402
from vantora_bench.exact.trace import Trace  # noqa: E402

MADE_WITH = {"compiler": "c++ 12.2.0", "libc6": "2.36"}
COUNTS: Counts = {"instructions": 28000, "allocations": 19, "calls.read": 4, "user bus.sent_bytes": 61, "waits": 9}


def baseline(counts: Counts | None = None, **made_with: str) -> Baseline:
    return Baseline(
        {**MADE_WITH, **made_with}, {"Mode": {"daemon": {**COUNTS, **(counts or {})}, "floor": {"instructions": 5000}}}
    )


def failures(found: Baseline) -> list[str]:
    return baseline().compare(found).failures


# The comparison


def test_the_same_counts_pass() -> None:
    comparison = baseline().compare(baseline())
    assert (comparison.failures, comparison.notes) == ([], [])


def test_a_growth_of_three_percent_is_found() -> None:
    assert failures(baseline({"instructions": 28840})) == ["Mode, daemon: instructions 28,000 -> 28,840 (+3.0%): dearer"]


def test_a_growth_of_two_percent_is_allowed() -> None:
    assert failures(baseline({"instructions": 28560})) == []


@pytest.mark.parametrize("name", ["calls.read", "user bus.sent_bytes", "waits", "allocations"])
def test_one_more_of_a_few_is_found(name: str) -> None:
    (failure,) = failures(baseline({name: COUNTS[name] + 2}))
    assert failure.startswith(f"Mode, daemon: {name} ") and failure.endswith(": dearer")


def test_a_system_call_that_was_not_there_is_found() -> None:
    assert failures(baseline({"calls.fsync": 1})) == ["Mode, daemon: calls.fsync 0 -> 1 (new): dearer"]


def test_what_has_become_cheaper_invites_to_lower_the_baseline() -> None:
    found = baseline({"instructions": 20000})
    found.figures["Mode"]["daemon"].pop("calls.read")
    comparison = baseline().compare(found)
    assert comparison.failures == []
    assert comparison.notes == [
        "Mode, daemon: calls.read 4 -> 0 (-100.0%): cheaper; lower the baseline",
        "Mode, daemon: instructions 28,000 -> 20,000 (-28.6%): cheaper; lower the baseline",
    ]


def test_a_figure_that_was_not_counted_is_a_failure() -> None:
    found = baseline()
    del found.figures["Mode"]["floor"]
    assert failures(found) == ["Mode, floor: not counted"]
    found.figures.clear()
    assert failures(found) == ["Mode, daemon: not counted", "Mode, floor: not counted"]


def test_a_figure_without_its_instructions_was_not_counted() -> None:
    found = baseline()
    del found.figures["Mode"]["daemon"]["instructions"]
    assert failures(found) == ["Mode, daemon: not counted"]


def test_a_figure_that_the_baseline_does_not_know_is_a_failure() -> None:
    found = baseline()
    found.figures["Scan"] = {"daemon": dict(COUNTS)}
    assert failures(found) == ["Scan, daemon: not in the baseline"]


def test_with_another_compiler_only_what_does_not_depend_on_it_is_compared() -> None:
    found = baseline({"instructions": 99999, "allocations": 99, "calls.read": 5}, compiler="c++ 14.1.0")
    comparison = baseline().compare(found)
    assert comparison.failures == ["Mode, daemon: calls.read 4 -> 5 (+25.0%): dearer"]
    assert comparison.notes == [
        "made with another compiler (c++ 14.1.0, not c++ 12.2.0): only what does not depend on it is compared"
    ]


def test_the_status_says_whether_something_is_dearer(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    path = tmp_path / "baseline.toml"
    assert report(baseline(), baseline(), path) == 0
    assert report(baseline(), baseline({"waits": 10}), path) == 1
    assert "FAILED: Mode, daemon: waits 9 -> 10 (+11.1%): dearer" in capsys.readouterr().out


def test_what_is_written_is_read_again(tmp_path: Path) -> None:
    path = tmp_path / "baseline.toml"
    baseline({"calls.read": 2.5}).save(path)
    assert Baseline.load(path) == baseline({"calls.read": 2.5})


def test_the_baseline_of_this_tree_can_be_read_and_holds_every_figure() -> None:
    kept = Baseline.load(ROOT / "bench/baseline.toml")
    assert {"compiler", "libc6", "libsystemd0", "valgrind"} <= set(kept.made_with)
    assert {
        "start to READY=1",
        "WiFiAccessPointInitialised",
        "Mode",
        "GetAll",
        "AccessPoints, 10 BSSs",
        "AccessPoints, 100 BSSs",
        "AccessPoints, 1,000 BSSs",
        "event",
        "20 stations leave",
        "a setting stored",
        "vantora-wifi status",
    } <= set(kept.figures)
    assert all("floor" in sides for sides in kept.figures.values())


def test_check_without_exact_is_refused() -> None:
    ran = subprocess.run(
        ["/usr/bin/python3", "-c", "import sys; from vantora_bench.cli import main; sys.exit(main(['--check']))"],
        env={"PYTHONPATH": f"{ROOT}/bench:{ROOT}/simulator"},
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )
    assert ran.returncode == 2 and "--check goes with --exact" in ran.stderr


# Arithmetic


def test_what_is_in_both_runs_falls_away() -> None:
    assert difference({"a": 30, "b": 7}, {"a": 10, "b": 7}, 10) == {"a": 2, "b": 0}


def test_numbers_are_kept_whole_where_they_are() -> None:
    assert tidy({"b": 2.0, "a": 0.333333, "c": 0.0}) == {"a": 0.33, "b": 2}
    assert total({"a": 1}, {"a": 2, "b": 3}) == {"a": 3, "b": 3}


# What callgrind writes

PROFILE = """\
totals: 0
fn=(1) main
cfn=(2) malloc
calls=3 0
0 300
fn=(2)
0 300
cfn=(3) beat(sd_event_source*, unsigned long, void*)
calls=2 0
0 10
cfn=(2)
calls=1 0
0 100
cfn=(4) realloc
calls=5 0
0 1
totals: 1234
"""


def test_instructions_allocations_and_calls_are_read_from_a_profile() -> None:
    profile = Profile.read(PROFILE.removeprefix("totals: 0\n"))
    assert (profile.instructions, profile.allocations, profile.times("beat")) == (1234, 4, 2)


# What strace writes


def hexadecimal(text: bytes) -> str:
    return "".join(f"\\x{byte:02x}" for byte in text)


BUS = hexadecimal(b"/run/user/0/bus")
CALL, REPLY, REST = (hexadecimal(text) for text in (b"l\1\0\1", b"l\2\1\1", b"/com"))
REQUEST = f"""\
7 epoll_wait(4, [{{events=EPOLLIN}}], 8, -1) = 1
7 recvmsg(3, {{msg_iov=[{{iov_base="{CALL}"..., iov_len=24}}]}}, 0) = 24
7 recvmsg(3, {{msg_iov=[{{iov_base="{REST}"..., iov_len=100}}]}}, 0) = 100
7 pipe2([5, 6], O_CLOEXEC) = 0
7 clone3({{flags=CLONE_VM|CLONE_VFORK}}, 88 <unfinished ...>
8 dup2(6, 1) = 1
8 execve("/bin/sh", [], 0x1) = 0
8 brk(NULL) = 0x1
8 vfork( <unfinished ...>
9 close(1) = 0
9 exit_group(0) = ?
8 <... vfork resumed>) = 9
8 exit_group(0) = ?
7 <... clone3 resumed>) = 8
7 read(5, "a", 9) = 1
7 futex(0x1, FUTEX_WAKE, 1) = 1
7 wait4(8, [0], 0, NULL) = 8
7 sendmsg(3, {{msg_iov=[{{iov_base="{REPLY}"..., iov_len=56}}]}}, 0) = 56
"""
START = f"""\
7 execve("/daemon", [], 0x1) = 0
7 connect(3, {{sa_family=AF_UNIX, sun_path="{BUS}"}}, 18) = 0
7 timerfd_create(CLOCK_MONOTONIC, 0) = 12
"""
BEAT = """\
7 epoll_wait(4, [{events=EPOLLIN}], 8, -1) = 1
7 read(12, "\\x01", 8) = 8
7 gettid() = 7
7 timerfd_settime(12, 0, {}, NULL) = 0
"""


def counted(*texts: str) -> Counts:
    trace = Trace()
    window = trace.window("".join(texts).splitlines())
    return tidy(trace.counts(window))


def test_a_request_is_counted_with_its_messages_its_children_and_its_waits() -> None:
    counts = difference(counted(START, REQUEST, REQUEST, BEAT), counted(START, REQUEST, BEAT), 1)
    assert tidy(counts) == {
        "calls.clone3": 1,
        "calls.epoll_wait": 1,
        "calls.pipe2": 1,
        "calls.read": 1,
        "calls.recvmsg": 2,
        "calls.sendmsg": 1,
        "calls.wait4": 1,
        "processes": 2,
        "user bus.received": 1,
        "user bus.received_bytes": 124,
        "user bus.sent": 1,
        "user bus.sent_bytes": 56,
        "waits": 4,
    } | {"child.dup2": 1, "child.execve": 1}


def test_the_heartbeat_is_left_out() -> None:
    once, more = counted(START, REQUEST, BEAT, REQUEST), counted(START, REQUEST, BEAT, BEAT, BEAT, REQUEST)
    assert once == more


def test_a_look_that_comes_too_early_is_left_out() -> None:
    early = "7 recvmsg(3, {msg_iov=[]}, 0) = -1 EAGAIN (Resource temporarily unavailable)\n7 ppoll([{fd=3}], 1, NULL) = 1\n"
    assert counted(START, REQUEST, BEAT) == counted(START, REQUEST, early, BEAT)


def test_a_listener_counts_when_something_came() -> None:
    thread = "7 clone3({flags=CLONE_VM|CLONE_THREAD}, 88) = 10\n"
    idle = "10 pselect6(5, [4], NULL, NULL, {tv_sec=1}, NULL) = 0 (Timeout)\n"
    event = '10 recvfrom(4, "\\x3c", 4095, 0, NULL, NULL) = 37\n' + idle
    without = counted(START, thread, idle, idle, idle)
    assert "calls.pselect6" not in without
    found = difference(counted(START, thread, idle, event, idle), without, 1)
    assert tidy(found) == {"calls.pselect6": 1, "calls.recvfrom": 1, "waits": 1}


READY = hexadecimal(b"READY=1")


@pytest.mark.parametrize(
    "said",
    [
        [f'7 sendmsg(4, {{iov_base="{READY}"}}) = 7'],
        [f'7 sendmsg(4, {{iov_base="{READY}"}} <unfinished ...>', "9 pselect6(5) = 0", "7 <... sendmsg resumed>) = 7"],
    ],
    ids=["in one line", "with another thread's call in between"],
)
def test_a_start_ends_with_the_word_that_it_is_over(said: list[str]) -> None:
    counts = Trace()
    window = counts.window(up_to_ready([*START.splitlines(), *said, "7 close(4) = 0"]))
    found = counts.counts(counts.rest(window))
    assert (found["calls.sendmsg"], "calls.close" in found, "calls.pselect6" in found) == (1, False, False)
