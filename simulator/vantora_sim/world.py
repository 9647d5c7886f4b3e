"""A world: everything around one daemon, and the daemon in it.

    with World(build) as world:
        world.settings.set("network", "mode", "Client")
        world.up()
        world.set("Mode", "Host")
        world.journal.wait_for(changed("Mode", "Host"))
"""

from __future__ import annotations

import asyncio
import platform
import re
import shutil
import tempfile
import time
from collections.abc import Sequence
from concurrent.futures import Future
from pathlib import Path
from typing import Any

from dbus_next import Variant

from . import units
from .buses import system_bus, user_bus
from .client import INTERFACE, PATH, SERVICE, Client, Watcher
from .dbus_fake import plain
from .hostapd import Hostapd
from .hostapd_conf import read_hostapd_conf
from .journal import DEADLINE, Journal, exited, hostapd_request, log, notify
from .lasting import Lasting
from .loop import LoopThread
from .radio import Radio
from .recorder import Recorder
from .sandbox import Process, Sandbox
from .settings import Settings
from .systemd import Systemd
from .tools import Tools
from .wpa_supplicant import WpaSupplicant

HOSTAPD_TEMPLATE = """\
# Access point of the device
interface=wlan0
driver=nl80211
ctrl_interface=/var/run/hostapd
country_code=NL
ssid=template
hw_mode=g
channel=0
wpa=2
wpa_key_mgmt=WPA-PSK
rsn_pairwise=CCMP
wpa_passphrase=korrin-secret
"""

DEVICE = {"model": "Korrin One", "serial": "12-3456", "radio_type": "1"}
"""Identity of the device; the default SSID that follows from it is "Korrin One-3456"."""

WORK_PREFIX = "vantora-sim-"
"""How the names of work folders begin."""

KERNEL_COMMAND_LINE = "console=ttymxc0,115200 root=/dev/mmcblk0p2 rootwait rw\n"

_WRITABLE = {"WiFiState": "u", "Mode": "s", "WiFiFrequency": "s", "SSID": "s"}
_SANITIZER_REPORT = re.compile(r"(ERROR|WARNING): \w+Sanitizer|runtime error:")
_LONGEST_PARENT = 40
_SELECT_CALLS = {"x86_64": (23, 270), "aarch64": (72,), "armv7l": (82, 142, 335, 413), "i686": (82, 142, 308, 413)}
_NETLINK_GROUPS = "00000011"


def _make_work_folder() -> Path:
    """A new private folder, not too deep for the addresses of the sockets in it."""
    crowded = len(tempfile.gettempdir()) > _LONGEST_PARENT
    return Path(tempfile.mkdtemp(prefix=WORK_PREFIX, dir="/tmp" if crowded else None))


def _remove_tree(work: Path) -> None:
    """Remove a world's folder, with the folder that the kernel's layer over /etc has locked for itself."""
    locked = work / "run/sim/etc/scratch/work"
    if locked.exists():
        locked.chmod(0o700)
    shutil.rmtree(work, ignore_errors=True)


class World(Lasting):
    """One private world. Enter it to bring it up; leaving it takes everything down and leaves nothing behind."""

    def __init__(
        self,
        build: Path,
        *,
        device: dict[str, str] | None = None,
        hostapd_template: str | None = HOSTAPD_TEMPLATE,
        kernel_command_line: str = KERNEL_COMMAND_LINE,
        exposed: Sequence[Path] = (),
        lasting: bool = False,
    ) -> None:
        """`build` is the folder with the executables. `device` adds to or replaces DEVICE; a template of None means that
        /etc/hostapd.conf is missing. A lasting world is for days and for people: its journal forgets, and its neighbours
        answer at once instead of bringing the journal into order first."""
        self.build = build.resolve()
        self.device = {**DEVICE, **(device or {})}
        self.journal = Journal(keep=10_000 if lasting else None)
        self.loop = LoopThread.shared()
        self.radio = Radio()
        self.follow_units = True
        """Whether starting and stopping units takes hostapd, wpa_supplicant and the radio along."""
        self.daemon: Process | None = None
        self._hostapd_template = hostapd_template
        self._kernel_command_line = kernel_command_line
        self._exposed = [self.build, *exposed]
        self._order = asyncio.Lock()
        self._watcher: Watcher | None = None
        self._client: Client | None = None
        self._closed = False

        self.work = _make_work_folder()
        run, tmp = self.work / "run", self.work / "tmp"
        before_answer = self._drain if lasting else self._catch_up
        self.settings = Settings(self.loop, self.journal, before_answer)
        self.systemd = Systemd(self.loop, self.journal, before_answer)
        self.wpa = WpaSupplicant(self.loop, self.journal, before_answer)
        self.hostapd = Hostapd(self.loop, self.journal, before_answer, run, tmp)
        self.tools = Tools(self.loop, self.journal, before_answer, self.radio)
        self.user_bus = user_bus(run, self.work)
        self.system_bus = system_bus(run, self.work)
        self.systemd.on_job.append(self._follow_unit)
        self.hostapd.before_event = self._wait_for_hostapd_listener

    # Up and down

    def _begin(self) -> None:
        self._furnish()
        self.log_daemon = Recorder(self.journal, self.work / "run/sim", self.loop.asyncio)
        self.loop.call(self.user_bus.start)
        self.loop.call(self.system_bus.start)
        self.sandbox = Sandbox(self.work, self.build, self._exposed, self._note_end)
        self.user_bus.wait_ready()
        self.system_bus.wait_ready()
        self.loop.run(self._open())
        self.sandbox.wait_complete()  # before anyone uses its paths

    def _furnish(self) -> None:
        run = self.work / "run"
        for folder in (
            # Who owns a folder may write into it: an ordinary user, too.
            run / "sim/etc/upper/dbus-1/system.d",
            run / "sim/etc/upper/korrin",
            run / "sim/etc/upper/wpa_supplicant",
            run / "sim/etc/scratch",
            self.work / "tmp",
        ):
            folder.mkdir(parents=True)
        for folder in (run, self.work / "tmp"):
            folder.chmod(0o755)
        (self.work / "tmp").chmod(0o1777)
        etc = run / "sim/etc/upper"
        if self._hostapd_template is not None:
            (etc / "hostapd.conf").write_text(self._hostapd_template)
        (etc / "korrin/device.conf").write_text("".join(f"{key}={value}\n" for key, value in self.device.items()))
        (run / "sim/cmdline").write_text(self._kernel_command_line)
        self.tools.install(run / "sim/bin", self.build / "vantora-sim-tool")

    async def _open(self) -> None:
        self.log_daemon.begin()
        await self.tools.open(self.work / "run/sim/tool")
        self._watcher = await Watcher.start(self.user_bus.address, self.journal)
        self._client = await Client.open(self.user_bus.address)
        await self.settings.open(self.user_bus.address)
        await self.systemd.open(self.system_bus.address)
        self.wpa.address = self.system_bus.address  # it comes with its unit

    def close(self) -> None:
        """End everything at once and remove the work folder. The journal can still be read."""
        if self._closed:
            return
        self._closed = True
        if hasattr(self, "sandbox"):
            self.sandbox.close()
        self.loop.run(self._close())
        self.user_bus.stop()
        self.system_bus.stop()
        _remove_tree(self.work)

    async def _close(self) -> None:
        await self.tools.close()
        self.hostapd.end()
        for service in (self.settings, self.systemd, self.wpa):
            service.end()
            await service.close()
        for connection in (self._client, self._watcher):
            if connection is not None:
                await connection.close()
        if hasattr(self, "log_daemon"):
            self.log_daemon.stop()

    # The daemon

    def start_daemon(self, program: Path | None = None, environment: dict[str, str | None] | None = None) -> Process:
        """Start the daemon (or another program in its place) without waiting."""
        self._started = self.journal.mark()
        full = {"NOTIFY_SOCKET": "/run/sim/notify", **(environment or {})}
        self.daemon = self.sandbox.start([program or self.build / "vantora-network"], full)
        return self.daemon

    def wait_ready(self, timeout: float = DEADLINE) -> None:
        """Wait until the daemon has told the service manager that it is ready."""
        ready, ended = notify("READY=1"), exited(self.daemon.name if self.daemon else ...)
        entry = self.journal.wait_until(
            lambda: next(
                (entry for entry in self.journal.since(self._started) if ready.matches(entry) or ended.matches(entry)), None
            ),
            "the daemon to be ready",
            timeout,
        )
        if ended.matches(entry):
            assert self.daemon is not None
            raise AssertionError(
                f"the daemon ended with status {entry.status} before it was ready\n{self.daemon.stderr}\n"
                f"{self.journal.dump()}"
            )

    def wait_up(self, timeout: float = DEADLINE) -> None:
        """Wait until the daemon's deferred start-up is over: all reactions are connected, kernel addresses are followed."""
        self.wait_ready(timeout)
        self.journal.wait_for(log("info", "[NETLINK] Starting kernel netlink task..."), self._started, timeout)
        self.wait_follows_addresses(timeout)
        self._wait_listens_to_hostapd(timeout)
        self.settle()

    def _wait_listens_to_hostapd(self, timeout: float) -> None:
        """Wait until the thread that follows hostapd, where the start-up began one, has asked to be attached, or given up.

        Only the scripted hostapd is looked at: what is asked of a real one cannot be seen here.
        """
        starting, attaching = log("info", "Starting Hostapd daemon service"), hostapd_request("ATTACH")
        given_up = log("err", lambda text: text.startswith("ListenTask: ") and text.endswith(" - cannot listen."))
        if self.hostapd.running and self.journal.count(starting, self._started):
            self.journal.wait_until(
                lambda: self.journal.count(attaching, self._started) or self.journal.count(given_up, self._started),
                "the daemon to listen to hostapd",
                timeout,
                self._started,
            )
            self.loop.call(lambda: None)  # by then the request is answered

    def wait_follows_addresses(self, timeout: float = DEADLINE) -> None:
        """Wait until the daemon hears of kernel addresses: the last step of its deferred start-up."""
        sockets = Path(f"/proc/{self.sandbox.init}/net/netlink")
        deadline = time.monotonic() + timeout
        while not any(line.split()[3] == _NETLINK_GROUPS for line in sockets.read_text(encoding="utf-8").splitlines()[1:]):
            assert time.monotonic() < deadline, "the daemon does not listen to kernel addresses"
            time.sleep(0.001)

    def up(self, environment: dict[str, str | None] | None = None) -> Process:
        """Start the daemon and wait until it is up."""
        daemon = self.start_daemon(environment=environment)
        self.wait_up()
        return daemon

    def stop_daemon(self, timeout: float = DEADLINE) -> int:
        """Ask the daemon to end (SIGTERM), with no neighbour holding it up any more; returns the exit status."""
        assert self.daemon is not None, "no daemon was started"
        self.clear_faults()
        return self.daemon.stop(timeout=timeout)

    def clear_faults(self) -> None:
        """Let all neighbours behave and answer what hangs."""
        for neighbour in (self.settings, self.systemd, self.wpa, self.hostapd, self.tools):
            neighbour.clear()

    def sanitizer_reports(self) -> str:
        """What sanitizers have written to standard error of any program in the sandbox; empty when nothing."""
        texts = [path.read_text(errors="replace") for path in sorted((self.work / "output").glob("*.err"))]
        return "\n".join(text for text in texts if _SANITIZER_REPORT.search(text))

    # What a client does

    def get(self, name: str) -> Any:
        """Read a property of the daemon, as a plain Python value. A refusal raises CallRefused."""
        return plain(self.get_variant(name))

    def get_variant(self, name: str) -> Variant:
        """Read a property of the daemon with its type."""
        assert self._client
        return self.loop.run(self._client.get(name))

    def set(self, name: str, value: Any) -> None:
        """Write a property of the daemon; a Variant is sent as it is, else the type is the property's own."""
        variant = value if isinstance(value, Variant) else Variant(_WRITABLE.get(name, "s"), value)
        assert self._client
        self.loop.run(self._client.set(name, variant))

    def call(self, member: str, signature: str = "", args: list[Any] | None = None) -> list[Any]:
        """Call a method of the daemon; returns the values of the reply. A refusal raises CallRefused."""
        return self.call_async(member, signature, args).result(60)

    def call_async(
        self, member: str, signature: str = "", args: list[Any] | None = None, interface: str = INTERFACE
    ) -> Future[list[Any]]:
        """The same without waiting: `.done()`, `.result(timeout)`. Interface "org.freedesktop.DBus.Properties" works, too."""
        assert self._client
        return self.call_service_async(SERVICE, PATH, interface, member, signature, args)

    def call_service_async(
        self, service: str, path: str, interface: str, member: str, signature: str = "", args: list[Any] | None = None
    ) -> Future[list[Any]]:
        """Call a method of any service on the user bus without waiting."""
        assert self._client
        return self.loop.submit(self._client.call(service, path, interface, member, signature, args))

    def settle(self) -> None:
        """Return when the daemon's main loop has handled everything that had reached it, and the journal shows it.

        Not by waiting a while: the daemon answers a ping only after what came before it, and what the settings daemon has
        announced is there before it is pinged. Its listener threads are not covered: wait for their log lines.
        """
        assert self._client

        async def rounds() -> None:
            assert self._client
            await self.settings.arrived()
            for _ in range(3):
                await self._client.ping()
            await self._catch_up()

        self.loop.run(rounds())

    def _wait_for_hostapd_listener(self) -> None:
        """Return when the daemon's listener has read what was sent and sleeps in select again.

        Of two events within one wake-up it cuts the second to the length of the first, so what a test sends would otherwise
        depend on how fast the machine is. Both questions are needed, in this order: a thread that was only just woken still
        seems to sleep.
        """
        if self.daemon is None or not self.daemon.running:
            return
        deadline = time.monotonic() + DEADLINE
        while self.hostapd.unread or not self.daemon.waits_in(_SELECT_CALLS[platform.machine()]):
            assert time.monotonic() < deadline, "the daemon's hostapd listener does not wait for events"
            time.sleep(0.001)

    def name_owned(self, name: str = SERVICE) -> bool:
        """Whether somebody owns the name on the user bus."""
        assert self._client
        return bool(self.loop.run(self._client.ask_bus("NameHasOwner", "s", [name]))[0])

    def bring_user_bus_back(self) -> None:
        """Start the user bus again after `user_bus.stop()`; the settings daemon, the watcher and the client are on it again."""
        self.loop.call(self.user_bus.start)
        self.user_bus.wait_ready()

        async def reconnect() -> None:
            for connection in (self._client, self._watcher):
                if connection is not None:
                    await connection.close()
            self._watcher = await Watcher.start(self.user_bus.address, self.journal)
            self._client = await Client.open(self.user_bus.address)
            await self.settings.close()
            await self.settings.open(self.user_bus.address)

        self.loop.run(reconnect())

    # The device around it

    @property
    def hostapd_conf(self) -> Path:
        """hostapd's runtime configuration file as the daemon wrote it."""
        return self.work / "run/hostapd.conf"

    def set_kernel_command_line(self, text: str) -> None:
        """Change what /proc/cmdline says."""
        (self.work / "run/sim/cmdline").write_text(text)

    def hide_kernel_command_line(self) -> None:
        """Make /proc/cmdline a file that cannot be opened."""
        assert self.sandbox.run(["/bin/mount", "--bind", "/run/sim/log", "/proc/cmdline"]).status == 0

    def add_address(self, address: str, interface: str = "wlan0") -> None:
        """Add an address ("10.0.0.5/24") to an interface, in the kernel."""
        self._ip("addr", "add", address, "dev", interface)

    def remove_address(self, address: str, interface: str = "wlan0") -> None:
        """Remove an address from an interface, in the kernel."""
        self._ip("addr", "del", address, "dev", interface)

    def try_ip(self, *arguments: str) -> bool:
        """Run the real `ip` in the sandbox; false when it fails."""
        return self.sandbox.run(["/usr/sbin/ip", *arguments]).status == 0

    def _ip(self, *arguments: str) -> None:
        completed = self.sandbox.run(["/usr/sbin/ip", *arguments])
        assert completed.status == 0, completed.stderr

    # On the loop

    async def _drain(self) -> None:
        self.log_daemon.drain()

    async def _catch_up(self) -> None:
        """Put everything into the journal that happened before the request being served now."""
        async with self._order:
            self.log_daemon.drain()
            if self._watcher is not None and self._watcher.connected:
                try:
                    await self._watcher.catch_up()
                except (OSError, EOFError, asyncio.CancelledError):
                    pass  # the bus has just been taken away

    async def _follow_unit(self, verb: str, unit: str) -> None:
        if not self.follow_units:
            return
        if unit == units.HOSTAPD:
            if verb == "Stop":
                self._stop_access_point()
            elif verb == "Restart" or not self.hostapd.running:
                self._start_access_point()
        elif unit == units.STATION:
            if verb != "Start":
                await self.wpa.close()
            if verb != "Stop" and not self.wpa.present:
                await self.wpa.start(self.system_bus.address)
            self.radio.station_running = verb != "Stop"
            self.radio.station_ssid = None
            self.radio.station_state = "DISCONNECTED"

    def _start_access_point(self) -> None:
        if self.hostapd.running:
            self.hostapd.terminate()
        self.radio.interface_type = "AP"
        self.radio.ap_ssid = read_hostapd_conf(self.hostapd_conf).get(b"ssid", b"")
        self.hostapd.start()

    def _stop_access_point(self) -> None:
        if self.hostapd.running:
            self.hostapd.terminate()
        self.radio.interface_type = "managed"

    def _note_end(self, process: Process) -> None:
        self.loop.call(self.log_daemon.drain)
        self.journal.add("exit", program=process.name, status=process.status)
