"""systemd's manager on the system bus: units that are loaded, started, restarted and stopped, enabled and disabled."""

from __future__ import annotations

from collections.abc import Awaitable, Callable
from typing import Any

from dbus_next import Variant

from . import units
from .dbus_fake import PROPERTIES, Call, CallRefused, DBusFake

MANAGER_PATH = "/org/freedesktop/systemd1"
MANAGER = "org.freedesktop.systemd1.Manager"
UNIT = "org.freedesktop.systemd1.Unit"


class Systemd(DBusFake):
    """Answers like systemd 252. `on=` of a rule takes the unit's name, or the unit file as the caller wrote it."""

    names = ("org.freedesktop.systemd1",)

    def __init__(self, *args: Any) -> None:
        super().__init__(*args)
        self.active: dict[str, bool] = {
            name: False
            for name in (units.HOSTAPD, units.STATION, units.DHCP_SERVER, units.DHCP_CLIENT, units.WIRED_DHCP_SERVER)
        }
        """Known units and whether each runs. Remove one to make it a unit that does not exist."""
        self.states: dict[str, str] = {}
        """What ActiveState says instead of active or inactive: "activating", "failed", ..."""
        self.unit_files: set[str] = {*self.active, units.WIRED_DHCP_SERVER_FILE}
        """Unit files that can be enabled, by name or path."""
        self.enabled: set[str] = set()
        """Unit names that are enabled."""
        self.described: dict[str, dict[str, Variant]] = {}
        """What is said of a unit beside what follows from its jobs; a unit that is only here is loaded, and runs or not as
        its ActiveState says."""
        self.on_job: list[Callable[[str, str], Awaitable[None]]] = []
        """Awaited on the loop before a job is answered, with the verb ("Start", "Restart", "Stop") and the unit."""
        self._next_job = 1

    def forget_wired_dhcp_server(self) -> None:
        """As after a first boot: its file lies outside the folders of units, so its name is known once it has been enabled."""
        self.active.pop(units.WIRED_DHCP_SERVER, None)
        self.unit_files.discard(units.WIRED_DHCP_SERVER)

    def subjects(self, call: Call) -> tuple[str, ...]:
        if call.path == MANAGER_PATH:
            first = call.args[0] if call.args else ""
            return tuple(first) if isinstance(first, list) else (str(first),)
        return (call.path, units.unit_name(call.path) or "")

    async def answer(self, call: Call) -> tuple[str, list[Any]]:
        if call.path == MANAGER_PATH and call.interface in (MANAGER, ""):
            return self._manager(call)
        unit = units.unit_name(call.path)
        if unit is None:
            raise CallRefused("org.freedesktop.DBus.Error.UnknownObject", f"Unknown object '{call.path}'.")
        if call.interface == PROPERTIES:
            return self._property(call, unit)
        if call.interface == UNIT and call.member in ("Start", "Restart", "Stop") and call.signature == "s":
            return await self._job(call.member, unit)
        raise CallRefused(
            "org.freedesktop.DBus.Error.UnknownMethod", f"Unknown method {call.member} or interface {call.interface}."
        )

    def _manager(self, call: Call) -> tuple[str, list[Any]]:
        match (call.member, call.signature):
            case ("LoadUnit", "s"):
                self._check_name(call.args[0])
                return "o", [units.unit_path(call.args[0])]
            case ("GetUnit", "s"):
                self._check_name(call.args[0])
                if call.args[0] not in self.active:
                    raise CallRefused("org.freedesktop.systemd1.NoSuchUnit", f"Unit {call.args[0]} not loaded.")
                return "o", [units.unit_path(call.args[0])]
            case ("EnableUnitFiles", "asbb"):
                return self._enable(call.args[0])
            case ("DisableUnitFiles", "asb"):
                return self._disable(call.args[0])
            case ("UnmaskUnitFiles", "asb"):
                return self._unmask(call.args[0])
            case ("Reload", ""):
                return "", []
            case ("StartUnit", "ss"):
                return self._start(call.args[0])
        raise CallRefused("org.freedesktop.DBus.Error.UnknownMethod", f"Unknown method {call.member}.")

    def _check_name(self, name: str) -> None:
        if "." not in name or "/" in name:
            raise CallRefused("org.freedesktop.DBus.Error.InvalidArgs", f"Unit name {name} is not valid.")

    def _enable(self, files: list[str]) -> tuple[str, list[Any]]:
        for file in files:
            if file not in self.unit_files:
                raise CallRefused("org.freedesktop.systemd1.NoSuchUnit", f"Unit file {file} does not exist.")
        for file in files:
            name = file.rsplit("/", 1)[-1]
            self.enabled.add(name)
            self.unit_files.add(name)
            self.active.setdefault(name, False)
        return "ba(sss)", [False, []]

    def _disable(self, files: list[str]) -> tuple[str, list[Any]]:
        for file in files:
            if file.startswith("/"):
                raise CallRefused("org.freedesktop.systemd1.BadUnitSetting", "Unit name is not valid.")
            if file not in self.unit_files:
                raise CallRefused("org.freedesktop.systemd1.NoSuchUnit", f"Unit file {file} does not exist.")
        self.enabled.difference_update(files)
        return "a(sss)", [[]]

    def _unmask(self, names: list[str]) -> tuple[str, list[Any]]:
        for name in names:
            for what in ("LoadState", "UnitFileState"):
                self.described.get(name, {}).pop(what, None)
        return "a(sss)", [[["unlink", f"/etc/systemd/system/{name}", ""] for name in names]]

    def _start(self, name: str) -> tuple[str, list[Any]]:
        """Only for units that are described: those of the device are started through their objects."""
        if name not in self.described:
            raise CallRefused("org.freedesktop.systemd1.NoSuchUnit", f"Unit {name} not found.")
        self.described[name]["ActiveState"] = Variant("s", "active")
        return "o", ["/org/freedesktop/systemd1/job/0"]

    async def _job(self, verb: str, unit: str) -> tuple[str, list[Any]]:
        if unit not in self.active:
            problem = "not loaded" if verb == "Stop" else "not found"
            raise CallRefused("org.freedesktop.systemd1.NoSuchUnit", f"Unit {unit} {problem}.")
        self.active[unit] = verb != "Stop"
        for hook in self.on_job:
            await hook(verb, unit)
        job = self._next_job
        self._next_job += 1
        return "o", [f"/org/freedesktop/systemd1/job/{job}"]

    def _property(self, call: Call, unit: str) -> tuple[str, list[Any]]:
        state = self.states.get(unit) or ("active" if self.active.get(unit) else "inactive")
        known = {
            "Id": Variant("s", unit),
            "ActiveState": Variant("s", state),
            "LoadState": Variant("s", "loaded" if unit in self.active or unit in self.described else "not-found"),
            **self.described.get(unit, {}),
        }
        if call.member == "Get" and call.args[1] in known:
            return "v", [known[call.args[1]]]
        if call.member == "GetAll":
            return "a{sv}", [known]
        raise CallRefused("org.freedesktop.DBus.Error.UnknownProperty", "Unknown property or interface.")
