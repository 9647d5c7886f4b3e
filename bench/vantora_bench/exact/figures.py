"""What is counted: each figure that has a floor, and the floor."""

from __future__ import annotations

import contextlib
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from pathlib import Path

from vantora_sim import Process, settings

from ..device import BARE_SERVICE, DAEMON, Device
from ..reads import GET_ALL, MODE
from .callgrind import Callgrind, Profile, counts_of
from .counts import Counts, difference, tidy, total
from .dhat import Dhat
from .strace import Strace

Figures = dict[str, dict[str, Counts]]
"""Of each figure what it and its floor take: {"Mode": {"daemon": {...}, "floor": {...}}}."""

_PATIENCE = 300
_NETWORK, _SETTINGS, _SERVICE = "vantora-network", "vantora-settingsd", "vantora-bench-service"
_START, _MEASURE, _STATUS = "vantora-bench-start", "vantora-bench-measure", "vantora-wifi"
_PROPERTY = "WiFiAccessPointInitialised"
_STATION_EVENT = "pmh"
_SETTING = "a setting stored"
_STATUS_FIGURE = "vantora-wifi status"
BUSCTL = Path("/usr/bin/busctl")
BUSCTL_ARGUMENTS = (
    "--user get-property com.vantora.Network1 /com/vantora/Network1 com.vantora.Network1.WiFi WiFiState Mode SSID "
    "WiFiFrequency WiFiAvailableFrequencies WiFiAccessPointInitialised WiFiConnectedClients ClientSSID WiFiClientState "
    "IPAddress MacAddress WiFiSignal"
).split()
_IDLE = Profile(0, {})
_LISTENER = "WpaSocketListener::"
_SERVICES = {_NETWORK: DAEMON, _SETTINGS: settings.SERVICE, _SERVICE: BARE_SERVICE}


@dataclass(frozen=True)
class _Request:
    """Something that the daemon is asked for, or told."""

    figure: str
    subject: str
    floors: dict[str, str]
    times: int
    """So often under callgrind; under strace a tenth of that."""


_HOST = (
    _Request("event", "event", {"floor": f"commands:{_STATION_EVENT}"}, 40),
    _Request(_PROPERTY, f"get:{DAEMON}:{_PROPERTY}", {}, 200),
    _Request("Mode", f"get:{DAEMON}:Mode", {"floor": f"commands:{MODE}"}, 20),
    _Request("GetAll", f"getall:{DAEMON}", {"floor": f"commands:{GET_ALL}"}, 4),
    _Request("20 stations leave", "stations-leave", {"floor": f"commands:{_STATION_EVENT * 20}"}, 2),
)
_BARE_LISTS = {"floor": "access-points", "floor that reads": "access-points:read"}


def _lists(count: int) -> _Request:
    return _Request(f"AccessPoints, {count:,} BSSs", f"get:{DAEMON}:AccessPoints", _BARE_LISTS, 1 if count == 1000 else 10)


class _Counting:
    """One device, in which things are counted."""

    def __init__(self, build: Path, device: Device) -> None:
        self.build = build
        self.device = device
        self.callgrind = Callgrind(device.world)
        self.strace = Strace(device.world)
        self.dhat = Dhat(device.world)

    def ask(self, subject: str, times: int) -> None:
        """Have a request made so often."""
        self.run([self.build / _MEASURE, "--count", times, subject])

    def run(self, command: list[object]) -> None:
        """Run a program of the device to its end."""
        completed = self.device.world.sandbox.run(
            [str(word) for word in command], {"SYSTEMD_BUS_TIMEOUT": str(_PATIENCE)}, timeout=_PATIENCE
        )
        if completed.status != 0:
            raise RuntimeError(f"{command} ended with {completed.status}: {completed.stderr.strip()}")

    def up(self, program: Path) -> Process:
        """Start the daemon by this script, and wait until it is up."""
        return self.device.start_daemon(program)

    # What a program takes that is run to its end

    def bare(self, subject: str, times: int) -> Counts:
        """What the measuring program itself takes for something that it does on its own, as floors do."""
        program = self.build / _MEASURE

        def count(number: int) -> Counts:
            self.run([self.callgrind.wrap(program), "--count", number, subject])
            instructions = counts_of(self.callgrind.take(program.name)[0], 1)
            few = max(1, times // 10) * number // times
            self.run([self.strace.wrap(program), "--count", few, subject])
            return total(instructions, {"few": few}, self.strace.whole(program))

        less, more = count(times), count(2 * times)
        few = int(less.pop("few"))
        more.pop("few")
        measured = {"instructions", "allocations"}
        return {
            name: value * times / few if name not in measured else value
            for name, value in difference(more, less, times).items()
        }

    def whole(self, program: Path, *arguments: str) -> Counts:
        """All that a program takes."""
        self.run([self.callgrind.wrap(program), *arguments])
        instructions = counts_of(self.callgrind.take(program.name)[0], 1)
        self.run([self.strace.wrap(program), *arguments])
        calls = self.strace.whole(program)
        self.run([self.dhat.wrap(program), *arguments])
        return total(instructions, calls, self.dhat.peak(program))

    def start(self, program: Path) -> Counts:
        """All that a program takes until it says that it is ready."""
        self.ask(f"start:{self.callgrind.wrap(program, '--dump-before=sd_notify')}", 1)
        instructions = counts_of(self.callgrind.take(program.name)[0], 1)
        self.ask(f"start:{self.strace.wrap(program)}", 1)
        return total(instructions, self.strace.whole(program, until_ready=True))


@contextlib.contextmanager
def _booted(build: Path, mode: str, settings: Callable[[Device], Path] | None = None) -> Iterator[_Counting]:
    with Device.booted(build, mode, settings, _PATIENCE) as device:
        device.lengthen_bus_names()
        yield _Counting(build, device)


# What the host mode's figures take, in a device for each tool


def _host_instructions(build: Path) -> Figures:
    found: Figures = {}
    with _booted(build, "Host", lambda device: Callgrind(device.world).wrap(build / _SETTINGS)) as counting:
        device = counting.device
        # What follows READY=1 is then over soon.
        device.change_setting("network", "enabled", "b", False)
        found["start to READY=1"] = {"daemon": counting.start(build / _NETWORK), "floor": counting.start(build / _START)}
        device.change_setting("network", "enabled", "b", True)

        found[_SETTING] = {"daemon": _window(counting, device.settings, _SETTINGS, "setting", 20)}
        daemon = counting.up(counting.callgrind.wrap(build / _NETWORK))
        beat = _cost_of_a_beat(counting, daemon)
        for request in _HOST:
            found[request.figure] = {"daemon": _window(counting, daemon, _NETWORK, request.subject, request.times, beat)}
        service = device.start_bare_service(counting.callgrind.wrap(build / _SERVICE))
        found[_PROPERTY]["floor"] = _window(counting, service, _SERVICE, f"get:{BARE_SERVICE}:{_PROPERTY}", 200)
    return found


def _host_calls(build: Path) -> Figures:
    found: Figures = {}
    with _booted(build, "Host", lambda device: Strace(device.world).wrap(build / _SETTINGS)) as counting:
        device = counting.device
        found[_SETTING] = {"daemon": _traced(counting, _SETTINGS, "setting", 2)}
        counting.up(counting.strace.wrap(build / _NETWORK))
        for request in _HOST:
            times = max(1, request.times // 10)
            found[request.figure] = {"daemon": _traced(counting, _NETWORK, request.subject, times)}
        device.start_bare_service(counting.strace.wrap(build / _SERVICE))
        found[_PROPERTY]["floor"] = _traced(counting, _SERVICE, f"get:{BARE_SERVICE}:{_PROPERTY}", 20)
    return found


def _host_others(build: Path) -> Figures:
    """Floors, the client, and what is held in memory."""
    found: Figures = {}
    with _booted(build, "Host", lambda device: Dhat(device.world).wrap(build / _SETTINGS)) as counting:
        device = counting.device
        for request in _HOST:
            found[request.figure] = {floor: counting.bare(subject, request.times) for floor, subject in request.floors.items()}
        counting.ask("setting", 2)
        found[_SETTING] = {"floor": counting.bare("setting:file", 20)}

        daemon = counting.up(counting.dhat.wrap(build / _NETWORK))
        service = device.start_bare_service(counting.dhat.wrap(build / _SERVICE))
        found[_STATUS_FIGURE] = {
            "client": counting.whole(build / _STATUS, "status"),
            "floor": counting.whole(BUSCTL, *BUSCTL_ARGUMENTS),
        }
        counting.ask(f"get:{BARE_SERVICE}:{_PROPERTY}", 20)
        for request in _HOST:
            counting.ask(request.subject, max(1, request.times // 10))
        for process in (daemon, service, device.settings):
            process.stop(timeout=_PATIENCE)
        found["memory, an access point"] = {
            "daemon": counting.dhat.peak(build / _NETWORK),
            "floor": counting.dhat.peak(build / _SERVICE),
        }
        found[_SETTING]["daemon"] = counting.dhat.peak(build / _SETTINGS)
    return found


def _client_instructions(build: Path) -> Figures:
    found: Figures = {}
    with _booted(build, "Client") as counting:
        daemon = counting.up(counting.callgrind.wrap(build / _NETWORK))
        beat = _cost_of_a_beat(counting, daemon)
        for count in (10, 100, 1000):
            request = _lists(count)
            stand_in = counting.device.start_stand_in("access-points", str(count), "late")
            found[request.figure] = {
                "daemon": _window(counting, daemon, _NETWORK, request.subject, request.times, beat),
                **{floor: counting.bare(subject, request.times) for floor, subject in request.floors.items()},
            }
            stand_in.stop()
    return found


def _client_calls(build: Path) -> Figures:
    found: Figures = {}
    with _booted(build, "Client") as counting:
        counting.up(counting.strace.wrap(build / _NETWORK))
        for count in (10, 100, 1000):
            request = _lists(count)
            stand_in = counting.device.start_stand_in("access-points", str(count), "late")
            found[request.figure] = {"daemon": _traced(counting, _NETWORK, request.subject, 1)}
            stand_in.stop()
    with _booted(build, "Client") as counting:
        daemon = counting.up(counting.dhat.wrap(build / _NETWORK))
        request = _lists(1000)
        counting.device.start_stand_in("access-points", "1000", "late")
        counting.ask(request.subject, 1)
        daemon.stop(timeout=_PATIENCE)
        measure = build / _MEASURE
        counting.run([counting.dhat.wrap(measure), "--count", 1, request.floors["floor that reads"]])
        found["memory, a list of 1,000"] = {
            "daemon": counting.dhat.peak(build / _NETWORK),
            "floor": counting.dhat.peak(measure),
        }
    return found


PARTS: dict[str, Callable[[Path], Figures]] = {
    "client-instructions": _client_instructions,
    "host-instructions": _host_instructions,
    "host-others": _host_others,
    "host-calls": _host_calls,
    "client-calls": _client_calls,
}
"""Each has a device of its own, so that several can be counted at once."""


def _window(counting: _Counting, process: Process, name: str, subject: str, times: int, beat: float = 0) -> Counts:
    """Instructions and allocations for each of so many requests; a heartbeat of so many instructions is taken away."""
    counting.ask(subject, 1)  # what is done once only is done
    nothing, *_ = (
        counting.callgrind.window(process, name, lambda: counting.ask(subject, 0)) if subject == "setting" else [_IDLE]
    )
    main, *others = counting.callgrind.window(process, name, lambda: counting.ask(subject, times))
    listeners = [profile for profile in others if any(_LISTENER in function for function in profile.calls)]
    # A listener that has not been woken by what was asked has only looked at its clock.
    woken = [profile for profile in listeners if profile.times("HandOver")]
    requests = difference(counts_of(main, 1, beat * main.times("beat")), counts_of(nothing, 1), times)
    return total(requests, *(counts_of(profile, times) for profile in woken))


def _cost_of_a_beat(counting: _Counting, daemon: Process) -> float:
    """Instructions of the heartbeat, with the turn of the loop that it comes with."""
    beats = 3

    def wait() -> None:
        counting.run(["/bin/sleep", beats + 0.5])

    main, *_ = counting.callgrind.window(daemon, _NETWORK, wait)
    if not main.times("beat"):
        raise RuntimeError("no heartbeat was counted")
    return main.instructions / main.times("beat")


def _traced(counting: _Counting, name: str, subject: str, times: int) -> Counts:
    """System calls, messages and processes for each of so many requests."""
    traced = counting.strace.traced(counting.build / name)

    def work(number: int) -> None:
        counting.ask(subject, number)
        counting.device.settle(_SERVICES[name])

    work(1)
    return traced.costs(work, times)


def merge(parts: list[Figures]) -> Figures:
    """One table of what several parts have found."""
    merged: Figures = {}
    for part in parts:
        for figure, sides in part.items():
            for side, counts in sides.items():
                known = merged.setdefault(figure, {}).setdefault(side, {})
                known.update(counts)
    return {figure: {side: tidy(counts) for side, counts in sides.items()} for figure, sides in merged.items()}
