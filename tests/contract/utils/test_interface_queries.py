"""Hardware address, IPv4 address and transmit power of `wlan0`, read anew for every property read."""

from __future__ import annotations

import time

import pytest
from vantora_sim import World, command

POWER_COMMAND = "iw wlan0 info"
FOUND = ("info", "utils_get_ip_address: addr_found: 1")
NOT_FOUND = ("info", "utils_get_ip_address: addr_found: 0")


@pytest.fixture
def still_world(world: World) -> World:
    """The daemon in a world in which it gives `wlan0` no address of its own."""
    world.tools.ip.output("")
    world.up()
    return world


def read(world: World, name: str) -> tuple[str, list[tuple[str, str]]]:
    """A property and what its reading logged."""
    mark = world.journal.mark()
    value = world.get(name)
    world.settle()
    return value, world.journal.logs(mark)


def ip(world: World, arguments: str) -> None:
    """Run the real ip(8), which the daemon's own stand-in is not."""
    done = world.sandbox.run(["/usr/sbin/ip", *arguments.split()])
    assert done.status == 0, done.stderr


# Hardware address


def test_hardware_address_is_that_of_the_interface_now(still_world: World) -> None:
    world = still_world
    assert read(world, "MacAddress") == ("02:00:00:00:10:01", [])
    ip(world, "link set wlan0 address 0a:Bc:dE:f0:09:90")
    assert read(world, "MacAddress") == ("0a:bc:de:f0:09:90", [])


def test_hardware_address_of_a_missing_interface_is_empty_and_only_the_property_says_so(still_world: World) -> None:
    world = still_world
    ip(world, "link del wlan0")
    assert read(world, "MacAddress") == ("", [("warning", "[Main] Interface does not have MAC address")])


# IPv4 address


def test_addresses_of_other_families_and_interfaces_do_not_count(still_world: World) -> None:
    world = still_world
    nothing = ("", [NOT_FOUND, ("warning", "[Main] Interface does not have IP address")])
    assert read(world, "IPAddress") == nothing
    ip(world, "addr add fd00::1/64 dev wlan0 nodad")
    ip(world, "addr add 10.9.9.9/24 dev eth0 label eth0:1")
    assert read(world, "IPAddress") == nothing


def test_address_of_the_interface_is_the_first_that_the_kernel_lists(still_world: World) -> None:
    world = still_world
    ip(world, "addr add 10.0.0.1/24 dev wlan0")
    assert world.get("IPAddress") == "10.0.0.1"
    ip(world, "addr add 203.113.213.243/32 dev wlan0")
    assert world.get("IPAddress") == "10.0.0.1"
    ip(world, "addr del 10.0.0.1/24 dev wlan0")
    assert world.get("IPAddress") == "203.113.213.243"


def test_address_query_logs_whether_there_was_one(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    assert world.get("IPAddress") == "192.168.8.1"
    world.journal.expect_logs_in_order([FOUND], mark)


def test_address_of_a_missing_interface_is_empty(still_world: World) -> None:
    world = still_world
    ip(world, "link del wlan0")
    assert read(world, "IPAddress") == ("", [NOT_FOUND, ("warning", "[Main] Interface does not have IP address")])


def test_address_that_is_labelled_as_an_alias_does_not_count_for_the_interface(still_world: World) -> None:
    world = still_world
    ip(world, "addr add 10.0.0.1/24 dev wlan0 label wlan0:1")
    assert world.get("IPAddress") == ""


# Transmit power

LONG = "txpower " + "7" * 300

POWER_LINES = [
    ("\ttxpower 20.00 dBm\n", "txpower 20.00 dB"),
    ("\ttxpower 3.00 dBm\n", "txpower 3.00 dB"),
    ("txpower 20.00 dBm", "txpower 20.00 dB"),
    ("Interface wlan0\n\ttxpower 1.00 dBm\n\ttxpower 2.00 dBm\n", "txpower 1.00 dB"),
    ("\tchannel 6, txpower 5 dBm, dBm\n", "txpower 5 dB"),
    ("\ttxpower 20.00 mBm\n", "txpower 20.00 mBm\n"),
    ("\ttxpower 20.00\n", "txpower 20.00\n"),
    ("\ttxpower\t20.00 dBm\n", ""),
    ("\ttxpower\n", ""),
    ("\ttxpower \n", "txpower \n"),
    ("txpower  dBm\n", "txpower  dB"),
    ("txpower 1 txpower 2 dBm\n", "txpower 1 txpower 2 dB"),
    ("txpower 1 dBm" + " " * 300 + "\n", "txpower 1 dB"),
    (LONG + "\n", LONG[:255]),
    (LONG[:254] + "\n", LONG[:254] + "\n"),
    (LONG[:255] + "\n", LONG[:255]),
    (LONG[:256] + "\n", LONG[:255]),
    ("x" * 250 + "txpower 20.00 dBm\n", ""),
    ("x" * 247 + "txpower 20.00 dBm\n", "txpower "),
]
"""What iw prints, and what is published: the first line with "txpower", 255 characters of it at most."""


def test_transmit_power_is_the_first_such_line_of_iw_up_to_its_unit(still_world: World) -> None:
    world = still_world
    for printed, published in POWER_LINES:
        world.tools.iw.clear()
        world.tools.iw.output(printed, on="wlan0 info")
        mark = world.journal.mark()
        assert (printed, world.get("WiFiSignal")) == (printed, published)
        assert world.journal.commands(mark) == [POWER_COMMAND]
        assert world.journal.logs(mark) == []


@pytest.mark.parametrize("printed", ["", "Interface wlan0\n\ttype AP\n"])
def test_without_transmit_power_the_query_waits_half_a_second_and_gives_up(still_world: World, printed: str) -> None:
    world = still_world
    world.tools.iw.output(printed, status=0 if printed else 237, on="wlan0 info")
    mark = world.journal.mark()
    asked = time.monotonic()
    assert world.get("WiFiSignal") == ""
    assert time.monotonic() - asked >= 0.5
    assert world.journal.logs(mark) == [
        ("err", "[Utils] utils_get_signal_strength: could not read AP Tx Power, retrying..."),
        ("err", "[Utils] utils_get_signal_strength: could not read AP Tx Power, timed out."),
    ]
    assert world.journal.count(command(POWER_COMMAND), mark) == 1
