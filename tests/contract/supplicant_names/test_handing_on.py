"""Calls of the older name reach wpa_supplicant as they are, and so do its answers their caller."""

from __future__ import annotations

from typing import Any

import pytest
from dbus_next import MessageFlag, MessageType, Variant
from older_name import FIRST, INTERFACE_UNKNOWN, NEWER, OLDER, ROOT, OlderName, error_of
from vantora_sim import call
from vantora_sim.wpa_supplicant import INTERFACE

STATION = f"{ROOT}/Interfaces/7"
NESTED = Variant("(yv)", [7, Variant("a{s(ao)}", {"": [["/", "/a/b"]]})])
BODIES: list[tuple[str, list[Any]]] = [
    ("", []),
    ("s", [""]),
    ("s", ["Ünïcödé \u2028 \U0001F4F6"]),
    ("o", [FIRST]),
    ("g", ["a{sv}"]),
    ("ybnqiuxtd", [255, True, -32768, 65535, -(2**31), 2**32 - 1, -(2**63), 2**64 - 1, 0.1]),
    ("ay", [bytes(range(256))]),
    ("ay", [b""]),
    ("ab", [[True, False]]),
    ("an", [[-1, 1]]),
    ("at", [[2**64 - 1]]),
    ("as", [["a", ""]]),
    ("as", [[]]),
    ("aas", [[[], ["x"], []]]),
    ("a{sv}", [{}]),
    ("a{sv}", [{"ssid": Variant("s", "net"), "psk": Variant("ay", b"\0\xff"), "nested": Variant("v", NESTED)}]),
    ("(i(ss)a(yd))v", [[1, ["a", "b"], [[2, 3.5]]], NESTED]),
    ("aaaay", [[[[b"", b"x"], []]]]),
    ("a{oa{sa{sv}}}", [{FIRST: {"a": {"b": Variant("u", 1)}}}]),
]


@pytest.mark.parametrize(("signature", "body"), BODIES, ids=lambda value: value if isinstance(value, str) else "")
def test_a_body_arrives_and_comes_back_as_it_is(names: OlderName, signature: str, body: list[Any]) -> None:
    names.up()
    answer = names.caller.call("Echo", signature, body)
    (seen,) = names.calls("Echo")
    assert (seen.signature, seen.args) == (signature, body)
    assert (answer.message_type, answer.signature, answer.body) == (MessageType.METHOD_RETURN, signature, body)


@pytest.mark.parametrize("interface", [INTERFACE, "org.freedesktop.DBus.Peer", "a.b", None])
@pytest.mark.parametrize("path", ["/", ROOT, f"{ROOT}/Interfaces/3", f"{FIRST}/BSSs/5", f"{FIRST}1", "/other"])
def test_object_interface_and_method_are_the_callers(names: OlderName, path: str, interface: str | None) -> None:
    names.up()
    names.caller.call("AnyMethod", path=path, interface=interface)
    (seen,) = names.calls("AnyMethod")
    assert (seen.path, seen.interface, seen.member) == (path, interface or "", "AnyMethod")


@pytest.mark.parametrize(
    ("kind", "name", "signature", "body"),
    [
        (MessageType.ERROR, f"{NEWER}.NetworkUnknown", "s", ["There is no such a network in this interface."]),
        (MessageType.ERROR, "org.freedesktop.DBus.Error.InvalidArgs", "s", ["100% \n of %s"]),
        (MessageType.ERROR, "a.b", "", []),
        (MessageType.ERROR, "a.b", "s", [""]),
        (MessageType.ERROR, "a.b", "ua{sv}as", [7, {"why": Variant("s", "x")}, []]),
        # Said by wpa_supplicant of some service of its own, not by the bus of wpa_supplicant.
        (MessageType.ERROR, "org.freedesktop.DBus.Error.ServiceUnknown", "s", ["no such service"]),
        (MessageType.METHOD_RETURN, None, "so", ["ok", "/a"]),
    ],
    ids=str,
)
def test_an_answer_comes_back_with_its_name_text_and_body(
    names: OlderName, kind: MessageType, name: str | None, signature: str, body: list[Any]
) -> None:
    names.up()
    names.supplicant.own = (kind, name, signature, body)
    answer = names.caller.call("Own")
    assert (answer.message_type, answer.error_name, answer.signature, answer.body) == (kind, name, signature, body)


def test_what_is_called_by_the_unique_name_is_handed_on_as_well(names: OlderName) -> None:
    names.up()
    owner = names.caller.owner()
    assert owner is not None
    assert names.caller.call("Echo", "u", [3], destination=owner).body == [3]


# The first object


def test_the_first_object_is_the_one_that_wlan0_has(names: OlderName) -> None:
    names.up()
    assert names.caller.call("Echo", "o", [FIRST]).body == [FIRST]  # a body is nobody's business
    (seen,) = names.calls("Echo")
    assert (seen.path, seen.args) == (STATION, [FIRST])
    names.logged("info", f"[Names] wlan0 is {STATION}")


def test_where_wlan0_is_the_first_object_nothing_changes(names: OlderName) -> None:
    names.supplicant.interfaces["wlan0"] = FIRST
    names.up()
    names.caller.call("Echo")
    assert [entry.path for entry in names.calls("Echo")] == [FIRST]


def test_wlan0_is_searched_once_and_again_when_it_may_be_another_object(names: OlderName) -> None:
    names.up()
    for _ in range(3):
        names.caller.call("Echo")
    assert len(names.calls("GetInterface")) == 1
    names.supplicant.renumber(f"{ROOT}/Interfaces/8")
    names.settle()
    mark = names.journal.mark()
    names.caller.call("Echo")
    names.caller.call("Echo")
    assert [entry.path for entry in names.calls("Echo", mark)] == [f"{ROOT}/Interfaces/8"] * 2
    assert len(names.calls("GetInterface", mark)) == 1


def test_another_wpa_supplicant_is_asked_anew(names: OlderName) -> None:
    names.up()
    names.supplicant.go()
    names.wait_owned(False)
    names.supplicant.interfaces["wlan0"] = f"{ROOT}/Interfaces/0"
    mark = names.journal.mark()
    names.supplicant.come_back()
    names.wait_owned()
    names.caller.call("Echo")
    assert [entry.path for entry in names.calls("Echo", mark)] == [f"{ROOT}/Interfaces/0"]


def test_without_wlan0_the_caller_gets_wpa_supplicants_own_word_for_it(names: OlderName) -> None:
    del names.supplicant.interfaces["wlan0"]
    names.up()
    assert error_of(names.caller.call("Echo")) == INTERFACE_UNKNOWN
    assert error_of(names.caller.call("Echo")) == INTERFACE_UNKNOWN
    assert names.calls("Echo") == []
    names.supplicant.interfaces["wlan0"] = STATION  # noticed without any signal, since nothing was found
    assert names.caller.call("Echo", "u", [1]).body == [1]


def test_a_wpa_supplicant_that_can_not_be_asked_has_wlan0_as_its_first_object(names: OlderName) -> None:
    names.supplicant.refuse("GetInterface", name="org.freedesktop.DBus.Error.UnknownMethod")
    names.up()
    names.caller.call("Echo")
    assert [entry.path for entry in names.calls("Echo")] == [FIRST]
    names.logged("info", "[Names] wpa_supplicant can not be asked for wlan0")


@pytest.mark.parametrize(("signature", "body"), [("", []), ("s", [FIRST]), ("u", [1]), ("ao", [[FIRST]])], ids=str)
def test_nonsense_in_the_place_of_wlan0s_object_goes_to_the_caller_and_no_further(
    names: OlderName, signature: str, body: list[Any]
) -> None:
    names.supplicant.reply("GetInterface", signature, body)
    names.up()
    answer = names.caller.call("Echo", "u", [1])
    assert error_of(answer)[0] == "org.freedesktop.DBus.Error.Failed"
    assert names.calls("Echo") == []
    names.supplicant.clear()
    assert names.caller.call("Echo", "u", [1]).body == [1]


# Many, in order, without an answer


def test_a_call_without_answer_is_handed_on_as_one(names: OlderName) -> None:
    names.up()
    mark = names.journal.mark()
    names.supplicant.refuse("Echo", times=1)
    names.caller.send("Echo", "u", [1])
    names.wait_call("Echo", mark)
    assert names.supplicant.flags[-1] == MessageFlag.NO_REPLY_EXPECTED
    names.settle()  # neither has its answer made trouble


def test_flags_are_handed_on(names: OlderName) -> None:
    names.up()
    flags = MessageFlag.NO_AUTOSTART | MessageFlag.ALLOW_INTERACTIVE_AUTHORIZATION
    names.caller.call("Echo", flags=flags)
    assert names.supplicant.flags[-1] == flags
    names.caller.call("Echo")
    assert names.supplicant.flags[-1] == MessageFlag.NONE


def test_calls_of_a_caller_stay_in_order_also_when_the_first_one_waits(names: OlderName) -> None:
    names.up()
    names.supplicant.renumber(STATION)
    names.supplicant.hang("GetInterface", times=1)
    names.settle()
    futures = [names.caller.start("Echo", "u", [number], path=FIRST if number % 2 == 0 else ROOT) for number in range(40)]
    names.wait_call("GetInterface", times=2)
    assert [entry.args for entry in names.calls("Echo") if entry.args] == []
    names.supplicant.release()
    assert [future.result(20).body for future in futures] == [[number] for number in range(40)]
    assert [entry.args for entry in names.calls("Echo") if entry.args] == [[number] for number in range(40)]


def test_any_number_of_calls_may_be_in_flight_and_hold_nobody_up(names: OlderName) -> None:
    names.up()
    names.supplicant.hang("Echo")
    callers = [names.another_caller() for _ in range(8)]
    waiting = [
        (caller.start("Echo", "us", [number, caller.name]), [number, caller.name])
        for number in range(100)
        for caller in callers
    ]
    names.wait_call("Echo", times=len(waiting))
    names.supplicant.own = (MessageType.METHOD_RETURN, None, "s", ["at once"])
    assert names.caller.call("Own").body == ["at once"]
    assert not any(future.done() for future, _ in waiting)
    names.supplicant.clear()
    assert [future.result(20).body for future, _ in waiting] == [body for _, body in waiting]


def test_each_caller_has_a_connection_that_is_left_to_the_next_one(names: OlderName) -> None:
    names.up()
    names.caller.call("Echo")
    before = names.connections()
    for _ in range(20):
        caller = names.another_caller()
        assert caller.call("Echo", "u", [1]).body == [1]
        caller.leave()
    names.settle()
    assert names.connections() <= before + 4


def test_signals_come_from_wpa_supplicant_alone_and_only_once(names: OlderName) -> None:
    names.up()
    heard: list[str] = []
    caller = names.another_caller()
    names.world.loop.call(
        lambda: caller.bus.add_message_handler(
            lambda message: heard.append(message.sender or "") if message.member == "Told" else None
        )
    )
    caller.ask_bus("AddMatch", "type='signal',member='Told'")
    names.supplicant.emit(STATION, INTERFACE, "Told", "u", [1])
    caller.call("Echo")
    caller.ask_bus("GetNameOwner", OLDER)
    assert heard == [names.caller.owner(NEWER)]


def test_introspection_is_wpa_supplicants(names: OlderName) -> None:
    names.up()
    answer = names.caller.call("Introspect", path=STATION, interface="org.freedesktop.DBus.Introspectable")
    direct = names.caller.call("Introspect", path=STATION, interface="org.freedesktop.DBus.Introspectable", destination=NEWER)
    assert (answer.message_type, answer.body) == (direct.message_type, direct.body)


def test_the_names_are_what_the_first_line_says(names: OlderName) -> None:
    names.up()
    names.logged("info", f"[Names] Starting: calls to {OLDER} go to {NEWER}")
    assert names.journal.count(call("Echo")) == 0
