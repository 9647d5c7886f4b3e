"""What the neighbours do by themselves, and what may be wrong with them."""

from __future__ import annotations

import time
from collections.abc import Sequence
from typing import Any

from dbus_next import Variant
from vantora_sim import notify, units

from .finding import Finding
from .life import END, READY, TIME_OUT
from .requests import HOSTAPD_ANSWER, STORED, Requests

STATION = "02:00:00:00:50:{:02x}"
NO_BUS = "[Main] Failed to connect to dbus: "
EVENT_COST = {"enabled": 18.0, "mode": 14.0, "frequency": 8.0, "deviceName": 4.0}
"""Calls that a notification of the settings daemon may wait for."""


class Neighbours(Requests):
    """The neighbours' side of a stage."""

    # hostapd

    def station_joins(self, number: int) -> None:
        """A station associates."""
        if self._heard():
            self.wait_events_read()
        self.world.loop.call(self._join, STATION.format(number))

    def _join(self, mac: str) -> None:
        hostapd = self.world.hostapd
        if hostapd.running:
            if not self.live_listeners():
                self.world.journal.add("unheard", station=mac)
            if mac not in hostapd.stations:
                hostapd.stations.insert(0, mac)
            hostapd._lingering.discard(mac)
            hostapd._event(f"<3>AP-STA-CONNECTED {mac}".encode())

    def station_leaves(self, number: int, linger: bool) -> None:
        """A station leaves; hostapd may go on listing it for a while, if there is somebody who has heard it."""
        self.wait_events_read()

        def leave() -> None:
            hostapd, mac = self.world.hostapd, STATION.format(number)
            if not hostapd.running or mac not in hostapd.stations:
                return
            if linger and self.live_listeners():
                hostapd._lingering.add(mac)
            else:
                hostapd.stations.remove(mac)
            hostapd._event(f"<3>AP-STA-DISCONNECTED {mac}".encode())

        self.world.loop.call(leave)

    def access_point_says(self, values: Sequence[bool]) -> None:
        """hostapd reports the access point ready or not, several times in a row."""
        self.wait_events_read()

        def say() -> int:
            listeners = self.live_listeners()
            if self.world.hostapd.running:
                for value in values:
                    self.world.hostapd._event(b"<3>AP-ENABLED " if value else b"<3>AP-DISABLED ")
            return listeners

        if self.world.loop.call(say) and self.wait_events_read() and self.world.loop.call(self.live_listeners):
            self.history.heard += values

    def access_point_babbles(self, data: bytes) -> None:
        """hostapd sends an event that means nothing to the daemon."""
        self.wait_events_read()
        self.world.loop.call(self.world.hostapd._event, b"<3>" + data)
        self.wait_events_read()

    def hostapd_restarts(self, gap: float) -> None:
        """hostapd ends as it should, by itself, and is back so many seconds later."""
        self.wait_events_read()
        if not self.world.hostapd.running:
            return
        self.history.complaints.add("hostapd ended")
        self.world.loop.call(self._terminate)
        time.sleep(gap)
        # Its unit may have been told to start it meanwhile, and one is all that a unit has.
        self.world.loop.call(lambda: self.world.hostapd.running or self.open_access_point())

    def hostapd_is_replaced(self) -> None:
        """hostapd is killed, and another is there at once."""
        if not self.world.hostapd.running:
            return

        def replace() -> None:
            self._kill_access_point()
            self.open_access_point()

        self.world.loop.call(replace)

    def hostapd_dies(self) -> None:
        """hostapd is killed."""
        if self.world.hostapd.running:
            self.history.disturbed.add("hostapd dead")
            self.world.loop.call(self._kill_access_point)

    def hostapd_takes_its_time(self, stop: float, start: float) -> None:
        """From now on hostapd's unit needs so many seconds to stop it and to start it."""
        self.stop_lag, self.start_lag = stop, start

    def hostapd_fails_to_start(self, stop: float) -> None:
        """From now on hostapd does not come up again, once its unit has needed so many seconds to stop it."""
        self.stop_lag = stop
        self.comes_up = False
        self.history.disturbed.add("hostapd does not come up")

    def attaching_is_slow(self, seconds: float) -> None:
        """hostapd answers the next request to attach so many seconds later."""
        self.world.hostapd.slow("ATTACH", seconds, times=1)

    def attaching_is_refused(self) -> None:
        """hostapd refuses the next request to attach."""
        self.history.disturbed.add("deaf")
        self.world.hostapd.refuse("ATTACH", times=1)

    def counting_fails(self, how: str) -> None:
        """hostapd refuses to list its stations once, is slow, answers nonsense, or does not answer."""
        hostapd = self.world.hostapd
        self.history.complaints.add("hostapd")
        self.history.backlog += 1.0
        if how == "refused":
            hostapd.refuse("STA-FIRST", times=1)
        elif how == "slow":
            hostapd.slow("STA-FIRST", 0.5, times=1)
        elif how == "hangs":
            self.history.backlog += HOSTAPD_ANSWER
            self.history.patience = HOSTAPD_ANSWER + 2.0
            hostapd.hang("STA-FIRST", times=1)
        else:
            hostapd.answer("STA-FIRST", b"\xff:\0:" * 300, times=1)
        if how != "slow":
            self.history.known.pop("WiFiConnectedClients", None)

    def _heard(self) -> bool:
        return self.world.hostapd.attached > 0

    # wpa_supplicant

    def station_reports(self, word: str) -> None:
        """wpa_supplicant changes its state and says so."""
        wpa = self.world.wpa
        if wpa.present:
            self.history.backlog += 2 * TIME_OUT if self.history.disturbed else 0.0
            self.history.station_said(word)
            if word == "disconnected" and self.history.station == "failed":
                self.history.complaints.add("a passphrase refused")
            self.world.radio.station_ssid = b"cafe" if word == "completed" else None
            wpa.report_state(word)

    def networks_are(self, names: Sequence[str]) -> None:
        """Another list of networks is in the air, and wpa_supplicant says so."""
        wpa = self.world.wpa

        def replace() -> None:
            wpa.bss.clear()

        self.world.loop.call(replace)
        for number, name in enumerate(names):
            wpa.add_bss(name, signal=-40 - number)
        if wpa.present:
            self.history.backlog += len(names) * TIME_OUT if self.history.disturbed else 0.0
            wpa.report_bsss()

    def wpa_supplicant_dies(self) -> None:
        """wpa_supplicant drops off the bus."""
        self.history.disturbed.add("wpa_supplicant gone")
        self.world.wpa.go()

    def wpa_supplicant_restarts(self) -> None:
        """wpa_supplicant is gone and there again; its networks are forgotten."""
        if self.world.wpa.present:
            self.world.wpa.go()
            self.history.complaints.add("wpa_supplicant restarted")
            self.world.loop.run(self._start_station())
            self.world.radio.station_ssid = None

    # Settings

    def setting_changes(self, section: str, key: str, value: Any) -> None:
        """Somebody else changes a setting."""
        from vantora_sim import CallRefused

        if key == "deviceName" and (self.stored("network", "mode") == "Client" or self.world.radio.interface_type != "AP"):
            self.history.disturbed.add("an access point in Client mode")
        if key in ("mode", "frequency") and (self.stop_lag or self.start_lag):
            self.history.disturbed.add("a setting that is compared with an interface on its way")
        self.wait_events_read()
        self.history.backlog += EVENT_COST.get(key, 0.0) * (TIME_OUT if self.history.disturbed else 0.2) + 1.0
        self.history.gap = True
        self.history.address_events += 3
        if key in ("frequency", "mode", "deviceName", "enabled"):
            self.history.complaints.add("a setting")
            self.history.changed_settings.add((section, key))
            self.history.stored = {name: value for name, value in self.history.stored.items() if STORED[name] != (section, key)}
        if self._real_settings:
            try:
                self._store(section, key, value)
            except CallRefused:
                pass
        else:
            self.world.settings.change(section, **{key: value})

    def settings_notify(self, values: dict[str, Any]) -> None:
        """The settings daemon announces settings that daemons of this kind do not have, or of a wrong type."""
        if not self._real_settings:
            self.world.settings.notify("network", {key: Variant("s", str(value)) for key, value in values.items()})

    def settings_daemon_restarts(self) -> None:
        """The settings daemon ends and is there again; what it has acknowledged is what it has.

        Not while the daemon's main loop is asking it, which then goes on with a safe configuration; a listener may be.
        """
        self.settle()
        self.history.complaints.add("settings")
        if self._real_settings:
            self.kill_and_compare_settings()
        else:
            self.world.settings.go()
            self.world.settings.come_back()

    def kill_and_compare_settings(self) -> None:
        """What the settings daemon tells is what the next one finds: each value that it has ever told was acknowledged."""
        self.history.complaints.add("settings")
        self.settings_files.clear()
        before = self._all_settings()
        self.kill_settings_daemon()
        self.start_settings_daemon()
        if (after := self._all_settings()) != before:
            raise Finding("storage", f"the settings were {before}, after a kill they are {after}")

    def _all_settings(self) -> dict[str, Any]:
        return {
            f"{section}.{key}": self.stored(section, key)
            for section, key in (
                ("network", "enabled"),
                ("network", "mode"),
                ("network", "frequency"),
                ("device", "deviceName"),
                ("display", "brightness"),
            )
        }

    # Faults that last until the device is quiet

    def refuses(self, who: str, member: str, times: int) -> None:
        """systemd, the settings daemon or wpa_supplicant refuses a call, so many times."""
        self._disturb(who)
        self._fake(who).refuse(member, times=times)

    def hangs(self, who: str, member: str, times: int) -> None:
        """The same does not answer a call, so many times."""
        self._disturb(who)
        self._fake(who).hang(member, times=times)

    def is_slow(self, who: str, member: str, seconds: float) -> None:
        """The same answers a call late."""
        self.history.backlog += seconds
        self._fake(who).slow(member, seconds, times=1)

    def vanishes(self, who: str) -> None:
        """The same drops off its bus in the middle of the next call."""
        self._disturb(who)
        self._fake(who).vanish()

    def is_gone(self, who: str) -> None:
        """The same drops off its bus."""
        self._disturb(who)
        self._fake(who).go()

    def tool_fails(self, tool: str, times: int) -> None:
        """A command fails, so many times."""
        self._disturb(tool)
        self.world.tools[tool].fail(times=times)

    def tool_dies(self, tool: str) -> None:
        """A command is killed."""
        self._disturb(tool)
        self.world.tools[tool].die(9, times=1)

    def tool_babbles(self, tool: str) -> None:
        """A command prints what means nothing."""
        self._disturb(tool)
        self.world.tools[tool].output(b"\xff\0" * 500, times=1)

    def tool_is_slow(self, tool: str, seconds: float) -> None:
        """A command takes so many seconds."""
        self.history.backlog += seconds
        self.world.tools[tool].slow(seconds, times=1)

    def few_descriptors_are_left(self, more: int) -> None:
        """The daemon can open only so many descriptors more."""
        self._disturb("descriptors")
        self.few_descriptors(more)

    def configuration_cannot_be_written(self, call: str, skip: int, error: int) -> None:
        """A call on hostapd's configuration file fails in the daemon."""
        self._disturb("hostapd.conf")
        self.daemon_files.order(call, "/run/hostapd.conf", error, skip=skip)

    def settings_cannot_be_written(self, call: str, skip: int, error: int) -> None:
        """A call on the settings file, or its folder, fails in the settings daemon."""
        if self._real_settings:
            self._disturb("settings")
            self.settings_files.order(call, "/run/sim/state", error, skip=skip)

    def system_bus_restarts(self) -> None:
        """The system bus ends, and another is there."""
        world = self.world
        self._disturb("system bus")
        self.history.station = None
        wpa = world.wpa.present
        world.systemd.go()
        world.wpa.go()
        world.loop.call(world.system_bus.stop)
        world.loop.call(world.system_bus.start)
        world.system_bus.wait_ready()
        world.systemd.come_back()
        if wpa:
            world.loop.run(self._start_station())

    def system_bus_freezes(self, seconds: float) -> None:
        """The system bus passes nothing on for so long."""
        self.history.backlog += seconds
        self.world.system_bus.freeze()
        time.sleep(seconds)
        self.world.system_bus.thaw()

    def user_bus_freezes(self, seconds: float) -> None:
        """The same for the user bus."""
        self.history.backlog += seconds
        self.world.user_bus.freeze()
        time.sleep(seconds)
        self.world.user_bus.thaw()

    def _disturb(self, who: str) -> None:
        self.history.disturbed.add(who)

    def _fake(self, who: str) -> Any:
        return {"systemd": self.world.systemd, "settings": self.world.settings, "wpa_supplicant": self.world.wpa}[who]

    # The kernel, and the daemon's own life

    def address_comes(self, interface: str, number: int) -> None:
        """An address is added to an interface."""
        if self.world.try_ip("addr", "add", f"10.7.{number}.5/24", "dev", interface):
            self.history.address_events += 1

    def address_goes(self, interface: str, number: int) -> None:
        """An address is taken from an interface."""
        if self.world.try_ip("addr", "del", f"10.7.{number}.5/24", "dev", interface):
            self.history.address_events += 1

    def daemon_restarts(self, how: str, reads: int) -> None:
        """The daemon is asked to end, or killed, perhaps with a request in hand, and started again; somebody reads already while
        it starts."""
        world = self.world
        self.history.gap = True
        self.history.complaints.add("a new daemon")
        if how == "in the middle":
            self.history.disturbed.add("ended in the middle of a change")
            self._send(("write", "WiFiFrequency", "5" if self.stored("network", "frequency") == "2.4" else "2.4"))
            self._send(("write", "Mode", "Client"))
        if how == "killed":
            self.kill_daemon()
        else:
            self.end()
        self._wait_orders_done(1.5)  # one that hangs goes on hanging
        self._wait_name_free()
        self.history.new_daemon(world.journal.mark())
        self.launch()
        if reads:
            while not world.name_owned():
                self.check_alive()
                time.sleep(0.001)
            futures = [self._send(("read", "MacAddress", None)) for _ in range(reads)]
            for future in futures:
                self._answer(("read", "MacAddress", None), future, time.monotonic() + 30, 30, ())
        self.wait_up()

    def _wait_name_free(self) -> None:
        while self.world.name_owned():
            time.sleep(0.002)

    def _wait_orders_done(self, most: float = 5.0) -> None:
        """Wait until systemd has done what it was told: it does so in the order in which it was told, and the played one
        would do what it is slow at after what it is told later."""
        deadline = time.monotonic() + most
        while time.monotonic() < deadline:
            under_way = self._unit_task is not None and not self._unit_task.done()
            if not under_way and not self.world.systemd.busy:
                return
            time.sleep(0.01)

    def another_daemon_starts(self, bus: str) -> None:
        """A second daemon is started by mistake, or is told of a bus that is none: it says why it ends, and ends."""
        world = self.world
        self.history.complaints.add("another daemon")
        mark = world.journal.mark()
        address: dict[str, str | None] = {"DBUS_SESSION_BUS_ADDRESS": bus} if bus else {}
        second = world.sandbox.start([self.build / "vantora-network"], {"SYSTEMD_BUS_TIMEOUT": f"{TIME_OUT:g}s", **address})
        try:
            status = second.wait(READY)
        except AssertionError:
            second.stop(9)
            raise Finding("start", "a second daemon does not end") from None
        said = [text for _, text in world.journal.logs(mark, ident="vantora-network") if text.startswith(NO_BUS)]
        if status != 1 or len(said) != 1:
            raise Finding("start", f"a second daemon has ended with status {status} and said {said}")

    def daemon_starts_with_few_descriptors(self, most: int) -> None:
        """The daemon ends, and one that may have only so many descriptors is started in its place: it serves, or says that it
        cannot, and ends, and does so when it is asked to, before a proper one is started."""
        world = self.world
        if self.is_sanitized:
            return  # a sanitizer needs some of its own, and ends with words of its own where it gets none
        self.history.disturbed.add("descriptors")
        self.end()
        self._wait_orders_done(1.5)
        self._wait_name_free()
        mark = world.journal.mark()
        poor = world.sandbox.start(
            ["/bin/sh", "-c", f"ulimit -n {most}; exec {self.build}/vantora-network"],
            {"NOTIFY_SOCKET": "/run/sim/notify", "SYSTEMD_BUS_TIMEOUT": f"{TIME_OUT:g}s"},
        )
        deadline = time.monotonic() + 2 * READY
        while poor.running and not world.journal.count(notify("READY=1"), mark):
            if time.monotonic() > deadline:
                poor.stop(9)
                raise Finding("start", f"a daemon with {most} descriptors neither starts nor ends")
            time.sleep(0.01)
        ended_itself = not poor.running
        poor.send_signal(15)
        try:
            status = poor.wait(END)
        except AssertionError:
            poor.stop(9)
            raise Finding("end", f"a daemon with {most} descriptors does not end when it is asked to") from None
        said = [text for priority, text in world.journal.logs(mark, ident="vantora-network") if priority == "err"]
        if status != (1 if ended_itself else 0) or ended_itself and not said:
            raise Finding("start", f"a daemon with {most} descriptors has ended with status {status} and said {said}")
        self._wait_name_free()
        self.start_daemon()

    def user_bus_restarts(self) -> None:
        """The user bus ends: so does the daemon, since nobody can reach it, and its unit starts it on the new one."""
        world = self.world
        self.history.disturbed.add("user bus")
        world.loop.call(world.user_bus.stop)
        assert world.daemon is not None
        try:
            status = world.daemon.wait(READY)
        except AssertionError:
            raise Finding("end", "the daemon does not end with its bus") from None
        if status != 0:
            said = world.daemon.stderr[-2000:]
            raise Finding("end", f"the daemon has ended with status {status} when its bus was gone\n{said}")
        if self.settings_daemon is not None:
            self.settings_daemon.wait(READY)
        world.bring_user_bus_back()
        if self._real_settings:
            self.start_settings_daemon()
        self.start_daemon()

    def radio_is_switched_off_by_hand(self) -> None:
        """Somebody presses the switch of the radio, until the device is quiet."""
        self._disturb("radio")
        self.world.loop.call(lambda: self.world.radio.block(hard=True))

    def link_goes_down_and_up(self, interface: str) -> None:
        """A cable is pulled and put in again; addresses stay."""
        self.world.try_ip("link", "set", "dev", interface, "down")
        self.world.try_ip("link", "set", "dev", interface, "up")
        self.history.address_events += 2

    def a_moment_passes(self, seconds: float) -> None:
        """Nothing happens for a while."""
        time.sleep(seconds)


__all__ = ["Neighbours", "units"]
