"""What requests cost on the device, by the machine's own clock, which counts instructions."""

from __future__ import annotations

from bench import Device, World
from bench.device import NETWORK

TIMES = 20
CROWD = [f"crowd {number:02}" for number in range(20)]
MOST = {"read": 0.05, "Mode": 0.5, "GetAll": 2.0, "AccessPoints": 5.0}
"""Seconds that each may take at the most: about ten times what it took when this was written."""


def seconds_of(device: Device, command: str) -> float:
    """How long a shell command runs."""
    output = device.guest.run(
        f"began=$(date +%s%N); {command} >/dev/null || exit 1; echo $(($(date +%s%N) - began))", seconds=300
    )
    return int(output) / 1e9


def seconds_of_each(device: Device, command: str, times: int = TIMES) -> float:
    """How long each of several runs of a command takes."""
    loop = f"for number in $(seq {times}); do {command} || exit 1; done"
    return seconds_of(device, f"{{ {loop}; }}") / times


def seconds_of_read(device: Device, name: str, times: int = TIMES) -> float:
    """How long a read takes, without the program that asks: it asks once, and then so many times more."""
    read = f"busctl --user --timeout=90 get-property {NETWORK} {name}"
    once, more = seconds_of(device, read), seconds_of(device, read + f" {name}" * times)
    return (more - once) / times


def keep(device: Device, name: str, kind: str, seconds: float, beside: str = "") -> None:
    """A figure for the page, which must not be off by an order."""
    device.evidence.figure(name, f"{1000 * seconds:.1f} ms{beside}")
    assert 0 < seconds < MOST[kind], name


def test_reads_cost_little_more_than_their_commands(device: Device) -> None:
    """A read of what the daemon holds, of the mode beside its two commands, and of everything."""
    device.wait_for_access_point()
    keep(device, "a read that needs no command", "read", seconds_of_read(device, "WiFiAccessPointInitialised", 5 * TIMES))
    commands = seconds_of_each(device, "sh -c 'rfkill list wlan | tail -n +2'; sh -c 'iw dev wlan0 info | grep type'")
    keep(
        device, "a read of Mode", "Mode", seconds_of_read(device, "Mode"), f"; its commands in a shell {1000 * commands:.1f} ms"
    )

    service, path, interface = NETWORK.split()
    ask = f"busctl --user --timeout=90 call {service} {path} org.freedesktop.DBus"
    ping = seconds_of_each(device, f"{ask}.Peer Ping")
    everything = seconds_of_each(device, f"{ask}.Properties GetAll s {interface}")
    keep(device, "GetAll of an access point, beyond a ping", "GetAll", everything - ping)


def test_a_list_of_twenty_networks_takes_moments(device: Device, world: World) -> None:
    """Twenty access points in range, of which each costs a call to wpa_supplicant."""
    world.crowd(CROWD, radio=1)
    device.to_client_mode()
    device.call("Scan")
    device.guest.wait_until(f"busctl --user --timeout=90 get-property {NETWORK} AccessPoints | grep -F ') {len(CROWD)} '")
    assert sorted(entry[0] for entry in device.get("AccessPoints")) == CROWD
    keep(device, "AccessPoints of 20 networks", "AccessPoints", seconds_of_read(device, "AccessPoints"))
