"""What clients ask of the daemon, with the answers that each request may have and the time it may take."""

from __future__ import annotations

import concurrent.futures
import time
from collections.abc import Sequence
from typing import Any

from dbus_next import Variant
from vantora_sim import CallRefused
from vantora_sim.client import INTERFACE
from vantora_sim.dbus_fake import PROPERTIES, plain

from .finding import Finding
from .life import SLACK, TIME_OUT, Life

WRITABLE = {"WiFiState": "u", "Mode": "s", "WiFiFrequency": "s", "SSID": "s"}
STORED = {"Mode": ("network", "mode"), "WiFiFrequency": ("network", "frequency"), "SSID": ("device", "deviceName")}

REFUSED = "org.freedesktop.DBus.Error.AccessDenied"
WRONG_TYPE = "org.freedesktop.DBus.Error.InvalidArgs"
FAILED = "org.freedesktop.DBus.Error.Failed"
NO_ANSWER = ("org.freedesktop.DBus.Error.NoReply", "org.freedesktop.DBus.Error.ServiceUnknown")
GOOD = ""

CALLS = {
    "write WiFiState": 18,
    "write Mode": 15,
    "write WiFiFrequency": 9,
    "write SSID": 5,
    "Connect": 4,
    "Disconnect": 1,
    "Scan": 1,
    "read AccessPoints": 2,
    "read ClientSSID": 0,
    "read everything": 3,
}
"""How many calls of somebody who does not answer each request waits for, as documented; 0 where it asks nobody."""
HOSTAPD_ANSWER = 10.0
SOCKET = 2.0

Request = tuple[str, str, Any]
"""("read", name, None), ("write", name, value) or ("call", member, arguments)."""


class Requests(Life):
    """The clients' side of a stage."""

    def read(self, name: str) -> Any:
        """Read a property: it never fails."""
        return self._finish([("read", name, None)])[0]

    def read_all(self) -> dict[str, Any]:
        """Read all properties at once."""
        values: dict[str, Any] = self._finish([("read", "everything", None)])[0]
        return values

    def write(self, name: str, value: Any) -> None:
        """Write a property; a Variant is sent as it is."""
        self._finish([("write", name, value)])

    def change_band(self) -> None:
        """Write the band that is not stored."""
        self.write("WiFiFrequency", "2.4" if self.stored("network", "frequency") == "5" else "5")

    def connect(self, ssid: str, passphrase: str) -> None:
        """Join a network."""
        self._finish([("call", "Connect", [ssid, passphrase])])

    def disconnect(self) -> None:
        """Leave the network."""
        self._finish([("call", "Disconnect", [])])

    def scan(self) -> None:
        """Look for networks."""
        self._finish([("call", "Scan", [])])

    def together(self, requests: Sequence[Request]) -> None:
        """Ask all of this at the same time."""
        self._finish(requests)

    # What comes of them

    def _finish(self, requests: Sequence[Request]) -> list[Any]:
        switches = any(kind == "write" and name in ("Mode", "WiFiState") for kind, name, _ in requests)
        if switches:
            self.wait_events_read()
        faulty = bool(self.history.disturbed or self.history.complaints)
        bound = SLACK + self.history.backlog + sum(self._bound(request, faulty) for request in requests)
        before = [self._expected(request) for request in requests] if len(requests) == 1 else [()] * len(requests)
        for request in requests:
            self._note(request, switches)
        began = time.monotonic()
        futures = [self._send(request) for request in requests]
        values = [
            self._answer(request, future, began + bound, bound, expected)
            for request, future, expected in zip(requests, futures, before)
        ]
        self.history.backlog = 0.0
        return values

    def _send(self, request: Request) -> "concurrent.futures.Future[list[Any]]":
        kind, name, value = request
        if kind == "call":
            return self.world.call_async(name, "s" * len(value), list(value))
        if kind == "write":
            variant = value if isinstance(value, Variant) else Variant(WRITABLE.get(name, "s"), value)
            return self.world.call_async("Set", "ssv", [INTERFACE, name, variant], PROPERTIES)
        if name == "everything":
            return self.world.call_async("GetAll", "s", [INTERFACE], PROPERTIES)
        return self.world.call_async("Get", "ss", [INTERFACE, name], PROPERTIES)

    def _answer(
        self,
        request: Request,
        future: "concurrent.futures.Future[list[Any]]",
        until: float,
        bound: float,
        expected: Sequence[str],
    ) -> Any:
        kind, name, value = request
        what = f"{kind} {name}" + ("" if value is None else f" {str(value)[:60]!r}")
        try:
            body = future.result(max(until - time.monotonic(), 0.01))
            answer = GOOD
        except CallRefused as refused:
            body, answer = [], refused.name
        except concurrent.futures.TimeoutError:
            self.check_alive()
            raise Finding("answers", f"{what} is not answered within {bound:.1f} s") from None
        if answer in NO_ANSWER:
            self.check_alive()
            raise Finding("answers", f"{what} is answered with {answer}")
        if expected and answer not in expected:
            raise Finding("answers", f"{what} is answered with {answer or 'success'!r} instead of {expected}")
        if kind == "write" and name == "WiFiFrequency" and answer != GOOD and value in ("2.4", "5"):
            self.history.disturbed.add("a band that is only stored")
        if kind == "write" and name in STORED:
            self._note_acknowledged(name, value, answer == GOOD and len(expected) == 1)
        return plain(body[0]) if body else None

    def _note_acknowledged(self, name: str, value: Any, alone_and_good: bool) -> None:
        """A write that succeeds is stored, but for one of what is there already.

        What is there is what the interface shows, so this is certain only with the radio on and nothing under way.
        """
        radio = self.world.radio
        certain = alone_and_good and not radio.blocked and not self.stop_lag and not self.start_lag
        if certain and (name == "Mode" or radio.interface_type == "AP") and STORED[name] not in self.history.changed_settings:
            self.history.stored[name] = value
        else:
            self.history.stored.pop(name, None)

    def _bound(self, request: Request, faulty: bool) -> float:
        """Seconds for which this may wait for others, as docs/reliability.md has it."""
        kind, name, _ = request
        slow = 2 * (self.stop_lag + self.start_lag)
        if not faulty:
            return slow + (SOCKET if name in ("WiFiConnectedClients", "everything") or kind == "write" else 0.0)
        calls = CALLS.get(name if kind == "call" else f"{kind} {name}", 1)
        hostapd = {"WiFiConnectedClients": HOSTAPD_ANSWER, "everything": HOSTAPD_ANSWER}.get(name, 0.0)
        listener = 4 * TIME_OUT + HOSTAPD_ANSWER + SOCKET if kind == "write" else 0.0
        return slow + calls * TIME_OUT + hostapd + listener + SOCKET

    def _expected(self, request: Request) -> Sequence[str]:
        """The answers that are right for a request that comes alone; empty where any of the documented ones is."""
        kind, name, value = request
        if kind == "read":
            return (GOOD,)
        if kind == "write":
            return self._expected_write(name, value)
        return self._expected_call(name)

    def _expected_write(self, name: str, value: Any) -> Sequence[str]:
        if isinstance(value, Variant):
            return (WRONG_TYPE,)
        if self.history.disturbed:
            return (GOOD, REFUSED)
        if name == "WiFiState":
            return (GOOD,) if value in (0, 1) else (REFUSED,)
        if name == "Mode":
            return (GOOD,) if value in ("Host", "Client") else (REFUSED,)
        if name == "SSID":
            return (GOOD,) if len(value.encode()) <= 32 else (REFUSED,)
        if value not in ("2.4", "5"):
            return (REFUSED,)
        under_way = self.history.changed_settings or self.stop_lag or self.start_lag
        sure = self.world.radio.interface_type == "AP" and not under_way
        return (GOOD,) if sure else (GOOD, REFUSED)

    def _expected_call(self, name: str) -> Sequence[str]:
        if self.history.disturbed:
            return ()
        if name == "Scan":
            return (GOOD,)
        if self.history.changed_settings or self.stop_lag or self.start_lag:
            return ()  # another mode may be on its way
        if self.world.radio.blocked or self.world.radio.interface_type == "AP":
            return (FAILED,)
        return ()

    def _note(self, request: Request, switches: bool) -> None:
        """What this request may bring about, which may come while another switches the mode or the radio."""
        kind, name, value = request
        radio = self.world.radio
        client = self.stored("network", "mode") == "Client" or radio.interface_type != "AP" and not self.start_lag
        may_be_client = switches or client and not radio.blocked
        if kind == "write" and name in ("Mode", "WiFiState"):
            self.history.gap = True
            self.history.address_events += 3
        if kind == "write" and name == "SSID" and may_be_client:
            self.history.disturbed.add("an access point in Client mode")
        if (kind, name, value) == ("write", "SSID", ""):
            self.history.disturbed.add("a name in use that the settings daemon does not store")
        if kind == "call" and name in ("Connect", "Disconnect"):
            self.history.address_events += 1
        if kind == "call":
            self.history.complaints.add("a method")  # in Host mode there is nobody to ask
