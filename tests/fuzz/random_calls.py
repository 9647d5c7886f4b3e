"""Random calls of the daemon's object: every member, every standard interface, arguments of every type.

What a call is made of comes from a random generator with a seed, so that a run can be repeated. Calls that change the state
of the device are few, since each restarts services; without them every call would meet the daemon in one and the same state.
"""

from __future__ import annotations

import random
from collections.abc import Callable
from typing import Any

from dbus_next import Message, MessageFlag, Variant
from vantora_sim.client import INTERFACE, PATH, SERVICE
from vantora_sim.dbus_fake import PROPERTIES

DBUS = "org.freedesktop.DBus"

METHODS = ("Connect", "Scan", "Disconnect")
QUICK = ("MacAddress", "WiFiAvailableFrequencies", "WiFiAccessPointInitialised")
"""Properties that are read without running a command."""
SLOWER = (
    "IPAddress",
    "AccessPoints",
    "WiFiSignal",
    "WiFiConnectedClients",
    "WiFiClientState",
    "ClientSSID",
    "WiFiState",
    "Mode",
    "WiFiFrequency",
    "SSID",
)
WRITABLE = {"WiFiState": "u", "Mode": "s", "WiFiFrequency": "s", "SSID": "s"}

TEXTS = (
    "",
    "Host",
    "Client",
    "host",
    "Ad-hoc",
    "2.4",
    "5",
    "6",
    "Korrin One",
    "%s%n%x",
    "$(reboot)",
    "`reboot`",
    "'; reboot #",
    "a\nb=c",
    "\u00e9" * 17,
    "x" * 33,
    "y" * 300,
    "z" * 20_000,
    "\U0001f4f6",
    "\ufdd0",
    "\ufffe",
    "\u202e",
    "\x01\x1b[2J",
    "wpa=0",
    INTERFACE,
)
NUMBERS = (0, 1, 2, 3, 127, 128, 255, 2**15, 2**31 - 1, 2**31, 2**32 - 1, 2**62)
BASIC = "ybnqiuxtdsog"
_BITS = {
    "y": (8, False),
    "n": (16, True),
    "q": (16, False),
    "i": (32, True),
    "u": (32, False),
    "x": (64, True),
    "t": (64, False),
}


REFUSED = f"{DBUS}.Error.AccessDenied"
"""What a setter's refusal becomes."""
WRONG_TYPE = f"{DBUS}.Error.InvalidArgs"


class RandomCalls:
    """Makes calls, one after the other."""

    def __init__(self, seed: int) -> None:
        self._chance = random.Random(seed)
        shares: list[tuple[float, Callable[[], Message], str | None]] = [
            (18, self._get_quick, "reply"),
            (8, self._get_slower, "reply"),
            (0.4, self._get_all, "reply"),
            (8, self._get_nonsense, None),
            (14, self._set_wrong_type, WRONG_TYPE),
            (10, self._set_wrong_value, REFUSED),
            (8, self._set_elsewhere, None),
            (0.6, self._set_good, None),
            (4, self._method, None),
            (13, self._method_wrong_type, None),
            (7, self._standard, None),
            (9, self._nowhere, None),
        ]
        self._makers = [(maker, answer) for _, maker, answer in shares]
        self._weights = [share for share, _, _ in shares]

    def next(self) -> tuple[Message, str | None]:
        """Another call, and the answer that it must get where that is certain: "reply", or the name of an error.

        Three in a hundred want no reply, but never a change: nobody would know when it is done.
        """
        maker, answer = self._chance.choices(self._makers, self._weights)[0]
        message = maker()
        is_change = maker.__name__ == "_set_good"
        if not is_change and self._chance.random() < 0.03:
            message.flags = MessageFlag.NO_REPLY_EXPECTED
        return message, answer

    # Values

    def _text(self) -> str:
        if self._chance.random() < 0.7:
            return self._chance.choice(TEXTS)
        # NUL and surrogates are what D-Bus cannot carry at all.
        codes = (
            self._chance.choice(
                (self._chance.randrange(1, 128), self._chance.randrange(1, 0xD800), self._chance.randrange(0xE000, 0x110000))
            )
            for _ in range(self._chance.randrange(48))
        )
        return "".join(map(chr, codes))

    def _signature(self, depth: int = 4) -> str:
        match self._chance.randrange(10 if depth else 5):
            case 5:
                return "v"
            case 6 | 7:
                return "a" + self._signature(depth - 1)
            case 8:
                return "a{" + self._chance.choice(BASIC) + self._signature(depth - 1) + "}"
            case 9:
                return "(" + "".join(self._signature(depth - 1) for _ in range(self._chance.randrange(1, 4))) + ")"
        return self._chance.choice(BASIC)

    def _value(self, signature: str, depth: int = 6) -> Any:
        """A value of the first type in the signature."""
        kind = signature[0]
        if kind in _BITS:
            bits, signed = _BITS[kind]
            number = self._chance.choice(NUMBERS + (self._chance.getrandbits(64),)) % 2**bits
            return number - 2**bits if signed and number >= 2 ** (bits - 1) else number
        if kind == "b":
            return self._chance.random() < 0.5
        if kind == "d":
            return self._chance.choice((0.0, -1.5, 2.4, 5.0, float("inf"), float("nan")))
        if kind == "s":
            return self._text()
        if kind == "o":
            return self._chance.choice(("/", PATH, "/a/b_0"))
        if kind == "g":
            return self._chance.choice(("", "s", "a{sv}", "(siib)"))
        if kind == "v":
            inner = self._signature(min(depth, 2)) if depth else "s"
            return Variant(inner, self._value(inner, depth - 1))
        if kind == "(":
            return [self._value(one, depth - 1) for one in split(signature[1:-1])]
        count = self._chance.randrange(4)
        if signature == "ay":
            return self._chance.randbytes(count * 9)
        if signature.startswith("a{"):
            return {self._value(signature[2]): self._value(signature[3:-1], depth - 1) for _ in range(count)}
        return [self._value(signature[1:], depth - 1) for _ in range(count)]

    def _variant(self, *not_of: str) -> Variant:
        signature = self._signature()
        while signature in not_of:
            signature = self._signature()
        return Variant(signature, self._value(signature))

    # Calls

    def _call(
        self, interface: str | None, member: str, signature: str = "", body: list[Any] | None = None, path: str = PATH
    ) -> Message:
        return Message(destination=SERVICE, path=path, interface=interface, member=member, signature=signature, body=body or [])

    def _random_arguments(self) -> tuple[str, list[Any]]:
        types = [self._signature() for _ in range(self._chance.randrange(4))]
        return "".join(types), [self._value(one) for one in types]

    def _get_quick(self) -> Message:
        return self._call(PROPERTIES, "Get", "ss", [INTERFACE, self._chance.choice(QUICK)])

    def _get_slower(self) -> Message:
        return self._call(PROPERTIES, "Get", "ss", [INTERFACE, self._chance.choice(SLOWER)])

    def _get_all(self) -> Message:
        return self._call(PROPERTIES, "GetAll", "s", [self._chance.choice((INTERFACE, "", f"{DBUS}.Peer"))])

    def _get_nonsense(self) -> Message:
        if self._chance.random() < 0.5:
            return self._call(PROPERTIES, "Get", "ss", [self._chance.choice((INTERFACE, self._text())), self._text()])
        signature, body = self._random_arguments()
        return self._call(PROPERTIES, self._chance.choice(("Get", "Set", "GetAll")), signature, body)

    def _set(self, name: str, value: Variant, interface: str = INTERFACE) -> Message:
        return self._call(PROPERTIES, "Set", "ssv", [interface, name, value])

    def _set_wrong_type(self) -> Message:
        name, signature = self._chance.choice(list(WRITABLE.items()))
        return self._set(name, self._variant(signature))

    def _set_wrong_value(self) -> Message:
        """Of the right type, and refused all the same."""
        name = self._chance.choice(list(WRITABLE))
        if name == "WiFiState":
            return self._set(name, Variant("u", self._chance.randrange(2, 2**32)))
        if name == "SSID":
            return self._set(name, Variant("s", self._text() + "x" * 33))
        return self._set(name, Variant("s", self._text() + "!"))

    def _set_elsewhere(self) -> Message:
        """Read-only and unknown properties, and interfaces that have none."""
        name = self._chance.choice((*QUICK, *SLOWER[:6], "Nothing", self._text()))
        interface = INTERFACE if name not in WRITABLE else f"{DBUS}.Peer"
        return self._set(name, self._variant(), self._chance.choice((interface, "a.b", "", self._text())))

    def _set_good(self) -> Message:
        name = self._chance.choice(("WiFiState", "Mode", "WiFiFrequency", "SSID", "SSID"))
        values: dict[str, Any] = {
            "WiFiState": self._chance.choice((0, 1, 1)),
            "Mode": self._chance.choice(("Host", "Client")),
            "WiFiFrequency": self._chance.choice(("2.4", "5")),
            "SSID": self._text(),
        }
        return self._set(name, Variant(WRITABLE[name], values[name]))

    def _method(self) -> Message:
        member = self._chance.choice(METHODS)
        return self._call(INTERFACE, member, *(("ss", [self._text(), self._text()]) if member == "Connect" else ()))

    def _method_wrong_type(self) -> Message:
        signature, body = self._random_arguments()
        return self._call(self._chance.choice((INTERFACE, INTERFACE, None)), self._chance.choice(METHODS), signature, body)

    def _standard(self) -> Message:
        interface, member = self._chance.choice(
            (
                ("Introspectable", "Introspect"),
                ("Peer", "Ping"),
                ("Peer", "GetMachineId"),
                ("ObjectManager", "GetManagedObjects"),
                ("Peer", "Nothing"),
            )
        )
        arguments = self._random_arguments() if self._chance.random() < 0.5 else ("", [])
        return self._call(f"{DBUS}.{interface}", member, *arguments)

    def _nowhere(self) -> Message:
        interface, member = self._chance.choice(
            (
                (INTERFACE, "Reboot"),
                (INTERFACE, "connect"),
                ("a.b", "Connect"),
                (None, "Mode"),
                (INTERFACE, "AccessPointsChanged"),
                ("com.vantora.Network1", "Scan"),
            )
        )
        path = self._chance.choice((PATH, PATH, "/", "/com", "/com/vantora", PATH + "/0", "/com/vantora/Network2"))
        return self._call(interface, member, *self._random_arguments(), path=path)


def split(signature: str) -> list[str]:
    """The complete types of a signature, one by one."""
    types: list[str] = []
    start = depth = 0
    for at, character in enumerate(signature):
        depth += (character in "({") - (character in ")}")
        if depth == 0 and character != "a":
            types.append(signature[start : at + 1])
            start = at + 1
    return types
