"""hostapd behind its control socket: every way in which it may fail."""

from __future__ import annotations

import shutil

import pytest
from fault_requests import CLIENTS, CLIENTS_READ, still_access_point
from faults import Asked, Impossible, Kind, Neighbour, Row, try_row
from vantora_sim import World, hostapd_request, log

REQUEST_TIMEOUT = 10.0
"""Seconds that the control-socket library waits for an answer; nothing can shorten it."""
SOCKET_WAIT = 2.0

STATION = "02:00:00:00:30:01"
NOT_LISTENING = ("err", "ListenTask: Not connected to socket - cannot listen.")
NOT_ATTACHED = ("err", "ListenTask: Cannot attach to socket - cannot listen.")
RESTARTING = ("info", "restart_wifi_host_listener_callback: Restarting...")
NO_SOCKET = [
    CLIENTS_READ,
    ("err", "hostapd_get_num_connected_clients: Could not connect to hostapd socket."),
    ("err", "[Main] Reading 'WiFiFrequency' while not in Host mode"),
]
FAILED = [CLIENTS_READ, ("err", "wpa_socket_cmd: 'STA-FIRST' received 'FAIL' status.")]
UNANSWERED = [CLIENTS_READ, ("err", "wpa_socket_cmd: 'STA-FIRST' command failed.")]
DEAF = "counted right at once; its events are heard when the access point is started or restarted the next time"


def remove(world: World) -> None:
    """hostapd was never there."""
    world.hostapd.kill()
    shutil.rmtree(world.work / "run/hostapd")


def start(world: World) -> None:
    world.clear_faults()
    world.hostapd.start()
    world.hostapd.stations.append(STATION)


def kill(world: World) -> None:
    world.hostapd.wait_attached()
    world.hostapd.kill()


def ask_and_kill(world: World) -> int:
    """Read the count, and kill hostapd when it has the question."""
    mark = world.journal.mark()
    answer = world.call_async(
        "Get", "ss", ["com.vantora.Network1.WiFi", "WiFiConnectedClients"], interface="org.freedesktop.DBus.Properties"
    )
    world.journal.wait_for(hostapd_request("STA-FIRST"), mark)
    world.hostapd.kill()
    count: int = answer.result(2 * REQUEST_TIMEOUT)[0].value
    return count


def restart(world: World) -> None:
    """hostapd ends as it should, and is back at once."""
    world.hostapd.wait_attached()
    mark = world.journal.mark()
    world.hostapd.terminate()
    start(world)
    world.journal.wait_for(log(*RESTARTING), mark)
    world.hostapd.wait_attached()


def garble(world: World) -> None:
    world.hostapd.answer("STA-FIRST", b"\xff" * 4000)
    world.hostapd.answer("STA-NEXT", b"")
    world.hostapd.answer("STA-NEXT", b"UNKNOWN COMMAND\n", times=1)
    world.hostapd.answer("STA-NEXT", b"::\0::", times=1)


def wait_for_refusal(world: World) -> None:
    """The listener gives up attaching; hostapd answers again."""
    world.journal.wait_for(log(*NOT_ATTACHED))
    world.clear_faults()


ABOUT = (
    "Each count of the stations opens a connection of its own; events come over one that stays. (hostapd as a unit is "
    "systemd's business, above.)"
)

NEIGHBOUR = Neighbour(
    "hostapd's control socket",
    ABOUT,
    [
        Row(
            Kind.ABSENT,
            "no socket: looked for three times, a second apart",
            [Asked(CLIENTS, "0", NO_SOCKET, SOCKET_WAIT)],
            before=remove,
            end=start,
            after=DEAF,
        ),
        Row(
            Kind.ABSENT,
            "no socket when the access point starts",
            name="no socket for the listener",
            lines=[NOT_LISTENING],
            takes="2 s",
            text="the access point counts as started",
            test="test_hostapd_listener.py::test_access_point_without_a_socket_is_up_and_nobody_listens",
            after=DEAF,
        ),
        Row(Kind.REFUSES, "answers FAIL", [Asked(CLIENTS, "0", FAILED)], lambda world: world.hostapd.refuse("STA-FIRST")),
        Row(
            Kind.REFUSES,
            "refuses to attach the listener",
            name="refuses to attach",
            lines=[NOT_ATTACHED],
            takes="at once",
            text="nothing; stations come and go unannounced",
            after="heard when the access point is started or restarted the next time",
            test="test_hostapd_listener.py::test_refused_attach_ends_the_listener_until_it_is_started_again",
        ),
        Row(
            Kind.HANGS,
            "answers nothing",
            [Asked(CLIENTS, "0", UNANSWERED, REQUEST_TIMEOUT)],
            lambda world: world.hostapd.hang("STA-FIRST"),
            slow=True,
        ),
        Row(
            Kind.HANGS,
            "does not answer the listener",
            [Asked(CLIENTS)],
            before=lambda world: world.hostapd.hang("ATTACH"),
            end=wait_for_refusal,
            slow=True,
            name="hangs while the listener attaches",
            lines=[NOT_ATTACHED],
            after="after 10 s, on the listener's thread, it counts as refused",
        ),
        Impossible((Kind.WRONG_TYPE,), "it speaks text, which has no types; see garbage"),
        Row(Kind.GARBAGE, "bytes that are no record", [Asked(CLIENTS, "0")], garble),
        Row(
            Kind.GARBAGE,
            "events that are no text, or of 4,095 bytes",
            name="garbage for events",
            takes="at once",
            text="what they announce as far as it can be read",
            test="test_hostapd_events.py::test_longest_event_and_bytes_that_are_no_text",
        ),
        Row(
            Kind.DIES,
            "is killed with the question in hand",
            [Asked(CLIENTS, "0", UNANSWERED, REQUEST_TIMEOUT, ask=ask_and_kill)],
            slow=True,
            begin=lambda world: world.hostapd.hang("STA-FIRST"),
            end=start,
            after=DEAF,
        ),
        Row(
            Kind.DIES,
            "was killed before: the socket is there, and nobody behind it",
            [Asked(CLIENTS, "0", NO_SOCKET)],
            kill,
            end=start,
            name="killed before the call",
            after=DEAF,
        ),
        Row(
            Kind.RESTARTS,
            "says that it ends, and is back within 2 s",
            [Asked(CLIENTS)],
            restart,
            lines=[
                ("err", "wifi_host_terminated: hostapd terminated."),
                ("err", "wifi_host_terminated: We are supposed to be in host mode. Restart hostapd listener"),
                RESTARTING,
            ],
            after="its events are heard",
        ),
        Row(
            Kind.FLOODS,
            "5,000 events as fast as they can be sent, while properties are read",
            text="every read is answered",
            takes="at once",
            test="test_hostapd_events.py::test_flood_of_events_while_properties_are_read",
        ),
        Row(
            Kind.FLOODS,
            "sends events instead of an answer",
            [Asked(CLIENTS, "0", UNANSWERED, REQUEST_TIMEOUT)],
            lambda world: world.hostapd.chatter("STA-FIRST", f"AP-STA-CONNECTED {STATION}", 0.5),
            slow=True,
            name="events for an answer",
        ),
        Row(
            Kind.FLOODS,
            "names the same station for ever",
            name="a list without end",
            text="read `WiFiConnectedClients`: 2007, the most it can have",
            takes="2007 questions",
            test="test_station_count.py::test_hostapd_that_names_the_same_station_for_ever_is_left_after_2007",
        ),
    ],
    still_access_point,
)


@pytest.mark.parametrize("row", NEIGHBOUR.parameters())
def test_fault(world: World, row: Row) -> None:
    try_row(world, row, NEIGHBOUR.prepare)
    for line in row.lines:
        assert world.journal.count(log(*line)) == 1
