"""Switching to and fro, restarts in the middle of work, and what the daemon costs."""

from __future__ import annotations

import json
from dataclasses import dataclass

from bench import Device, World

SSID = "Korrin One-3456"
HARBOUR, HARBOUR_KEY, HARBOUR_ADDRESS = "Harbour", "harbour-passphrase", "192.168.20.1"
MODES = ("Client", "Host")
SWITCHES = 20

# What was measured, on the machine's own clock, and how much of it a figure may come to: what is dearer has a reason.
MOST = 1.5
TO_CLIENT, TO_HOST = 0.69, 1.22
"""Seconds that a switch took at the most."""
GROWTH = 16
"""KiB that the process's own memory grew by during the switches, of which there have been as many before: 8, and two pages for
what is chance."""
READY = 0.34
"""Seconds from the start of the process."""
EXECUTABLE, RESIDENT, PROPORTIONAL = 210, 3756, 1571
"""KiB."""
THREADS, DESCRIPTORS = 4, 18
WAKE_UPS = 2.3
"""A second, of all threads."""


@dataclass(frozen=True)
class Cost:
    """What the daemon's process holds."""

    descriptors: int
    threads: int
    resident_kib: int
    proportional_kib: int
    anonymous_kib: int


def cost(device: Device) -> Cost:
    """Reads it from the kernel."""
    process = device.process()
    output = device.see(
        f"ls /proc/{process}/fd | wc -l; ls /proc/{process}/task | wc -l; "
        f"awk '/^(Rss|Pss|Anonymous):/ {{ print $2 }}' /proc/{process}/smaps_rollup"
    )
    return Cost(*(int(word) for word in output.split()))


def switch(device: Device, mode: str) -> float:
    """One mode switch that must be announced; how long the daemon took, by the machine's clock."""
    mark = device.mark()
    device.set("Mode", "s", mode)
    device.wait_for_change("Mode", mode, since=mark)
    logged = device.logged(since=mark)
    first = next(event for event in logged if event.message == "[Main] 'ChangeMode' d-bus method called")
    # The daemon ends its account of a mode's start with a line of hyphens.
    last = [event for event in logged if event.message == "-" * 44][-1]
    return last.seconds - first.seconds


def test_twenty_mode_switches_leak_nothing_and_stick_nowhere(device: Device, world: World) -> None:
    """Twenty switches: each announced and real, and the process holds no more afterwards than before."""
    # The heap takes pages for some thirty switches, fewer and fewer, and then none: it is the end of that which counts.
    for number in range(SWITCHES):
        switch(device, MODES[number % 2])
    device.wait_for_access_point()
    before = cost(device)
    to_host, to_client = [], []
    for number in range(SWITCHES):
        (to_client, to_host)[number % 2].append(switch(device, MODES[number % 2]))
    device.wait_for_access_point()
    world.wait_on_air(SSID)
    after = cost(device)
    assert device.get("Mode") == "Host"
    assert after.descriptors <= before.descriptors
    assert after.threads <= before.threads
    device.evidence.figure("switch to Client mode", f"{min(to_client):.2f} to {max(to_client):.2f} s")
    device.evidence.figure("switch to Host mode", f"{min(to_host):.2f} to {max(to_host):.2f} s")
    device.evidence.figure(
        "memory before and after 20 mode switches", f"{before.anonymous_kib} and {after.anonymous_kib} KiB of its own"
    )
    assert after.anonymous_kib - before.anonymous_kib <= MOST * GROWTH, f"{before} {after}"
    assert max(to_client) <= MOST * TO_CLIENT
    assert max(to_host) <= MOST * TO_HOST


def test_a_daemon_restarted_as_a_station_reads_its_state_back(device: Device, world: World) -> None:
    """systemd restarts it while connected: mode, network and address are there again, and Disconnect works."""
    world.access_point(HARBOUR, radio=1, passphrase=HARBOUR_KEY, address=HARBOUR_ADDRESS)
    device.to_client_mode()
    device.call("Connect", HARBOUR, HARBOUR_KEY)
    device.see_once("ip -4 -oneline address show dev wlan0 | grep 192.168.20.")
    before = device.process()

    mark = device.mark()
    device.guest.run("systemctl restart vantora-network.service")
    device.wait_for_change("Mode", "Client", since=mark)
    assert device.process() != before
    device.wait_for_change("WiFiClientState", "completed", since=mark.anew())
    assert (device.get("Mode"), device.get("ClientSSID")) == ("Client", HARBOUR)
    assert "wpa_state=COMPLETED" in device.see("wpa_cli -i wlan0 status")
    device.see_once("ip -4 -oneline address show dev wlan0 | grep 192.168.20.")
    assert device.get("IPAddress").startswith("192.168.20.")
    device.see_once(f"ping -c 1 -W 2 {HARBOUR_ADDRESS}")

    mark = device.mark()
    device.call("Disconnect")
    device.wait_for_change("WiFiClientState", "disconnected", since=mark)
    assert device.get("IPAddress") == ""


def test_the_daemon_costs_little(device: Device) -> None:
    """Time to READY, memory, size and wake-ups, measured where nothing else happens."""
    started = int(device.see("systemctl show --value --property=ExecMainStartTimestampMonotonic vantora-network")) / 1e6
    # The first thing after READY; systemd itself counts what the unit runs after the start, too.
    first = json.loads(
        device.see(
            "journalctl --identifier=vantora-network --output=json --output-fields=MESSAGE | "
            "grep -m 1 -F 'Setup initial WiFi mode'"
        )
    )
    ready = int(first["__MONOTONIC_TIMESTAMP"]) / 1e6
    device.evidence.figure("start of the process to READY", f"{ready - started:.2f} s")
    device.evidence.figure("start of the kernel to READY", f"{ready:.1f} s")

    size = int(device.see("stat -c %s /usr/sbin/vantora-network"))
    device.evidence.figure("executable, stripped as the package brings it", f"{size / 1024:.0f} KiB")

    now = cost(device)
    device.evidence.figure("resident memory", f"{now.resident_kib} KiB")
    device.evidence.figure("proportional memory", f"{now.proportional_kib} KiB")
    device.evidence.figure("threads, descriptors", f"{now.threads}, {now.descriptors}")

    wake_ups = f"cat /proc/{device.process()}/task/*/status | awk '/^voluntary_ctxt/ {{ n += $2 }} END {{ print n }}'"
    counts = device.see(f"{wake_ups}; cut -d' ' -f1 /proc/uptime; sleep 20; {wake_ups}; cut -d' ' -f1 /proc/uptime").split()
    a_second = (int(counts[2]) - int(counts[0])) / (float(counts[3]) - float(counts[1]))
    device.evidence.figure("wake-ups a second, all threads", f"{a_second:.1f}")
    figures = {
        "start of the process to READY": (ready - started, MOST * READY),
        "executable": (size / 1024, MOST * EXECUTABLE),
        "resident memory": (now.resident_kib, MOST * RESIDENT),
        "proportional memory": (now.proportional_kib, MOST * PROPORTIONAL),
        # Nothing here depends on the machine or the hour.
        "threads": (now.threads, THREADS),
        "descriptors": (now.descriptors, DESCRIPTORS),
        "wake-ups": (a_second, MOST * WAKE_UPS),
    }
    assert {name: figure for name, figure in figures.items() if figure[0] > figure[1]} == {}
