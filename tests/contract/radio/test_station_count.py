"""The number of connected clients, asked of hostapd over its control socket, whatever hostapd answers."""

from __future__ import annotations

import shutil
import threading
import time

import pytest
from access_point import attached_up, receive
from vantora_sim import World, hostapd_request, log

ONE, TWO, THREE = "02:00:00:00:00:01", "02:00:00:00:00:02", "02:00:00:00:00:03"
RECORD_START = "\nflags=[AUTH][A"
INTERFACE = "com.vantora.Network1.WiFi"
NO_SOCKET = ("err", "hostapd_get_num_connected_clients: Could not connect to hostapd socket.")


def requests(world: World, since: int) -> list[str]:
    """What was asked of hostapd, in order."""
    return [entry.request for entry in world.journal.find(hostapd_request(), since)]


def test_stations_are_asked_for_by_the_first_32_bytes_of_each_record(world: World) -> None:
    attached_up(world)
    world.hostapd.stations += [ONE, TWO]
    mark = world.journal.mark()
    assert world.get("WiFiConnectedClients") == 2
    assert requests(world, mark) == ["STA-FIRST", f"STA-NEXT {ONE}{RECORD_START}", f"STA-NEXT {TWO}{RECORD_START}"]
    assert world.journal.logs(mark) == [("info", "Get 'WiFiConnectedClients' property")]


def test_no_station_counts_zero(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    assert world.get("WiFiConnectedClients") == 0
    assert requests(world, mark) == ["STA-FIRST"]


def test_station_that_left_and_lingers_is_not_counted_until_it_returns(world: World) -> None:
    attached_up(world)
    world.hostapd.stations += [ONE, TWO, THREE]
    receive(world, f"AP-STA-DISCONNECTED {TWO}")
    receive(world, f"AP-STA-DISCONNECTED {TWO}")
    world.settle()
    assert world.get("WiFiConnectedClients") == 2
    mark = receive(world, f"AP-STA-CONNECTED {TWO}")
    world.journal.wait_for(log("info", f"wifi_host_station_connected: {TWO}"), mark)
    world.settle()
    assert world.get("WiFiConnectedClients") == 3


def test_return_with_further_fields_does_not_forget_that_the_station_left(world: World) -> None:
    attached_up(world)
    world.hostapd.stations += [ONE]
    receive(world, f"AP-STA-DISCONNECTED {ONE}")
    mark = receive(world, f"AP-STA-CONNECTED {ONE} keyid=phone")
    world.journal.wait_for(log("info", f"wifi_host_station_connected: {ONE} keyid=phone"), mark)
    assert world.get("WiFiConnectedClients") == 0


@pytest.mark.parametrize(
    ("reply", "count", "following"),
    [
        (b"", 0, None),
        (b"FAIL\n", 0, None),
        (b"FAIL-BUSY\n", 0, None),
        (b"\0" + ONE.encode(), 0, None),
        (b"UNKNOWN COMMAND\n", 0, "UNKNOWN COMMAND\n"),
        (b"02:00:00:00:00:0", 0, "02:00:00:00:00:0"),
        (b"02:00:00:00:00:", 0, "02:00:00:00:00:"),
        (b":", 0, ":"),
        (ONE.encode(), 1, ONE),
        (ONE.encode() + b"\n" + b"x" * 14, 1, ONE + "\n" + "x" * 14),
        (ONE.encode() + b"\n" + b"x" * 4000, 1, ONE + "\n" + "x" * 14),
        (b"\xff\xfe:zz" + b"\xff" * 40, 1, None),
    ],
    ids=[
        "empty",
        "FAIL",
        "FAIL and more",
        "NUL",
        "unknown command",
        "cut in the last byte",
        "cut at the colon",
        "only a colon",
        "only the address",
        "exactly 32 bytes",
        "4 KB",
        "no text",
    ],
)
def test_odd_first_record(world: World, reply: bytes, count: int, following: str | None) -> None:
    attached_up(world)
    world.hostapd.answer("STA-FIRST", reply)
    world.hostapd.answer("STA-NEXT", b"")
    mark = world.journal.mark()
    assert world.get("WiFiConnectedClients") == count
    asked = requests(world, mark)
    assert asked[0] == "STA-FIRST"
    if following is not None:
        assert asked[1:] == [f"STA-NEXT {following}"]
    expected = [("info", "Get 'WiFiConnectedClients' property")]
    if reply.startswith(b"FAIL"):
        expected.append(("err", "wpa_socket_cmd: 'STA-FIRST' received 'FAIL' status."))
    assert world.journal.logs(mark) == expected


def test_refusal_in_the_middle_keeps_what_was_counted(world: World) -> None:
    attached_up(world)
    world.hostapd.stations += [ONE, TWO, THREE]
    world.hostapd.refuse("STA-NEXT", on=f"STA-NEXT {TWO}{RECORD_START}")
    mark = world.journal.mark()
    assert world.get("WiFiConnectedClients") == 2
    assert world.journal.logs(mark)[-1] == ("err", f"wpa_socket_cmd: 'STA-NEXT {TWO}{RECORD_START}' received 'FAIL' status.")


def test_hostapd_that_names_the_same_station_for_ever_is_left_after_2007(world: World) -> None:
    attached_up(world)
    world.hostapd.answer("STA-FIRST", ONE)
    world.hostapd.answer("STA-NEXT", ONE)
    world.hostapd.in_haste = True  # all of it has to be over within the ten seconds that a count may take
    mark = world.journal.mark()
    assert world.get("WiFiConnectedClients") == 2007
    assert len(requests(world, mark)) == 2007
    assert world.journal.logs(mark) == [("info", "Get 'WiFiConnectedClients' property")]
    world.hostapd.clear()
    assert world.get("WiFiConnectedClients") == 0


@pytest.mark.timeout(180)
def test_hostapd_that_hangs_is_given_up_after_ten_seconds(world: World) -> None:
    attached_up(world)
    world.hostapd.stations += [ONE]
    world.hostapd.hang("STA-NEXT")
    mark = world.journal.mark()
    before = time.monotonic()
    assert world.get("WiFiConnectedClients") == 1
    assert time.monotonic() - before >= 9.5
    assert world.journal.logs(mark)[-1] == ("err", f"wpa_socket_cmd: 'STA-NEXT {ONE}{RECORD_START}' command failed.")


def test_absent_socket_is_waited_for_two_seconds_and_then_reported(world: World) -> None:
    attached_up(world)
    world.hostapd.kill()
    shutil.rmtree(world.work / "run/hostapd")
    mark = world.journal.mark()
    before = time.monotonic()
    assert world.get("WiFiConnectedClients") == 0
    assert time.monotonic() - before >= 2
    assert world.journal.logs(mark) == [
        ("info", "Get 'WiFiConnectedClients' property"),
        NO_SOCKET,
        ("err", "[Main] Reading 'WiFiFrequency' while not in Host mode"),
    ]


def test_socket_of_a_dead_hostapd_is_tried_at_once_and_reported(world: World) -> None:
    attached_up(world)
    world.hostapd.kill()
    mark = world.journal.mark()
    assert world.get("WiFiConnectedClients") == 0
    assert NO_SOCKET in world.journal.logs(mark)


def test_socket_that_appears_while_it_is_waited_for_is_used(world: World) -> None:
    attached_up(world)
    world.hostapd.kill()
    shutil.rmtree(world.work / "run/hostapd")
    mark = world.journal.mark()
    answer = world.call_async("Get", "ss", [INTERFACE, "WiFiConnectedClients"], interface="org.freedesktop.DBus.Properties")
    world.journal.wait_for(log("info", "Get 'WiFiConnectedClients' property"), mark)
    world.hostapd.start()
    assert answer.result(20)[0].value == 0
    assert NO_SOCKET not in world.journal.logs(mark)
    assert requests(world, mark) == ["STA-FIRST"]


def test_connection_of_each_count_is_closed_again(world: World) -> None:
    attached_up(world)
    clients = world.work / "tmp"
    before = sorted(path.name for path in clients.glob("wpa_ctrl_*"))
    for _ in range(20):
        world.get("WiFiConnectedClients")
    assert sorted(path.name for path in clients.glob("wpa_ctrl_*")) == before
    assert len(before) == 1


def test_count_works_while_events_come_in(world: World) -> None:
    attached_up(world)
    world.hostapd.before_event = None
    world.hostapd.stations += [ONE]
    done = threading.Event()

    def rain() -> None:
        while not done.wait(0.001):  # as fast as it can, it would keep the world from answering
            world.hostapd.event("AP-STA-POSSIBLE-PSK-MISMATCH 02:00:00:00:00:99")

    sender = threading.Thread(target=rain)
    sender.start()
    try:
        for _ in range(30):
            assert world.get("WiFiConnectedClients") == 1
    finally:
        done.set()
        sender.join()
