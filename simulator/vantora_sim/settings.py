"""A settings daemon on the user bus: an object per section, its settings as properties."""

from __future__ import annotations

import copy
from collections.abc import Callable
from typing import Any

from dbus_next import Variant

from .dbus_fake import PROPERTIES, Call, CallRefused, DBusFake

SERVICE = "com.vantora.common.Settings1"
BASE_PATH = "/com/vantora/common/Settings1"

DEFAULTS: dict[str, dict[str, Variant]] = {
    "network": {"enabled": Variant("b", True), "mode": Variant("s", "Host"), "frequency": Variant("s", "2.4")},
    "device": {"deviceName": Variant("s", "Korrin One")},
    "development": {"killWifiOnBoot": Variant("b", False)},
}
"""A new world's settings: the radio on, an access point on 2.4 GHz."""

REFUSALS: dict[tuple[str, str], tuple[Callable[[Any], bool], str]] = {
    ("network", "mode"): (lambda text: text in ("Host", "Client"), 'must be "Host" or "Client"'),
    ("network", "frequency"): (lambda text: text in ("2.4", "5"), 'must be "2.4" or "5"'),
    ("device", "deviceName"): (lambda text: 1 <= len(text.encode()) <= 32, "must have 1 to 32 bytes"),
}
"""What may be written, and what is said of anything else, as by the real one. Tests store what they like behind its back."""


class Settings(DBusFake):
    """Sections and settings that a test can read and change. `on=` of a rule takes "section.key", the key or the section."""

    names = (SERVICE,)
    bus_name = "user"

    def __init__(self, *args: Any) -> None:
        super().__init__(*args)
        self.defaults = copy.deepcopy(DEFAULTS)
        """What the reset methods restore."""
        self._values = copy.deepcopy(DEFAULTS)
        self.echo = False
        """Whether a client that writes a setting is notified of its own change."""

    # From any thread

    def get(self, section: str, key: str) -> Any:
        """The stored value, as a plain Python value."""
        return self._values[section][key].value

    def set(self, section: str, key: str, value: Any) -> None:
        """Store a value without telling anybody. A D-Bus Variant gives it any type; else bool is "b" and str is "s"."""
        self._values.setdefault(section, {})[key] = as_variant(value)

    def remove(self, section: str, key: str) -> None:
        """Forget a setting, as if it had never existed."""
        del self._values[section][key]

    def change(self, section: str, **values: Any) -> None:
        """Change settings as another client would: store them and notify, all in one signal."""
        variants = {key: as_variant(value) for key, value in values.items()}
        self._values.setdefault(section, {}).update(variants)
        self.notify(section, variants)

    def notify(self, section: str, values: dict[str, Any]) -> None:
        """Notify of values without storing them."""
        variants = {key: as_variant(value) for key, value in values.items()}
        self.notify_raw(f"{BASE_PATH}/{section}", "sa{sv}as", [SERVICE, variants, []])

    def notify_raw(self, path: str, signature: str, body: list[Any]) -> None:
        """Send a PropertiesChanged from any path with any body."""
        self.emit(path, PROPERTIES, "PropertiesChanged", signature, body)

    # Answers

    def subjects(self, call: Call) -> tuple[str, ...]:
        section = call.path.rsplit("/", 1)[-1]
        if call.interface == PROPERTIES and len(call.args) > 1:
            return (f"{section}.{call.args[1]}", str(call.args[1]), section)
        return (section, *(str(argument) for argument in call.args))

    async def answer(self, call: Call) -> tuple[str, list[Any]]:
        if call.interface == PROPERTIES:
            return self._property(call)
        if call.path == BASE_PATH and call.interface == SERVICE:
            return self._reset(call)
        raise CallRefused("org.freedesktop.DBus.Error.UnknownMethod", f"Unknown method {call.member}.")

    def _property(self, call: Call) -> tuple[str, list[Any]]:
        section = call.path.rsplit("/", 1)[-1]
        values = self._values.get(section)
        if values is None:
            raise CallRefused("org.freedesktop.DBus.Error.UnknownObject", f"Unknown object '{call.path}'.")
        if call.member == "GetAll":
            return "a{sv}", [dict(values)]
        key = call.args[1]
        if key not in values:
            raise CallRefused("org.freedesktop.DBus.Error.UnknownProperty", "Unknown property or interface.")
        if call.member == "Get":
            return "v", [values[key]]
        self._write(section, key, call.args[2])
        return "", []

    def _write(self, section: str, key: str, value: Variant) -> None:
        known = self._values[section][key]
        if known.signature != value.signature:
            raise CallRefused(
                "org.freedesktop.DBus.Error.InvalidArgs",
                f"Incorrect signature, expected {known.signature}, got {value.signature}.",
            )
        if (section, key) in REFUSALS and value != self.defaults.get(section, {}).get(key):
            allowed, reason = REFUSALS[section, key]
            if not allowed(value.value):
                raise CallRefused("org.freedesktop.DBus.Error.InvalidArgs", f"{section}.{key} {reason}")
        changed = known != value
        self._values[section][key] = value
        if changed and self.echo:
            self.notify(section, {key: value})

    def _reset(self, call: Call) -> tuple[str, list[Any]]:
        match (call.member, call.signature):
            case ("ResetToDefaults", "b"):
                owners = {} if call.args[0] else self._values.get("device", {})
                self._values = copy.deepcopy(self.defaults)
                self._values.setdefault("device", {}).update(owners)  # the name is the owner's, and stays
            case ("ResetSection", "s"):
                if call.args[0] not in self.defaults:
                    raise CallRefused("org.freedesktop.DBus.Error.InvalidArgs", f"No such section: {call.args[0]}")
                self._values[call.args[0]] = copy.deepcopy(self.defaults[call.args[0]])
            case ("ResetSetting", "ss"):
                section, key = call.args
                if key not in self.defaults.get(section, {}):
                    raise CallRefused("org.freedesktop.DBus.Error.InvalidArgs", f"No such setting: {section}.{key}")
                self._values[section][key] = self.defaults[section][key]
            case _:
                raise CallRefused("org.freedesktop.DBus.Error.UnknownMethod", f"Unknown method {call.member}.")
        return "", []


def as_variant(value: Any) -> Variant:
    """A value with its D-Bus type: given, or "b" for bool, "s" for str."""
    if isinstance(value, Variant):
        return value
    if isinstance(value, bool):
        return Variant("b", value)
    if isinstance(value, str):
        return Variant("s", value)
    raise TypeError(f"give the D-Bus type of {value!r}: Variant(signature, value)")
