"""Kernel address events: what is logged and announced for real addresses of `wlan0` and `eth0`."""

from __future__ import annotations

import os
import time
from pathlib import Path

import pytest
from kernel_events import EVENT, event
from vantora_sim import DEADLINE, World, call, changed, log, unit_path, units

STARTING = ("info", "[NETLINK] Starting kernel netlink listener...")
TASK = ("info", "[NETLINK] Starting kernel netlink task...")

TAKE_PORT = """
import resource, socket, sys, time
# A shell is given 1,024 descriptors, and may take more.
hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
taken = []
for port in range(2, 4000):
    taken.append(socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE))
    taken[-1].bind((port, 0))
print("taken", flush=True)
time.sleep(1000)
"""


@pytest.fixture
def still_world(world: World) -> World:
    """The daemon in a world in which it gives `wlan0` no address of its own."""
    world.tools.ip.output("")
    world.up()
    return world


def ip(world: World, arguments: str) -> None:
    """Run the real ip(8)."""
    done = world.sandbox.run(["/usr/sbin/ip", *arguments.split()])
    assert done.status == 0, done.stderr


def events_until(world: World, last: tuple[str, str], since: int) -> list[tuple[str, str]]:
    """All address events up to this one."""
    world.journal.wait_for(log(*last), since)
    return [line for line in world.journal.logs(since) if EVENT.match(line[1])]


def test_listener_starts_when_everything_else_is_up(still_world: World) -> None:
    still_world.journal.expect_in_order([log(*STARTING), log(*TASK)])
    assert [line for line in still_world.journal.logs() if "NETLINK" in line[1]] == [STARTING, TASK]


def test_address_of_wlan0_added_and_removed_is_logged_and_announced(still_world: World) -> None:
    world = still_world
    for act, status, address in ((world.add_address, "Added", "10.0.0.5"), (world.remove_address, "Removed", "")):
        mark = world.journal.mark()
        act("10.0.0.5/24")
        world.journal.wait_for(log(*event("wlan0", "10.0.0.5", status)), mark)
        entry = world.journal.wait_for(changed("IPAddress"), mark)
        assert (entry.value, entry.signature, entry.alone) == (address, "s", True)


def test_address_of_eth0_is_logged_and_not_announced(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    world.add_address("10.0.0.5/24", "eth0")
    world.journal.wait_for(log("info", "Successfully enabled and started udhcpd_eth0.service"), mark)
    world.remove_address("10.0.0.5/24", "eth0")
    world.journal.wait_for(log("info", "Successfully stopped and disabled udhcpd_eth0.service"), mark)
    world.settle()
    assert [line for line in world.journal.logs(mark) if EVENT.match(line[1])] == [
        event("eth0", "10.0.0.5", "Added"),
        event("eth0", "10.0.0.5", "Removed"),
    ]
    assert world.journal.changes(mark) == []


def test_alias_of_wlan0_is_told_by_its_label_and_not_announced(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    ip(world, "addr add 10.0.0.6/24 dev wlan0 label wlan0:1")
    world.journal.wait_for(log(*event("wlan0:1", "10.0.0.6", "Added")), mark)
    world.journal.wait_for(log("info", "Successfully stopped and disabled udhcpd_eth0.service"), mark)
    world.settle()
    assert world.journal.changes(mark) == []


def test_local_address_is_told_where_there_is_a_peer(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    ip(world, "addr add 10.0.0.7 peer 10.0.0.8/32 dev wlan0")
    world.journal.wait_for(log(*event("wlan0", "10.0.0.7", "Added")), mark)


def test_changes_of_links_and_ipv6_addresses_are_passed_over(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    ip(world, "addr add fd00::1/64 dev wlan0 nodad")
    ip(world, "link set eth0 alias wire")
    ip(world, "addr del fd00::1/64 dev wlan0")
    world.add_address("10.0.0.5/24", "eth0")
    last = event("eth0", "10.0.0.5", "Added")
    assert events_until(world, last, mark) == [last]
    assert [line for line in world.journal.logs(mark) if "NETLINK" in line[1]] == [last]
    assert world.journal.changes(mark) == []


def test_events_that_come_together_are_told_one_by_one_in_order(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    asked = time.monotonic()
    world.sandbox.run(["/bin/sh", "-c", "for i in 1 2 3; do /usr/sbin/ip addr add 10.0.$i.1/24 dev eth0; done"])
    lines = [event("eth0", f"10.0.{number}.1", "Added") for number in (1, 2, 3)]
    assert events_until(world, lines[-1], mark) == lines
    assert time.monotonic() - asked >= 2.0


def test_addresses_are_followed_again_after_the_kernel_dropped_notifications(still_world: World) -> None:
    world = still_world
    mark = world.journal.mark()
    # Far more than the socket's buffer holds: the next reception is an error.
    batch = "".join(f"addr add 10.{high}.{low}.1/32 dev eth0\n" for high in range(8) for low in range(250))
    world.systemd.hang("EnableUnitFiles", times=1)
    world.sandbox.path("/tmp/batch").write_text(batch)
    ip(world, "addr add 10.99.0.1/32 dev eth0")
    world.journal.wait_for(log("info", "[Utils] Trying to enable /etc/korrin/udhcpd_eth0.service"), mark)
    ip(world, "-batch /tmp/batch")
    dropped = Path(f"/proc/{world.sandbox.init}/net/netlink").read_text(encoding="utf-8")
    world.systemd.release()
    world.journal.wait_for(log(*event("eth0", "10.0.0.1", "Added")), mark)
    assert any(line.split()[3] == "00000011" and int(line.split()[8]) > 0 for line in dropped.splitlines()[1:])


def test_port_that_is_taken_ends_the_listener_and_nothing_else(world: World) -> None:
    world.tools.ip.output("")
    holder = world.sandbox.start(["/usr/bin/python3", "-c", TAKE_PORT])
    deadline = time.monotonic() + 20
    while "taken" not in holder.stdout:
        assert time.monotonic() < deadline, holder.stderr
        time.sleep(0.01)
    world.start_daemon()
    world.journal.expect_in_order(
        [
            log(*STARTING),
            log(*TASK),
            log("err", "[NETLINK] Failed to bind netlink socket: Address already in use\n"),
            log("err", "[NETLINK] OpenSocket() failed, exiting."),
        ]
    )
    assert world.get("Mode") == "Host"
    mark = world.journal.mark()
    world.add_address("10.0.0.5/24")
    assert world.get("IPAddress") == "10.0.0.5"
    assert world.stop_daemon() == 0
    assert world.journal.find(log(text=EVENT), mark) == []


def test_reads_that_wait_for_the_start_do_not_take_the_listeners_port(world: World) -> None:
    # For each read the kernel lends the port id that the listener wants to a socket that is closed again. On one core the
    # listener's thread gets to bind its own anywhere between these moments, unless the main thread waits for it.
    world.tools.ip.output("")
    for _ in range(8):
        mark = world.journal.mark()
        world.systemd.hang("Start", on=units.DHCP_SERVER)
        daemon = world.start_daemon()
        os.sched_setaffinity(daemon.pid, {min(os.sched_getaffinity(0))})
        world.journal.wait_for(call("Start", path=unit_path(units.DHCP_SERVER)), mark)
        reads = [
            world.call_async(
                "Get", "ss", ["com.vantora.Network1.WiFi", "MacAddress"], interface="org.freedesktop.DBus.Properties"
            )
            for _ in range(300)
        ]
        world.systemd.release()
        world.wait_follows_addresses()
        assert len({read.result(DEADLINE)[0].value for read in reads}) == 1
        assert world.journal.find(log("err", lambda text: text.startswith("[NETLINK]")), mark) == []
        assert world.stop_daemon() == 0
