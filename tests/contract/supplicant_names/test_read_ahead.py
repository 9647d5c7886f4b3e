"""Whoever reads the list of access points in its order finds answers ready, and never one that is out of date for all it knows."""

from __future__ import annotations

from dbus_next import Message, MessageType, Variant
from older_name import LEFT, ROOT, OlderName, error_of
from vantora_sim.dbus_fake import PROPERTIES
from vantora_sim.wpa_supplicant import BSS, INTERFACE

STATION = f"{ROOT}/Interfaces/7"
COUNT = 60
AHEAD = 16
NEW = {"SSID": Variant("ay", b"new")}


def list_of(names: OlderName, count: int = COUNT) -> list[str]:
    """Have so many access points, and a caller that has just been given the list."""
    names.up()
    names.supplicant.bsss = [f"{STATION}/BSSs/{number}" for number in range(count)]
    answer = names.caller.call("Get", "ss", [INTERFACE, "BSSs"], interface=PROPERTIES)
    assert answer.body == [Variant("ao", names.supplicant.bsss)]
    return names.supplicant.bsss


def list_that_was_asked_ahead_and_is_old(names: OlderName) -> list[str]:
    """A list of which the next few have been asked for, and wpa_supplicant says "new" of each since then."""
    listed = list_of(names)
    names.caller.get_all(listed[0])
    names.wait_call("GetAll", times=1 + AHEAD)
    names.supplicant.reply("GetAll", "a{sv}", [NEW])
    return listed


def paths(names: OlderName, mark: int = 0) -> list[str]:
    """The access points that wpa_supplicant has been asked for, in order."""
    return [entry.path for entry in names.calls("GetAll", mark)]


def is_about(answer: Message, path: str) -> bool:
    """Whether it is the answer that wpa_supplicant gives for this access point."""
    return answer.message_type is MessageType.METHOD_RETURN and bool(answer.body[0]["SSID"] == Variant("ay", path.encode()))


def test_a_list_is_read_in_order_each_access_point_once(names: OlderName) -> None:
    listed = list_of(names)
    for _ in range(3):
        mark = names.journal.mark()
        reader = names.another_caller()  # not the one that asked for the list
        assert all(is_about(reader.get_all(path), path) for path in listed)
        assert paths(names, mark) == listed
        assert {(entry.interface, tuple(entry.args)) for entry in names.calls("GetAll", mark)} == {(PROPERTIES, (BSS,))}


def test_the_next_few_are_asked_for_before_the_caller_does(names: OlderName) -> None:
    listed = list_of(names)
    mark = names.journal.mark()
    names.caller.get_all(listed[0])
    names.wait_call("GetAll", mark, times=1 + AHEAD)
    names.settle()
    assert paths(names, mark) == listed[: 1 + AHEAD]


def test_a_single_read_in_the_middle_asks_for_nothing_else(names: OlderName) -> None:
    listed = list_of(names)
    mark = names.journal.mark()
    for path in (listed[5], listed[9], listed[3], "/not/in/the/list"):
        assert is_about(names.caller.get_all(path), path)
    names.settle()
    assert paths(names, mark) == [listed[5], listed[9], listed[3], "/not/in/the/list"]


def test_an_answer_is_not_used_after_wpa_supplicant_has_said_anything(names: OlderName) -> None:
    listed = list_that_was_asked_ahead_and_is_old(names)
    mark = names.journal.mark()
    names.supplicant.emit(listed[1], BSS, "PropertiesChanged", "a{sv}", [NEW])
    names.settle()  # the bus has given the signal to everybody by now
    assert names.caller.get_all(listed[1]).body == [NEW]
    assert paths(names, mark)[0] == listed[1]


def test_an_answer_is_not_used_after_the_caller_has_called_something_else(names: OlderName) -> None:
    listed = list_that_was_asked_ahead_and_is_old(names)
    names.caller.call("Scan", "a{sv}", [{"Type": Variant("s", "active")}])
    assert names.caller.get_all(listed[1]).body == [NEW]


def test_an_answer_is_not_used_once_it_is_old(names: OlderName) -> None:
    listed = list_that_was_asked_ahead_and_is_old(names)
    # Another caller's call that is answered after so long, since nobody tells of time passing.
    names.supplicant.slow("Wait", 5.2)
    assert names.another_caller().call("Wait").message_type is MessageType.METHOD_RETURN
    assert names.caller.get_all(listed[1]).body == [NEW]


def test_an_answer_is_not_used_by_another_caller(names: OlderName) -> None:
    listed = list_that_was_asked_ahead_and_is_old(names)
    assert names.another_caller().get_all(listed[1]).body == [NEW]


def test_an_answer_is_used_once(names: OlderName) -> None:
    listed = list_of(names)
    names.caller.get_all(listed[0])
    names.caller.get_all(listed[1])
    names.supplicant.reply("GetAll", "a{sv}", [NEW])
    assert names.caller.get_all(listed[1]).body == [NEW]


def test_an_error_is_not_kept_for_the_caller(names: OlderName) -> None:
    listed = list_of(names)
    names.supplicant.refuse("GetAll", on=listed[1], name="a.b", text="once", times=1)
    names.caller.get_all(listed[0])
    names.wait_call("GetAll", times=1 + AHEAD)
    names.settle()
    assert is_about(names.caller.get_all(listed[1]), listed[1])


def test_a_caller_that_comes_before_the_answer_gets_that_one(names: OlderName) -> None:
    listed = list_of(names)
    names.supplicant.hang("GetAll", on=listed[2])
    names.supplicant.refuse("GetAll", on=listed[3], name="a.b", text="no")
    mark = names.journal.mark()
    assert [is_about(names.caller.get_all(path), path) for path in listed[:2]] == [True, True]
    waiting = names.caller.start("GetAll", "s", [BSS], path=listed[2], interface=PROPERTIES)
    names.wait_call("GetAll", mark, times=1 + AHEAD)
    assert not waiting.done()
    names.supplicant.clear()
    assert is_about(waiting.result(20), listed[2])
    assert paths(names, mark).count(listed[2]) == 1


def test_wpa_supplicant_dies_in_the_middle_of_a_list(names: OlderName) -> None:
    listed = list_of(names)
    assert is_about(names.caller.get_all(listed[0]), listed[0])
    names.supplicant.hang("GetAll")
    names.supplicant.emit(ROOT, "fi.w1.wpa_supplicant1", "Told", "", [])
    names.settle()
    mark = names.journal.mark()
    waiting = names.caller.start("GetAll", "s", [BSS], path=listed[0], interface=PROPERTIES)
    names.wait_call("GetAll", mark, times=1 + AHEAD)
    more = names.caller.start("GetAll", "s", [BSS], path=listed[1], interface=PROPERTIES)
    names.supplicant.go()
    assert [error_of(future.result(20)) for future in (waiting, more)][0] == LEFT
    assert error_of(more.result(20))[0].startswith("org.freedesktop.DBus.Error.")
    names.supplicant.clear()
    names.supplicant.come_back()
    names.wait_owned()
    mark = names.journal.mark()
    assert is_about(names.caller.get_all(listed[1]), listed[1])
    names.settle()
    assert paths(names, mark) == [listed[1]]  # the old list is forgotten


def test_a_new_list_takes_the_place_of_the_old_one(names: OlderName) -> None:
    list_of(names)
    names.supplicant.bsss = [f"{STATION}/BSSs/{number}" for number in range(100, 104)]
    names.caller.call("Get", "ss", [INTERFACE, "BSSs"], interface=PROPERTIES)
    mark = names.journal.mark()
    assert all(is_about(names.caller.get_all(path), path) for path in names.supplicant.bsss)
    assert paths(names, mark) == names.supplicant.bsss
