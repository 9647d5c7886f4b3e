"""The device's other daemons as somebody at its console treats them: killed, made to hang, let go, started."""

from __future__ import annotations

import signal
from collections.abc import Callable
from dataclasses import dataclass

from .parts import Parts
from .sandbox import Process


@dataclass(frozen=True)
class Neighbour:
    """What can be done to one of them; each acts at once."""

    running: Callable[[], bool]
    hanging: Callable[[], bool]
    kill: Callable[[], None]
    hang: Callable[[], None]
    release: Callable[[], None]
    start: Callable[[], None]


def neighbours(parts: Parts) -> dict[str, Neighbour]:
    """All of them by name."""
    world, loop = parts.world, parts.world.loop
    access_point, station, settings_daemon = parts.access_point, parts.station, parts.settings_daemon

    def signals(process: Callable[[], Process | None], start: Callable[[], object]) -> Neighbour:
        def send(number: int) -> None:
            found = process()
            if found is not None and found.running:
                found.send_signal(number)
                if number == signal.SIGKILL:
                    found.wait()

        def start_again() -> None:
            send(signal.SIGKILL)
            start()

        def running() -> bool:
            found = process()
            return found is not None and found.running

        def hanging() -> bool:
            found = process()
            return found is not None and found.running and found.stopped

        return Neighbour(
            running,
            hanging,
            lambda: send(signal.SIGKILL),
            lambda: send(signal.SIGSTOP),
            lambda: send(signal.SIGCONT),
            start_again,
        )

    return {
        "hostapd": Neighbour(
            lambda: world.hostapd.running,
            lambda: access_point.hanging,
            lambda: loop.call(access_point.kill),
            lambda: loop.call(access_point.hang),
            lambda: loop.call(access_point.release),
            lambda: loop.call(access_point.start_again),
        ),
        "wpa_supplicant": Neighbour(
            lambda: world.wpa.present,
            lambda: station.hanging,
            lambda: loop.run(station.kill()),
            lambda: loop.call(station.hang),
            lambda: loop.call(station.release),
            lambda: loop.run(station.start_again()),
        ),
        "systemd": Neighbour(
            lambda: world.systemd.present,
            lambda: world.systemd.hangs,
            world.systemd.go,
            world.systemd.hang,
            world.systemd.clear,
            world.systemd.come_back,
        ),
        "vantora-settingsd": signals(lambda: settings_daemon.process, settings_daemon.start),
        # Its unit starts it again by itself.
        "vantora-network": signals(lambda: world.daemon, lambda: None),
    }
