"""The kernel's address notifications: every way in which they may fail."""

from __future__ import annotations

import struct
import time
from pathlib import Path

import pytest
from faults import Impossible, Kind, Line, Neighbour, Row
from kernel_events import EVENT, event
from vantora_sim import World, changed, log

EXISTING = "test_kernel_addresses.py::"
SEND = """
import os, socket, sys
sender = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
for data in sys.argv[2:]:
    sender.sendto(bytes.fromhex(data), (int(sys.argv[1]), 0))
"""
"""A program that has the power to send what only the kernel should."""

INVALID = ("err", "[NETLINK] Invalid message length: 4")
REMOVED = "Successfully stopped and disabled udhcpd_eth0.service"

NOT_BOUND = [
    ("err", "[NETLINK] Failed to bind netlink socket: Address already in use"),
    ("err", "[NETLINK] OpenSocket() failed, exiting."),
]
ABOUT = (
    "One netlink socket that is looked at every 2 s, and 1 s after each datagram. `IPAddress` itself is read anew each "
    "time and needs none of it."
)
POINTLESS = (
    "a datagram that is short, empty, or of attributes that lead nowhere (sent by a program with "
    "CAP_NET_ADMIN: the kernel sends none)"
)

NEIGHBOUR = Neighbour(
    "Kernel addresses",
    ABOUT,
    [
        Impossible((Kind.ABSENT,), "a kernel without netlink has no interfaces either"),
        Row(
            Kind.REFUSES,
            "the socket cannot be bound",
            text="read `IPAddress`: right; changes are not announced",
            takes="at once",
            lines=NOT_BOUND,
            test=EXISTING + "test_port_that_is_taken_ends_the_listener_and_nothing_else",
            after="announced from the daemon's next start on",
        ),
        Impossible((Kind.HANGS,), "it is asked nothing: silence is the rule"),
        Row(
            Kind.WRONG_TYPE,
            "notifies of links and of IPv6",
            text="nothing is announced",
            takes="at once",
            test=EXISTING + "test_changes_of_links_and_ipv6_addresses_are_passed_over",
            after="the next address is",
        ),
        Row(
            Kind.GARBAGE,
            POINTLESS,
            name="garbage",
            text="nothing is announced",
            takes="1 s each",
            test="test_garbage_is_passed_over",
            after="the next address is",
        ),
        Row(
            Kind.GARBAGE,
            "a datagram with an impossible length, from the same",
            name="impossible length",
            lines=[INVALID],
            text="requests are answered; addresses are no longer announced",
            takes="until the daemon ends: the line is repeated without end",
            test="test_an_impossible_length_is_complained_of_until_the_daemon_is_started_again",
            after="a restart of the daemon ends it",
        ),
        Row(
            Kind.DIES,
            "cannot die, but takes `wlan0` away",
            name="takes the interface away",
            text='read `IPAddress`, `MacAddress`: ""',
            lines=[
                ("warning", "[Main] Interface does not have IP address"),
                ("warning", "[Main] Interface does not have MAC address"),
            ],
            takes="at once",
            test="test_an_interface_that_is_gone_reads_as_empty_and_is_followed_when_it_is_back",
            after="read and announced again when it is back",
        ),
        Impossible((Kind.RESTARTS,), "the daemon goes with it"),
        Row(
            Kind.FLOODS,
            "2,000 addresses at once: more than the socket holds",
            text="those that fit are announced, one a second",
            takes="1 s each",
            test=EXISTING + "test_addresses_are_followed_again_after_the_kernel_dropped_notifications",
            after="the next address is announced",
        ),
    ],
)


@pytest.fixture
def still_world(world: World) -> World:
    """The daemon in a world in which it gives `wlan0` no address of its own."""
    world.tools.ip.output("")
    world.up()
    return world


def send(world: World, *datagrams: bytes) -> None:
    """Send datagrams to the daemon's socket, whose port is its process id in the sandbox."""
    assert world.daemon is not None
    status = Path(f"/proc/{world.daemon.pid}/status").read_text(encoding="utf-8")
    port = next(line for line in status.splitlines() if line.startswith("NSpid:")).split()[-1]
    sent = world.sandbox.run(["/usr/bin/python3", "-c", SEND, port, *(data.hex() for data in datagrams)])
    assert sent.status == 0, sent.stderr


def message(length: int | None = None, kind: int = 20, body: bytes = b"") -> bytes:
    """A netlink message: RTM_NEWADDR, unless another kind is given."""
    return struct.pack("=IHHII", 16 + len(body) if length is None else length, kind, 0, 0, 0) + body


def netlink_lines(world: World, since: int) -> list[Line]:
    return [line for line in world.journal.logs(since) if "NETLINK" in line[1]]


def test_garbage_is_passed_over(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    send(world, b"\xff" * 15, message(), message(body=b"\xff" * 64), message(kind=0xFFFF, body=bytes(range(256))))
    world.add_address("10.0.0.5/24")
    world.journal.wait_for(changed("IPAddress", "10.0.0.5"), mark)
    assert netlink_lines(world, mark) == [event("wlan0", "10.0.0.5", "Added")]
    assert world.get("IPAddress") == "10.0.0.5"


def test_an_impossible_length_is_complained_of_until_the_daemon_is_started_again(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    send(world, message(length=4))
    world.journal.wait_until(lambda: world.journal.count(log(*INVALID), mark) > 1, "the second complaint", since=mark)
    world.add_address("10.0.0.5/24")
    begin = time.monotonic()
    assert (world.get("IPAddress"), world.get("Mode")) == ("10.0.0.5", "Host")
    assert time.monotonic() - begin < 10
    assert set(netlink_lines(world, mark)) == {INVALID}
    assert world.stop_daemon() == 0

    world.tools.ip.output("")
    world.up()
    mark = world.journal.mark()
    world.remove_address("10.0.0.5/24")
    world.journal.wait_for(changed("IPAddress", ""), mark)
    assert netlink_lines(world, mark) == [event("wlan0", "10.0.0.5", "Removed")]


def run(world: World, arguments: str) -> None:
    done = world.sandbox.run(["/usr/sbin/ip", *arguments.split()])
    assert done.status == 0, done.stderr


def test_an_interface_that_is_gone_reads_as_empty_and_is_followed_when_it_is_back(still_world: World) -> None:
    world = still_world
    world.add_address("10.0.0.5/24")
    world.journal.wait_for(log("info", REMOVED))
    run(world, "link set wlan0 down")
    run(world, "link set wlan0 name gone0")
    world.settle()
    mark = world.journal.mark()
    assert (world.get("IPAddress"), world.get("MacAddress")) == ("", "")
    world.settle()
    assert [line for line in world.journal.logs(mark) if not EVENT.match(line[1])] == [
        ("info", "utils_get_ip_address: addr_found: 0"),
        ("warning", "[Main] Interface does not have IP address"),
        ("warning", "[Main] Interface does not have MAC address"),
    ]
    mark = world.journal.mark()
    run(world, "link set gone0 name wlan0")
    run(world, "link set wlan0 up")
    world.add_address("10.0.0.6/24")
    world.journal.wait_for(log(*event("wlan0", "10.0.0.6", "Added")), mark)
    world.journal.wait_for(changed("IPAddress"), mark)
    assert world.get("MacAddress") == "02:00:00:00:10:01"
