"""Who owns the older name, and when: nobody while wpa_supplicant is not there, and never the program in wpa_supplicant's stead."""

from __future__ import annotations

from older_name import LEFT, NEWER, NOBODY, OLDER, Caller, OlderName, error_of, old_start
from vantora_sim import notify
from vantora_sim.dbus_fake import disconnect


def beaten_to_the_name(names: OlderName) -> Caller:
    """Have somebody else own the name by the time that wpa_supplicant comes; who it is."""
    other = names.another_caller()
    other.ask_bus_for_name(OLDER)
    names.start()
    names.supplicant.come_back()
    names.logged("info", f"[Names] {OLDER} has an owner, stepping aside")
    return other


def test_ready_is_said_before_wpa_supplicant_is_there(names: OlderName) -> None:
    names.start()
    names.settle_without_name()
    assert names.caller.owner() is None
    assert error_of(names.caller.call("Echo")) == NOBODY  # by the bus: so the texts of both are the same
    assert names.journal.count(notify("READY=1")) == 1


def test_the_name_comes_and_goes_with_wpa_supplicant(names: OlderName) -> None:
    names.start()
    for _ in range(3):
        mark = names.journal.mark()
        names.supplicant.come_back()
        names.wait_owned()
        owner = names.caller.owner(NEWER)
        names.logged("info", f"[Names] Standing in for {OLDER}", mark)
        assert names.caller.owner() not in (None, owner)
        names.supplicant.go()
        names.wait_owned(False)
        assert error_of(names.caller.call("Echo")) == NOBODY
        assert [text for _, text in names.journal.logs(mark) if "wlan0" not in text] == [
            f"[Names] wpa_supplicant is there: {owner}",
            f"[Names] Standing in for {OLDER}",
            "[Names] wpa_supplicant has gone",
        ]


def test_a_wpa_supplicant_that_is_there_already_is_found(names: OlderName) -> None:
    names.supplicant.come_back()
    names.start()
    names.wait_owned()
    assert names.caller.call("Echo", "u", [1]).body == [1]


def test_the_name_is_not_taken_before_wpa_supplicant_answers(names: OlderName) -> None:
    names.start()
    names.supplicant.hang("GetInterface")
    names.supplicant.come_back()
    names.wait_call("GetInterface")
    names.settle_without_name()
    assert names.caller.owner() is None
    names.supplicant.clear()
    names.wait_owned()


def test_a_wpa_supplicant_that_owns_the_older_name_gets_it_at_its_start_and_keeps_it(names: OlderName) -> None:
    names.start()
    names.supplicant.hang("GetInterface")
    for number in range(10):
        names.supplicant.come_back()  # it has its newer name, and answers nothing before its start is complete
        names.wait_call("GetInterface", times=number + 1)
        names.settle_without_name()
        assert names.supplicant.take(OLDER) == "PRIMARY_OWNER"
        names.supplicant.release()
        names.wait_log_count("info", f"[Names] {OLDER} has an owner, stepping aside", number + 1)
        assert names.caller.owner() == names.caller.owner(NEWER)
        names.supplicant.go()
        names.wait_until(lambda: names.caller.owner() is None, "both names to go")


def test_two_names_taken_one_right_after_the_other_are_never_beaten(names: OlderName) -> None:
    names.start()
    for _ in range(50):
        outcomes: list[str] = []
        bus = names.world.loop.run(old_start(names.world.system_bus.address, outcomes.append))
        assert outcomes == ["PRIMARY_OWNER", "PRIMARY_OWNER"]
        names.world.loop.run(disconnect(bus))


def test_the_name_is_taken_once_its_other_owner_lets_go_of_it(names: OlderName) -> None:
    other = beaten_to_the_name(names)
    assert names.caller.owner() == other.name
    other.leave()
    names.wait_owned()
    assert names.caller.call("Echo", "u", [1]).body == [1]


def test_nobody_waits_in_the_queue_for_the_name(names: OlderName) -> None:
    other = beaten_to_the_name(names)
    assert names.caller.ask_bus("ListQueuedOwners", OLDER)[0] == [other.name]


def test_another_wpa_supplicant_shows_as_another_owner_of_the_older_name(names: OlderName) -> None:
    names.start()
    owners = set()
    for _ in range(3):
        names.supplicant.come_back()
        names.wait_owned()
        owners.add(names.caller.owner())
        names.supplicant.go()
        names.wait_owned(False)
    assert len(owners) == 3


def test_another_wpa_supplicant_takes_the_first_ones_place(names: OlderName) -> None:
    names.up()
    names.supplicant.hang("Echo")
    waiting = names.caller.start("Echo")
    names.wait_call("Echo")
    mark = names.journal.mark()
    names.supplicant.go()
    names.supplicant.clear()
    names.supplicant.come_back()
    assert error_of(waiting.result(20)) == LEFT
    names.logged("info", f"[Names] Standing in for {OLDER}", mark)
    assert names.caller.call("Echo", "u", [1]).body == [1]
