#!/usr/bin/python3
"""Calls the running daemon at random, 100,000 times, and looks whether it is still the daemon that it was.

The unmodified program runs in the sandbox of the contract tests, between neighbours that answer at once. While the calls come
in, and afterwards, it has to be alive, to answer all of them, and to have the state that its settings say.
"""

from __future__ import annotations

import argparse
import asyncio
import itertools
import secrets
import sys
import time
from collections import Counter
from collections.abc import Callable
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [path for path in (str(ROOT / "simulator"), str(ROOT / "tests/fuzz")) if path not in sys.path]

from dbus_next import Message, MessageFlag, MessageType, Variant  # noqa: E402  (found through the line above)
from random_calls import WRITABLE, RandomCalls  # noqa: E402
from vantora_sim import DEADLINE, CallRefused, World  # noqa: E402
from vantora_sim.dbus_fake import PROPERTIES, connect, disconnect  # noqa: E402

CONNECTIONS = 4
AT_ONCE = 3
"""Calls that each connection has on their way at a time."""
ROUND = 1_000
"""Calls between two looks at the daemon's state."""
LONGEST_ANSWER = 60.0
PROPERTY_COUNT = 13
NETWORKS = (b"neighbour", b"\xff\xfe\x80", b"a\0b\n", "\ufdd0\U0001f4f6".encode(), b"%s%n")
"""Names on the air, most of which are no texts."""
STARTING_STATE = {"WiFiState": 1, "Mode": "Host", "WiFiFrequency": "2.4", "SSID": "Korrin One"}


class LiveBusFuzzer:
    """Makes the calls, and judges the daemon by its state."""

    def __init__(self, world: World, seed: int) -> None:
        self._world = world
        self._calls = RandomCalls(seed)
        self._changing = asyncio.Lock()
        for name in NETWORKS:
            world.wpa.add_bss(name)
        self.answers: Counter[str] = Counter()
        """How often there was which answer: "reply", the name of an error, or "none wanted"."""
        self.on_round: Callable[[int], None] = lambda made: None
        """Told after each round how many calls have been made."""

    def run(self, count: int) -> None:
        """Make so many calls; raises AssertionError when something is not as it must be."""
        self.check_state()
        self._bring_to_start()
        before = self._settled_resources()
        left = count
        for number in itertools.count():
            if left == 0:
                break
            now = min(left, ROUND)
            self._begin_round(number)
            self._world.loop.run(self._round(now), timeout=3600)
            left -= now
            self.check_state()
            self.on_round(count - left)
        self._bring_to_start()
        # A listener that is just being restarted has none of its own for a moment; what leaks stays.
        deadline = time.monotonic() + DEADLINE
        while (after := self._resources()) != before:
            assert time.monotonic() < deadline, f"descriptors and threads: {before} before, {after} after"
            time.sleep(0.05)
        assert sum(self.answers.values()) == count

    def _begin_round(self, number: int) -> None:
        """A name and a band that differ from those before, and a station every other time: all states come up."""
        self._world.set("WiFiState", 1)
        self._world.set("Mode", "Host")
        self._world.set("SSID", f"round {number}")
        self._world.set("WiFiFrequency", ("5", "2.4")[number // 2 % 2])
        self.check_state()
        if number % 2:
            self._world.set("Mode", "Client")
            self.check_state()

    async def _round(self, count: int) -> None:
        buses = [await connect(self._world.user_bus.address) for _ in range(CONNECTIONS)]
        calls = [self._calls.next() for _ in range(count)]
        calls.reverse()

        async def work(bus: Any) -> None:
            while calls:
                await self._make(bus, *calls.pop())

        try:
            await asyncio.gather(*(work(bus) for bus in buses for _ in range(AT_ONCE)))
        finally:
            for bus in buses:
                await disconnect(bus)

    async def _make(self, bus: Any, call: Message, expected: str | None) -> None:
        if not is_change(call):
            await self._send(bus, call, expected)
            return
        async with self._changing:
            # The SSID of an access point that is not there starts one, beside the station. That is meant, but then the
            # radio belongs to whichever came last, and not to the mode that the settings say.
            if expected is None and call.body[1] == "SSID" and self._world.radio.interface_type != "AP":
                call.body[1:] = ["WiFiFrequency", Variant("s", "5")]
            await self._send(bus, call, expected)

    async def _send(self, bus: Any, call: Message, expected: str | None) -> None:
        what = f"{call.path} {call.interface}.{call.member}({call.signature}) {str(call.body)[:300]!r}"
        if call.flags & MessageFlag.NO_REPLY_EXPECTED:
            await bus.send(call)
            self.answers["none wanted"] += 1
            return
        try:
            reply = await asyncio.wait_for(bus.call(call), LONGEST_ANSWER)
        except asyncio.TimeoutError:
            raise AssertionError(f"no answer after {LONGEST_ANSWER:.0f} s: {what}") from None
        error = reply.error_name if reply.message_type is MessageType.ERROR else None
        assert error not in (
            "org.freedesktop.DBus.Error.NoReply",
            "org.freedesktop.DBus.Error.ServiceUnknown",
        ), f"the daemon went away at {what}\n{self._world.journal.dump(last=60)}"
        answer = error or "reply"
        assert expected in (None, answer), f"{answer} in the place of {expected}: {what}"
        self.answers[answer] += 1

    def check_state(self) -> None:
        """The daemon is there, tells all its properties, and they are what the settings say."""
        world = self._world
        world.settle()
        assert world.daemon is not None and world.daemon.running, "the daemon has ended"
        assert world.sanitizer_reports() == ""
        values = {name: variant.value for name, variant in self._get_all().items()}
        assert len(values) == PROPERTY_COUNT, f"properties: {sorted(values)}"
        if values["WiFiState"] == 0:
            assert values["Mode"] == "unknown", values
            return
        stored = world.settings.get("network", "mode")
        assert values["Mode"] == stored, f"the settings say {stored}: {values}\n{world.journal.dump(last=200)}"
        assert len(values["AccessPoints"]) == (len(NETWORKS) if stored == "Client" else 0), values
        if values["Mode"] == "Host":
            told = (values["SSID"], values["WiFiFrequency"])
            stored = (world.settings.get("device", "deviceName"), world.settings.get("network", "frequency"))
            assert told == stored, f"the access point is {told}, the settings say {stored}"

    def _get_all(self) -> dict[str, Any]:
        return self._world.call_async("GetAll", "s", ["com.vantora.Network1.WiFi"], PROPERTIES).result(LONGEST_ANSWER)[0]

    def _bring_to_start(self) -> None:
        """Radio on, an access point of a known name, whatever it was before."""
        for name, value in STARTING_STATE.items():
            self._world.set(name, value)
        self._world.hostapd.wait_attached()
        self.check_state()
        values = self._get_all()
        assert {name: values[name].value for name in STARTING_STATE} == STARTING_STATE

    def _settled_resources(self) -> tuple[int, int]:
        """What the daemon holds once nothing has changed for longer than a listener waits between two looks."""
        since, last = time.monotonic(), self._resources()
        deadline = since + DEADLINE
        while time.monotonic() < since + 3 and time.monotonic() < deadline:
            time.sleep(0.05)
            now = self._resources()
            if now != last:
                since, last = time.monotonic(), now
        return last

    def _resources(self) -> tuple[int, int]:
        """Open descriptors and threads of the daemon."""
        assert self._world.daemon is not None
        process = Path(f"/proc/{self._world.daemon.pid}")
        return len(list((process / "fd").iterdir())), len(list((process / "task").iterdir()))


def is_change(call: Message) -> bool:
    """Whether this is a Set that may change the device: of a writable property, with a value of its type."""
    return call.member == "Set" and call.signature == "ssv" and WRITABLE.get(call.body[1]) == call.body[2].signature


def main() -> int:
    """The command-line program."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--calls", type=int, default=100_000, help="how many (default: %(default)s)")
    parser.add_argument("--seed", type=int, default=None, help="where the random numbers begin (told at the start)")
    parser.add_argument("--build-dir", type=Path, default=ROOT / "build/release", help="folder with the programs")
    options = parser.parse_args()
    seed = secrets.randbits(32) if options.seed is None else options.seed
    print(f"seed {seed}", flush=True)
    started = time.monotonic()
    with World(options.build_dir, lasting=True) as world:
        world.up()
        fuzzer = LiveBusFuzzer(world, seed)
        fuzzer.on_round = lambda made: print(f"{made:8d} calls, {time.monotonic() - started:.0f} s", flush=True)
        try:
            fuzzer.run(options.calls)
            status = world.stop_daemon()
            assert status == 0, f"the daemon ended with status {status} when asked to"
            assert world.sanitizer_reports() == ""
        except (AssertionError, CallRefused, OSError, EOFError, TimeoutError) as failure:
            print(f"seed {seed}: {type(failure).__name__}: {failure}", file=sys.stderr)
            return 1
    for answer, times in fuzzer.answers.most_common():
        print(f"{times:8d}  {answer}")
    print(f"{options.calls} calls in {time.monotonic() - started:.0f} s; the daemon is as it was")
    return 0


if __name__ == "__main__":
    sys.exit(main())
