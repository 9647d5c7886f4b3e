"""wpa_supplicant on the system bus: one interface object, its networks, and the networks around it (BSSs)."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

from dbus_next import Variant

from .dbus_fake import PROPERTIES, Call, CallRefused, DBusFake

INTERFACE_PATH = "/fi/w1/wpa_supplicant1/Interfaces/1"
INTERFACE = "fi.w1.wpa_supplicant1.Interface"
BSS = "fi.w1.wpa_supplicant1.BSS"
NO_BSS = "/"

_INVALID_ARGS = "fi.w1.wpa_supplicant1.InvalidArgs"
_NETWORKS = f"{INTERFACE_PATH}/Networks/"


@dataclass
class Bss:
    """One access point as a scan found it."""

    ssid: bytes
    signal: int = -50
    privacy: bool = True
    key_mgmt: tuple[str, ...] = ("wpa-psk",)
    """Key management of the RSN element; empty for none."""
    bssid: bytes = b"\x02\0\0\0\x20\x01"
    frequency: int = 2437
    extra: dict[str, Variant] = field(default_factory=dict)
    """Properties that replace or add to the usual ones, whatever their type."""
    missing: tuple[str, ...] = ()
    """Properties left out."""

    def properties(self) -> dict[str, Variant]:
        """All properties of its D-Bus object."""
        rsn: dict[str, Variant] = {}
        if self.key_mgmt:
            rsn = {
                "KeyMgmt": Variant("as", list(self.key_mgmt)),
                "Pairwise": Variant("as", ["ccmp"]),
                "Group": Variant("s", "ccmp"),
                "MgmtGroup": Variant("s", ""),
            }
        known = {
            "SSID": Variant("ay", self.ssid),
            "BSSID": Variant("ay", self.bssid),
            "Privacy": Variant("b", self.privacy),
            "Mode": Variant("s", "infrastructure"),
            "Signal": Variant("n", self.signal),
            "Frequency": Variant("q", self.frequency),
            "Rates": Variant("au", [54000000, 48000000, 36000000, 24000000]),
            "WPA": Variant("a{sv}", {}),
            "RSN": Variant("a{sv}", rsn),
            "WPS": Variant("a{sv}", {}),
            "IEs": Variant("ay", b"\0" + bytes([len(self.ssid) & 255]) + self.ssid),
            "Age": Variant("u", 3),
        }
        known.update(self.extra)
        return {name: value for name, value in known.items() if name not in self.missing}


class WpaSupplicant(DBusFake):
    """Answers like wpa_supplicant 2.10, under both of its names. `on=` of a rule takes the object path, the path of the
    network or the name of the property that the call is about."""

    names = ("fi.w1.wpa_supplicant1", "fi.epitest.hostap.WPASupplicant")

    def __init__(self, *args: Any) -> None:
        super().__init__(*args)
        self.bss: dict[str, Bss] = {}
        """The networks around, by object path. `add_bss()` makes the path."""
        self.networks: dict[str, dict[str, Variant]] = {}
        """The configured networks, by object path, as AddNetwork gave them."""
        self.state = "disconnected"
        self.current_bss = NO_BSS
        self.on_call: list[Callable[[str, list[Any]], None]] = []
        """Called on the loop after Scan, AddNetwork, SelectNetwork, RemoveNetwork and Disconnect were answered truthfully,
        with the member and its arguments: the place to let a simulated radio act."""
        self._next_bss = 0

    # From any thread

    def add_bss(self, ssid: bytes | str, **properties: Any) -> str:
        """Put a network into the air without telling anybody; returns its object path."""
        name = ssid.encode() if isinstance(ssid, str) else ssid
        path = f"{INTERFACE_PATH}/BSSs/{self._next_bss}"
        self._next_bss += 1
        self.bss[path] = Bss(name, **properties)
        return path

    def remove_bss(self, path: str) -> None:
        """Take a network out of the air without telling anybody: its object is gone."""
        del self.bss[path]

    def report_bsss(self) -> None:
        """Notify of the list of networks, as after a scan."""
        self.changed(BSSs=Variant("ao", list(self.bss)))

    def report_state(self, state: str, bss: str | None = None) -> None:
        """Change the state and notify; with a BSS, of "CurrentBSS" in the same notification ("/" for none)."""
        self.state = state
        values = {"State": Variant("s", state)}
        if bss is not None:
            self.current_bss = bss
            values["CurrentBSS"] = Variant("o", bss)
        self.changed(**values)

    def changed(self, **values: Variant) -> None:
        """Notify of property values, twice as the real one does: by the standard signal and by its own."""
        self.emit(INTERFACE_PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, values, []])
        self.emit(INTERFACE_PATH, INTERFACE, "PropertiesChanged", "a{sv}", [values])

    def notify_raw(self, signature: str, body: list[Any], path: str = INTERFACE_PATH) -> None:
        """Send its own PropertiesChanged with any body."""
        self.emit(path, INTERFACE, "PropertiesChanged", signature, body)

    def start_anew(self) -> None:
        """Come back as a process that has just started."""
        self._loop.run(self.start(self.address))

    # Life on the loop

    async def start(self, address: str) -> None:
        """Begin as a new process does: no network configured, nothing joined, and "disconnected" reported once it is there."""
        self.networks.clear()
        self.state = "disconnected"  # for whoever asks before it is reported
        self.current_bss = NO_BSS
        await self.open(address)
        self.report_state("disconnected")

    # Answers

    def subjects(self, call: Call) -> tuple[str, ...]:
        arguments = tuple(argument for argument in call.args if isinstance(argument, str))
        return (call.path, *arguments)

    async def answer(self, call: Call) -> tuple[str, list[Any]]:
        if call.interface == PROPERTIES:
            return self._property(call)
        if call.path != INTERFACE_PATH:
            raise _unknown_object(call)
        if call.interface != INTERFACE:
            raise CallRefused("org.freedesktop.DBus.Error.UnknownMethod")
        answer = self._method(call)
        for hook in self.on_call:
            hook(call.member, call.args)
        return answer

    def _method(self, call: Call) -> tuple[str, list[Any]]:
        match (call.member, call.signature):
            case ("Scan", "a{sv}"):
                if call.args[0].get("Type") not in (Variant("s", "active"), Variant("s", "passive")):
                    raise CallRefused(_INVALID_ARGS, "Did not receive correct message arguments.")
                return "", []
            case ("AddNetwork", "a{sv}"):
                return self._add_network(call.args[0])
            case ("SelectNetwork", "o"):
                self._check_network(call.args[0])
                return "", []
            case ("RemoveNetwork", "o"):
                self._check_network(call.args[0])
                del self.networks[call.args[0]]
                return "", []
            case ("Disconnect", ""):
                if self.state in ("disconnected", "inactive"):
                    raise CallRefused("fi.w1.wpa_supplicant1.NotConnected", "This interface is not connected")
                return "", []
            case ("Scan" | "AddNetwork" | "SelectNetwork" | "RemoveNetwork" | "Disconnect", _):
                raise CallRefused("org.freedesktop.DBus.Error.InvalidArgs")
        raise CallRefused("org.freedesktop.DBus.Error.UnknownMethod")

    def _add_network(self, settings: dict[str, Variant]) -> tuple[str, list[Any]]:
        ssid = settings.get("ssid", Variant("s", "")).value
        passphrase = settings.get("psk", Variant("s", "12345678")).value
        unknown = set(settings) - {"ssid", "psk", "key_mgmt"}
        if unknown or len(ssid.encode()) > 32 or not 8 <= len(passphrase.encode()) <= 63:
            raise CallRefused("org.freedesktop.DBus.Error.InvalidArgs", "invalid message format")
        path = f"{_NETWORKS}{self._next_network()}"
        self.networks[path] = settings
        return "o", [path]

    def _next_network(self) -> int:
        """One more than the greatest number in use: that of the latest network is given again once it is removed."""
        return max((int(path.removeprefix(_NETWORKS)) for path in self.networks), default=-1) + 1

    def _check_network(self, path: str) -> None:
        if not path.startswith(_NETWORKS):
            raise CallRefused(_INVALID_ARGS, "Did not receive correct message arguments.")
        if path not in self.networks:
            raise CallRefused("fi.w1.wpa_supplicant1.NetworkUnknown", "There is no such a network in this interface.")

    def _property(self, call: Call) -> tuple[str, list[Any]]:
        if call.path in self.bss:
            interface, values = BSS, self.bss[call.path].properties()
        elif call.path == INTERFACE_PATH:
            interface, values = INTERFACE, {
                "State": Variant("s", self.state),
                "CurrentBSS": Variant("o", self.current_bss),
                "BSSs": Variant("ao", list(self.bss)),
                "Networks": Variant("ao", list(self.networks)),
                "Ifname": Variant("s", "wlan0"),
                "Scanning": Variant("b", False),
            }
        else:
            raise _unknown_object(call)
        if call.member == "GetAll":
            return "a{sv}", [values if call.args == [interface] else {}]
        if not call.args or call.args[0] != interface:
            raise CallRefused("org.freedesktop.DBus.Error.InvalidArgs", "No such property")
        if call.member == "Get" and call.args[1] in values:
            return "v", [values[call.args[1]]]
        raise CallRefused("org.freedesktop.DBus.Error.InvalidArgs", "No such property")


def _unknown_object(call: Call) -> CallRefused:
    """What its D-Bus library says about objects that it does not know."""
    return CallRefused(
        "org.freedesktop.DBus.Error.UnknownMethod",
        f'Method "{call.member}" with signature "{call.signature}" ' f'on interface "{call.interface}" doesn\'t exist\n',
    )
