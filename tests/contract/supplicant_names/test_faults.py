"""wpa_supplicant absent, hanging, dying, talking nonsense; callers that give up, leave and flood; a bus that goes."""

from __future__ import annotations

import signal

import pytest
from dbus_next import MessageType, Variant
from older_name import FIRST, LEFT, OLDER, PROGRAM, ROOT, OlderName, error_of
from odd_bus import OddBus
from vantora_sim import DEADLINE, log, notify

MEGABYTE = 1024 * 1024


# wpa_supplicant


def test_calls_in_flight_get_the_buss_own_error_when_wpa_supplicant_dies(names: OlderName) -> None:
    names.up()
    names.supplicant.hang("Echo")
    direct = names.another_caller()
    owner = names.caller.owner("fi.w1.wpa_supplicant1")
    seen = direct.start("Echo", destination=owner or "", path=ROOT)
    waiting = [names.caller.start("Echo", path=path) for path in (FIRST, ROOT, "/") for _ in range(20)]
    names.wait_call("Echo", times=61)
    names.supplicant.go()
    assert error_of(seen.result(DEADLINE)) == LEFT  # as without the program in between
    assert [error_of(future.result(DEADLINE)) for future in waiting] == [LEFT] * 60


def test_calls_that_still_wait_for_wlan0s_object_get_it_as_well(names: OlderName) -> None:
    names.up()
    names.supplicant.renumber(FIRST)
    names.settle()
    names.supplicant.hang("GetInterface")
    waiting = [names.caller.start("Echo", path=path) for path in (FIRST, ROOT, FIRST)]
    names.wait_call("GetInterface", times=2)
    other = names.another_caller()
    for _ in range(2):  # the bus reads from all its clients before it answers one: by the second answer all have come
        assert other.call("Echo", path=f"{ROOT}/Settle").body == []
    names.supplicant.go()
    assert [error_of(future.result(DEADLINE)) for future in waiting] == [LEFT] * 3
    assert names.calls("Echo", path=f"{ROOT}/Settle") == names.calls("Echo")  # none of those that waited
    assert len(names.calls("Echo")) == 3


def test_what_was_called_before_a_restart_is_not_done_after_it(names: OlderName) -> None:
    names.up()
    for _ in range(20):
        waiting = [names.caller.start("Echo", "s", ["before"]) for _ in range(5)]
        names.supplicant.go()
        for future in waiting:
            future.result(DEADLINE)
        mark = names.journal.mark()
        names.supplicant.come_back()
        names.wait_owned()
        names.caller.call("Echo", "s", ["after"])
        assert [entry.args for entry in names.calls("Echo", mark)] == [["after"]]


def test_a_wpa_supplicant_that_hangs_holds_nobody_else_up_and_no_answer_is_made_up(names: OlderName) -> None:
    names.up()
    names.supplicant.hang("Echo", on=f"{ROOT}/Interfaces/7")
    waiting = names.caller.start("Echo", "u", [1])
    names.wait_call("Echo")
    other = names.another_caller()
    assert [other.call("Echo", "u", [number], path=ROOT).body for number in range(50)] == [[number] for number in range(50)]
    assert not waiting.done()
    names.supplicant.clear()
    assert waiting.result(DEADLINE).body == [1]


def test_a_callers_time_out_is_its_own(names: OlderName) -> None:
    names.up()
    names.supplicant.hang("Echo", times=1)
    gave_up = names.world.sandbox.sh(f"busctl --system --timeout=1 call {OLDER} {FIRST} fi.w1.wpa_supplicant1.Interface Echo")
    assert gave_up.status == 1 and "timed out" in gave_up.stderr
    assert names.caller.call("Echo", "u", [1]).body == [1]
    names.supplicant.release()  # the answer to the first one finds nobody
    assert names.caller.call("Echo", "u", [2]).body == [2]
    assert names.process and names.process.running


def test_an_answer_comes_however_late(names: OlderName) -> None:
    names.up_with({"SYSTEMD_BUS_TIMEOUT": "1"})  # the library's own patience, which must not count
    names.supplicant.slow("Echo", 2.5)
    assert names.caller.call("Echo", "u", [1]).body == [1]


@pytest.mark.parametrize("size", [MEGABYTE, 16 * MEGABYTE])
def test_a_big_body_is_handed_on(names: OlderName, size: int) -> None:
    names.up()
    body = bytes(range(256)) * (size // 256)
    assert names.caller.call("Echo", "ay", [body]).body == [body]


def test_a_deep_body_is_handed_on(names: OlderName) -> None:
    names.up()
    value = Variant("u", 1)
    for _ in range(14):  # each adds a variant, an array and an entry: the bus allows 64 levels
        value = Variant("a{sv}", {"deeper": value})
    assert names.caller.call("Echo", "v", [value]).body == [value]


def test_many_values_are_handed_on(names: OlderName) -> None:
    names.up()
    body = {f"/a/b/{number}": {"value": Variant("s", "x" * (number % 50))} for number in range(2_000)}
    assert names.caller.call("Echo", "a{oa{sv}}", [body]).body == [body]


def test_a_refusal_by_the_bus_is_handed_back(names: OlderName) -> None:
    names.up()
    names.supplicant.refuse("Echo", name="org.freedesktop.DBus.Error.LimitsExceeded", text="too much")
    assert error_of(names.caller.call("Echo")) == ("org.freedesktop.DBus.Error.LimitsExceeded", "too much")


# Callers


def test_a_caller_that_leaves_leaves_nothing_behind(names: OlderName) -> None:
    names.up()
    names.caller.call("Echo")
    names.supplicant.hang("Echo", on="/hang")
    before = names.connections()
    for _ in range(10):
        other = names.another_caller()
        for _ in range(10):
            other.start("Echo", path="/hang")
        names.wait_until(lambda: names.connections() == before + 1, "a connection for the caller")
        other.leave()
        names.wait_until(lambda: names.connections() == before, "it to be closed")
    names.supplicant.clear()
    assert names.caller.call("Echo", "u", [1]).body == [1]


def test_a_flood_of_calls_without_answer_is_bounded_while_wpa_supplicant_hangs(names: OlderName) -> None:
    names.up()
    names.supplicant.renumber(FIRST)
    names.settle()
    names.supplicant.hang("GetInterface")
    mark = names.journal.mark()
    for number in range(3_000):
        names.caller.send("Echo", "u", [number])
    refused = names.caller.call("Echo", "u", [3_000])
    assert error_of(refused) == (
        "org.freedesktop.DBus.Error.Failed",
        "The call could not be handed on: No buffer space available",
    )
    names.supplicant.clear()
    names.wait_call("Echo", mark, times=1024)
    assert [entry.args for entry in names.calls("Echo", mark)] == [[number] for number in range(1024)]
    assert names.caller.call("Echo", "u", [1]).body == [1]


def test_a_flood_of_calls_is_answered_all_of_it(names: OlderName) -> None:
    names.up()
    callers = [names.another_caller() for _ in range(4)]
    for round_ in range(10):
        futures = [(caller.start("Echo", "uu", [round_, number]), number) for number in range(100) for caller in callers]
        assert all(future.result(DEADLINE).body == [round_, number] for future, number in futures)


def test_a_flood_of_signals_changes_nothing(names: OlderName) -> None:
    names.up()
    for number in range(2_000):
        names.supplicant.emit(FIRST, "org.freedesktop.DBus.Properties", "PropertiesChanged", "u", [number])
    names.supplicant.emit(ROOT, "fi.w1.wpa_supplicant1", "InterfaceAdded", "u", [1])
    assert names.caller.call("Echo", "u", [1]).body == [1]


# The bus, and the end


def test_it_ends_with_1_when_the_bus_goes(names: OlderName) -> None:
    names.up()
    names.world.system_bus.stop()
    assert names.process and names.process.wait() == 1
    names.logged("err", "[Names] Lost the system bus")


def test_it_ends_with_1_without_a_bus(names: OlderName) -> None:
    names.world.system_bus.stop()
    process = names.world.sandbox.start([names.program])
    assert process.wait() == 1
    names.logged("err", "[Names] Failed to connect to the system bus: -2")
    assert names.journal.count(notify("READY=1")) == 0


@pytest.mark.parametrize("misbehave", [OddBus.reject, OddBus.garble], ids=["refuses", "garbage"])
def test_it_ends_with_1_where_the_bus_does_not_let_it_in(names: OlderName, misbehave: object) -> None:
    with OddBus(names.world, names.world.system_bus) as bus:
        misbehave(bus)  # type: ignore[operator]
        process = names.world.sandbox.start([names.program], bus.environment)
        assert process.wait() == 1
    assert names.journal.count(notify("READY=1")) == 0


def test_it_ends_with_1_when_the_bus_talks_nonsense(names: OlderName) -> None:
    with OddBus(names.world, names.world.system_bus) as bus:
        names.start(environment=dict(bus.environment))
        bus.inject_garbage()
        assert names.process and names.process.wait() == 1


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_it_ends_with_0_when_asked_to_whatever_is_in_flight(names: OlderName, number: int) -> None:
    names.up()
    names.supplicant.hang("Echo")
    waiting = names.caller.start("Echo")
    names.wait_call("Echo")
    assert names.process and names.process.stop(number) == 0
    assert error_of(waiting.result(DEADLINE)) == LEFT  # by the bus
    names.journal.wait_for(log("info", "[Names] Ending", ident=PROGRAM))


def test_it_is_started_anew_in_the_middle(names: OlderName) -> None:
    names.up()
    for _ in range(3):
        assert names.process and names.process.stop(signal.SIGKILL) == -signal.SIGKILL
        names.wait_owned(False)
        names.start()
        names.wait_owned()
        assert names.caller.call("Echo", "u", [1]).body == [1]


def test_where_no_connection_is_to_be_had_the_caller_hears_of_it_and_the_next_one_is_served(names: OlderName) -> None:
    names.up()
    assert names.caller.call("Echo", "u", [1]).body == [1]
    assert names.process
    names.limit_descriptors(names.process.pid, 0)
    other = names.another_caller()
    answer = other.call("Echo")
    assert answer.message_type is MessageType.ERROR
    assert error_of(answer) == ("org.freedesktop.DBus.Error.Failed", "The call could not be handed on: Too many open files")
    assert names.caller.call("Echo", "u", [2]).body == [2]
    names.limit_descriptors(names.process.pid, 1024)
    assert other.call("Echo", "u", [3]).body == [3]
