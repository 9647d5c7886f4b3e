"""What the tests of the ground share: clients of the neighbours that run in the sandbox."""

from __future__ import annotations

import json
import time
from collections.abc import Callable

from vantora_sim import DEADLINE, Process, World, unit_path

SYSTEMD = "org.freedesktop.systemd1"
MANAGER = f"busctl --system call {SYSTEMD} /org/freedesktop/systemd1 {SYSTEMD}.Manager"
SETTINGS = "com.vantora.common.Settings1"
NETWORK = f"{SETTINGS} /com/vantora/common/Settings1/network {SETTINGS}"
STATION = "fi.epitest.hostap.WPASupplicant /fi/w1/wpa_supplicant1/Interfaces/1 fi.w1.wpa_supplicant1.Interface"
SCAN = f"busctl --system call {STATION} Scan 'a{{sv}}' 1 Type s active"

CONTROL_CLIENT = """
import os, socket, sys
client = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
client.bind(f"/tmp/client-{os.getpid()}")
client.settimeout(20)
try:
    client.connect("/var/run/hostapd/wlan0")
    for request in sys.argv[1:]:
        if request != "-":
            client.send(request.encode())
        print(client.recv(65536), flush=True)
except OSError as error:
    print(type(error).__name__, flush=True)
"""


def unit_job(verb: str, unit: str) -> str:
    """The shell command that asks systemd for a job."""
    return f"busctl --system call {SYSTEMD} {unit_path(unit)} {SYSTEMD}.Unit {verb} s replace"


def control(world: World, *requests: str) -> Process:
    """A client of hostapd that sends each request and prints what it receives; "-" only receives."""
    return world.sandbox.start(["/usr/bin/python3", "-c", CONTROL_CLIENT, *requests])


def wait_for_text(read: Callable[[], str], text: str) -> None:
    """Wait until a program has printed a text."""
    deadline = time.monotonic() + DEADLINE
    while text not in read():
        assert time.monotonic() < deadline, f"{text!r} did not come, but {read()!r}"
        time.sleep(0.002)


def start_monitor(world: World, bus: str, rule: str) -> Process:
    """A program in the sandbox that prints the signals of a bus that fit the rule, one JSON object a line."""
    monitor = world.sandbox.start(["/usr/bin/busctl", bus, "monitor", "--json=short", f"--match=type='signal',{rule}"])
    wait_for_text(lambda: monitor.stderr, "Monitoring bus message stream")
    return monitor


def seen_signals(monitor: Process) -> list[tuple[str, str, list[object]]]:
    """Path, member and body of the signals printed so far."""
    messages = [json.loads(line) for line in monitor.stdout.splitlines()]
    return [
        (message["path"], message["member"], message["payload"]["data"])
        for message in messages
        if message.get("path") not in (None, "/org/freedesktop/DBus")
    ]
