"""The life of a stage: one world for many runs, and in it for each run a new daemon among neighbours that are as new.

A world costs a third of a second and a daemon in it a third as much, so what is made anew for each run is the daemon, and
everything that it could find changed. A run thus depends on nothing but its own acts, and a shorter one can be tried for it.
"""

from __future__ import annotations

import asyncio
import contextlib
import copy
import errno
import os
import resource
import shutil
import signal
import socket
import time
from pathlib import Path
from typing import Any

from vantora_sim import Process, World, units
from vantora_sim.hostapd_conf import read_hostapd_conf
from vantora_sim.radio import Radio
from vantora_sim.settings import BASE_PATH, DEFAULTS, SERVICE
from vantora_sim.dbus_fake import PROPERTIES, plain

from .failing_calls import FailingCalls
from .finding import Finding
from .history import History

TIME_OUT = 3.0
"""Seconds that the daemon waits for an answer over D-Bus here, in place of the 25 s of a device."""
SLACK = 10.0
"""Seconds that a request may take on a loaded machine although nobody is waited for."""
END = 5.0
"""Seconds in which the daemon has to end when it is asked to: under one on a machine with nothing else to do."""
READY = 20.0
UNTIL_READY = 0.03
"""Seconds until a hostapd that has a listener reports the access point ready."""
HEARING = 0.5
"""Seconds that a listener gets to read what hostapd has said."""
WAITING = (23, 270, 72, 82, 142, 335, 413)
"""The numbers of the system calls select and pselect6 on the architectures of the packages."""
STATE_FILE = "/run/sim/state/settings.json"


def is_sanitized(build: Path) -> bool:
    """Whether the programs in this folder hold a sanitizer, which keeps what they have freed."""
    return any(name in (build / "vantora-network").read_bytes() for name in (b"__asan_init", b"__tsan_init"))


class Life:
    """One world, and the runs in it."""

    def __init__(self, build: Path) -> None:
        self.build = build
        self.is_sanitized = is_sanitized(build)
        self.world = World(build, lasting=True)
        self.world.follow_units = False
        self.world.hostapd.before_event = None
        self.history = History()
        self.stop_lag = self.start_lag = 0.0
        self.comes_up = True
        self._reports_ready = False
        self.settings_daemon: Process | None = None
        self._real_settings = False
        self._unit_task: asyncio.Task[None] | None = None
        self._attached_once = False
        self._limit: tuple[int, int] | None = None
        self.world.systemd.on_job.append(self._follow)
        self._watch_hostapd()

    def __enter__(self) -> "Life":
        self.world.__enter__()
        self.world.hostapd.before_event = None
        self._names = copy.copy(self.world.systemd.active)
        self._unit_files = set(self.world.systemd.unit_files)
        work = self.world.work / "run/sim"
        self.daemon_files = FailingCalls(work / "failing-calls", "/run/sim/failing-calls")
        self.settings_files = FailingCalls(work / "failing-calls-settings", "/run/sim/failing-calls-settings")
        return self

    def _environment(self, files: FailingCalls) -> dict[str, str | None]:
        environment: dict[str, str | None] = {
            "LD_PRELOAD": str(self.build / "tests/model/failing-calls.so"),
            **files.environment,
        }
        if options := os.environ.get("ASAN_OPTIONS"):
            environment["ASAN_OPTIONS"] = f"{options}:verify_asan_link_order=0"
        return environment

    def __exit__(self, *_: object) -> None:
        self.world.close()

    # A run

    def begin(self, *, mode: str = "Host", echo: bool = False, real_settings: bool = False) -> None:
        """A new daemon in a world that is as new. `echo`: the settings daemon tells whoever writes of its own write, too."""
        self._clean()
        world = self.world
        self._real_settings = real_settings
        world.settings.echo = echo
        if real_settings:
            self.start_settings_daemon()
            if mode != "Host":
                self._store("network", "mode", mode)
        else:
            world.settings.set("network", "mode", mode)
        self.start_daemon()

    def start_daemon(self) -> None:
        """Start the daemon and wait until it is up."""
        world = self.world
        self.history.new_daemon(world.journal.mark())
        self.launch()
        self.wait_up()

    def launch(self) -> None:
        """Start the daemon without waiting."""
        self.world.start_daemon(environment={"SYSTEMD_BUS_TIMEOUT": f"{TIME_OUT:g}s", **self._environment(self.daemon_files)})

    def wait_up(self) -> None:
        """Wait until the daemon is up, in the words of its log."""
        try:
            self.world.wait_ready(READY)
            self.world.journal.wait_until(
                lambda: any(
                    text.startswith("[NETLINK] Starting kernel netlink task")
                    for _, text in self.world.journal.logs(self.history.started)
                ),
                "the end of the start-up",
                READY,
            )
        except AssertionError as failure:
            raise Finding("start", str(failure).splitlines()[0]) from None
        self.settle()

    def end(self) -> None:
        """Ask the daemon to end, whatever hangs, and look at what it leaves behind."""
        assert self.world.daemon is not None
        began = time.monotonic()
        try:
            status = self.world.daemon.stop(timeout=2 * READY)
        except AssertionError:
            self.kill_daemon()
            raise Finding("end", "the daemon does not end when it is asked to") from None
        took = time.monotonic() - began
        if reports := self.world.sanitizer_reports():
            raise Finding("sanitizer", reports[-4000:])
        if status != 0:
            raise Finding("end", f"the daemon ended with status {status}")
        if took > END:
            raise Finding("end", f"the daemon took {took:.1f} s to end")

    def kill_daemon(self) -> None:
        """End the daemon without asking it."""
        if self.world.daemon is not None and self.world.daemon.running:
            self.world.daemon.stop(signal.SIGKILL)

    def _clean(self) -> None:
        """Bring everything around the daemon into the state of a world that has just been made."""
        world = self.world
        self.release_everything()
        self.kill_daemon()
        self._stop_settings_daemon()
        for output in (world.work / "output").iterdir():
            with contextlib.suppress(OSError):
                output.unlink()
        world.loop.run(self._forget())
        for bus in (world.system_bus,):
            bus.thaw()
        world.settings._values = copy.deepcopy(DEFAULTS)
        world.systemd.active = copy.copy(self._names)
        world.systemd.unit_files = set(self._unit_files)
        world.systemd.enabled.clear()
        world.systemd.states.clear()
        world.systemd.come_back()
        world.settings.come_back()
        world.wpa.bss.clear()
        for name, value in vars(Radio()).items():
            if name != "on_block":
                setattr(world.radio, name, value)
        world.hostapd_conf.unlink(missing_ok=True)
        shutil.rmtree(world.work / "run/hostapd", ignore_errors=True)
        for file in (world.work / "tmp").glob("wpa_ctrl_*"):
            file.unlink()
        for interface in ("wlan0", "eth0"):
            world.try_ip("addr", "flush", "dev", interface)
        self.stop_lag = self.start_lag = 0.0
        self.comes_up = True
        self.history = History()

    async def _forget(self) -> None:
        if self._unit_task is not None:
            self._unit_task.cancel()
            self._unit_task = None
        self.world.hostapd._close()
        await self.world.wpa.close()

    # Everybody well again

    def release_everything(self) -> None:
        """No fault any more: whoever hangs answers, whoever is gone is back, nothing is short."""
        world = self.world
        if world.daemon is not None and world.daemon.running and self._limit is not None:
            resource.prlimit(world.daemon.pid, resource.RLIMIT_NOFILE, self._limit)
        self._limit = None
        self.daemon_files.clear()
        self.settings_files.clear()
        world.system_bus.thaw()
        world.user_bus.thaw()
        world.clear_faults()
        world.loop.call(lambda: world.radio.block(hard=False))
        world.systemd.come_back()
        if not self._real_settings:
            world.settings.come_back()
        elif self.settings_daemon is not None and not self.settings_daemon.running:
            self.start_settings_daemon()
        if world.systemd.active.get(units.STATION) and not world.wpa.present:
            world.loop.run(self._start_station())

    def few_descriptors(self, more: int) -> None:
        """Let the daemon open only so many descriptors more than it has."""
        assert self.world.daemon is not None
        folder = Path(f"/proc/{self.world.daemon.pid}/fd")
        highest = max((int(file.name) for file in folder.iterdir()), default=-1)
        if highest < 0:
            return  # it is just ending, and has none
        before = resource.prlimit(self.world.daemon.pid, resource.RLIMIT_NOFILE)
        self._limit = self._limit or before
        resource.prlimit(self.world.daemon.pid, resource.RLIMIT_NOFILE, (highest + 1 + more, self._limit[1]))

    # The settings daemon of this repository

    def start_settings_daemon(self) -> None:
        """Start the real settings daemon in place of the played one, and wait until it serves."""
        world = self.world
        world.settings.go()
        self.kill_settings_daemon()
        world.sandbox.run(["/bin/mkdir", "-p", str(Path(STATE_FILE).parent)])
        self.settings_daemon = world.sandbox.start(
            [self.build / "vantora-settingsd", "--state", STATE_FILE], self._environment(self.settings_files)
        )
        deadline = time.monotonic() + READY
        while not world.name_owned(SERVICE):
            if not self.settings_daemon.running or time.monotonic() > deadline:
                raise Finding("start", f"the settings daemon does not come up: {self.settings_daemon.stderr}")
            time.sleep(0.005)

    def kill_settings_daemon(self) -> None:
        """End the settings daemon without asking it."""
        if self.settings_daemon is not None and self.settings_daemon.running:
            self.settings_daemon.stop(signal.SIGKILL)
            self._wait_no_settings()

    def _stop_settings_daemon(self) -> None:
        self.kill_settings_daemon()
        shutil.rmtree(self.world.work / "run/sim/state", ignore_errors=True)
        self.settings_daemon = None

    def _wait_no_settings(self) -> None:
        while self.world.name_owned(SERVICE):
            time.sleep(0.002)

    def _store(self, section: str, key: str, value: Any) -> None:
        """Change a setting at the settings daemon as another program does; a refusal raises CallRefused."""
        from vantora_sim.settings import as_variant

        self.world.call_service_async(
            SERVICE, f"{BASE_PATH}/{section}", PROPERTIES, "Set", "ssv", [SERVICE, key, as_variant(value)]
        ).result(30)

    def stored(self, section: str, key: str) -> Any:
        """A setting as the settings daemon tells it."""
        if not self._real_settings:
            return self.world.settings.get(section, key)
        return plain(
            self.world.call_service_async(SERVICE, f"{BASE_PATH}/{section}", PROPERTIES, "Get", "ss", [SERVICE, key]).result(
                30
            )[0]
        )

    # The services that systemd runs

    async def _follow(self, verb: str, unit: str) -> None:
        if unit == units.HOSTAPD:
            if self._unit_task is not None:
                self._unit_task.cancel()
            if verb == "Stop":
                self.history.stop_ordered()
            task = self._access_point(verb)
            if self.stop_lag or self.start_lag:
                self._unit_task = asyncio.get_running_loop().create_task(task)
            else:
                await task
        elif unit == units.STATION:
            if verb != "Start":
                await self.world.wpa.close()
            if verb != "Stop" and not self.world.wpa.present:
                await self._start_station()
            self.world.radio.station_running = verb != "Stop"
            self.world.radio.station_ssid = None
            self.world.radio.station_state = "DISCONNECTED"

    async def _start_station(self) -> None:
        await self.world.wpa.start(self.world.system_bus.address)
        self.history.station_said("disconnected")

    async def _access_point(self, verb: str) -> None:
        """hostapd's unit does what it was told; it may take its time, as it does on a device."""
        hostapd = self.world.hostapd
        if hostapd.running and verb in ("Stop", "Restart"):
            await self._pause(self.stop_lag)
            await self._listener_waits()
            self._terminate()
            if self.start_lag:
                self._set_type("managed")
        if verb == "Stop":
            self._set_type("managed")
            return
        if hostapd.running:
            return
        await self._pause(self.start_lag)
        if hostapd.running:
            return
        if not self.comes_up:
            self._set_type("managed")
            return
        self.open_access_point()

    async def _listener_waits(self) -> None:
        """Wait a moment until what hostapd has said is read: its farewell would be cut behind a shorter event, and be lost."""
        deadline = time.monotonic() + HEARING
        while self._is_behind() and time.monotonic() < deadline:
            await asyncio.sleep(0.001)

    def _is_behind(self) -> bool:
        """Whether the listener has not read everything yet, or has just done so (on the loop)."""
        daemon = self.world.daemon
        try:
            if not self.live_listeners() or daemon is None or not daemon.running:
                return False
            return self.world.hostapd._unread() > 0 or not daemon.waits_in(WAITING)
        except (OSError, LookupError):
            return False

    async def _pause(self, seconds: float) -> None:
        if seconds:
            await asyncio.sleep(seconds)

    def _set_type(self, kind: str) -> None:
        if self.world.radio.interface_type != kind:
            self.world.radio.interface_type = kind
            self.world.journal.add("radio", type=kind)

    def open_access_point(self) -> None:
        """hostapd comes up (on the loop), unless there is no file that it could start on."""
        written = read_hostapd_conf(self.world.hostapd_conf)
        if not self.world.hostapd_conf.exists():
            self.history.disturbed.add("hostapd without a file")
            self._set_type("managed")
            return
        self.world.radio.ap_ssid = written.get(b"ssid", b"")
        self.history.unprotected |= b"wpa_passphrase" not in written or written.get(b"wpa") != b"2"
        self._set_type("AP")
        self._attached_once = False
        self.world.hostapd._start()

    def _terminate(self) -> None:
        """hostapd ends as after SIGTERM (on the loop)."""
        if self._is_behind():
            self.history.disturbed.add("deaf")
        self.history.access_point_ends(self._attached_once, bool(self.live_listeners()), killed=False)
        self.world.hostapd._terminate()

    def _kill_access_point(self) -> None:
        self.history.access_point_ends(self._attached_once, bool(self.live_listeners()), killed=True)
        self.world.hostapd._close()

    def _watch_hostapd(self) -> None:
        """Note what the played hostapd says to a client that is still there, and that one has attached."""
        hostapd = self.world.hostapd
        send, truth = hostapd._send_to_attached, hostapd._truth

        def send_to_attached(data: bytes) -> None:
            send(data)
            if self.live_listeners():
                self.history.access_point_said(data)

        def answer(word: str, argument: str) -> bytes:
            if word == "ATTACH":
                if not self._attached_once:
                    self._reports_ready = True
                    self.world.loop.asyncio.call_later(UNTIL_READY, self._report_ready, hostapd._socket)
                self._attached_once = True
                self.history.listener_attached()
            return truth(word, argument)

        hostapd._send_to_attached = send_to_attached  # type: ignore[method-assign]
        hostapd._truth = answer  # type: ignore[method-assign]

    def _report_ready(self, instance: socket.socket) -> None:
        """hostapd, if it is still the same, is on the air: with a country code that takes a while."""
        self._reports_ready = False
        if self.world.hostapd._socket is instance:
            self.world.hostapd._event(b"<3>AP-ENABLED ")

    def live_listeners(self) -> int:
        """How many of the clients attached to hostapd are still there (on the loop)."""
        count = 0
        for client in self.world.hostapd._attached:
            path = self.world.hostapd._outside(client)
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as probe:
                # A socket that is connected to hostapd takes nobody else: it is there.
                count += probe.connect_ex(path or "") in (0, errno.EPERM)
        return count

    # Waiting

    def settle(self) -> None:
        """Return when the daemon has handled everything that had reached its main loop."""
        try:
            self.world.settle()
        except Exception as failure:
            self.check_alive()
            raise Finding("answers", f"no answer to a ping: {type(failure).__name__} {failure}") from None

    def wait_events_read(self, most: float = 1.0) -> bool:
        """Wait a moment until the daemon has read what hostapd has said, and listens again; false where it does not.

        Of what it finds in one wake-up it cuts each event to the length of the one before, so what comes too quickly after
        another is lost: that is known and not to be found again.
        """
        deadline = time.monotonic() + most
        world = self.world
        while time.monotonic() < deadline and world.daemon is not None and world.daemon.running:
            try:
                if not world.hostapd.attached:
                    return False
                said = not self._reports_ready and not world.hostapd.unread
                if said and world.daemon.waits_in(WAITING):
                    return True
            except (OSError, LookupError):
                return False
            time.sleep(0.001)
        return False

    def check_alive(self) -> None:
        """The daemon runs."""
        if self.world.daemon is None or not self.world.daemon.running:
            status = None if self.world.daemon is None else self.world.daemon.status
            said = "" if self.world.daemon is None else self.world.daemon.stderr[-2000:]
            raise Finding("alive", f"the daemon has ended with status {status}\n{said}")
