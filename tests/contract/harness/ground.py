"""What the tests of the ground share: clients of the neighbours that run in the sandbox."""

from __future__ import annotations

import time
from collections.abc import Callable
from typing import Any

from dbus_next import Message, MessageType
from vantora_sim import DEADLINE, Process, World, unit_path
from vantora_sim.client import Client
from vantora_sim.dbus_fake import connect

Signal = tuple[str, str, list[Any]]
"""Path, member and body."""

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


class Monitor:
    """Somebody who hears the signals of a bus that fit the rule, from when it is made until close()."""

    def __init__(self, world: World, address: str, rule: str) -> None:
        self._world = world
        self._signals: list[Signal] = []
        self._client: Client = world.loop.run(self._begin(address, f"type='signal',{rule}"))

    async def _begin(self, address: str, rule: str) -> Client:
        bus = await connect(address)
        bus.add_message_handler(self._receive)
        client = Client(bus)
        await client.ask_bus("AddMatch", "s", [rule])
        return client

    def _receive(self, message: Message) -> bool:
        if message.message_type is MessageType.SIGNAL and message.path != "/org/freedesktop/DBus":
            self._signals.append((message.path, message.member, message.body))
        return False

    def signals(self) -> list[Signal]:
        """Path, member and body of the signals heard so far."""
        return list(self._signals)

    def wait_for(self, number: int) -> None:
        """Wait until so many have been heard, or more."""
        deadline = time.monotonic() + DEADLINE
        while len(self._signals) < number:
            assert time.monotonic() < deadline, f"{number} signals did not come, but {self._signals}"
            time.sleep(0.002)
        # What was sent along with the last of them comes before the bus's second answer.
        for _ in range(2):
            self._world.loop.run(self._client.ask_bus("GetId"))

    def close(self) -> None:
        """Hear no more."""
        self._world.loop.run(self._client.close())
