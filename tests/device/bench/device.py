"""The device under test, as its other programs and its administrator see it."""

from __future__ import annotations

import itertools
import json
import shlex
from typing import Any

from .deadline import EVENT
from .evidence import BUS, LOG, TOOL, Evidence
from .guest import CommandFailed, Guest
from .machine import Machine
from .stream import Event, Match, Stream, log, plain, signal_text

NETWORK = "com.vantora.Network1 /com/vantora/Network1 com.vantora.Network1.WiFi"
NETWORK_PATH = "/com/vantora/Network1"
SETTINGS = "com.vantora.common.Settings1"
SETTINGS_PATH = "/com/vantora/common/Settings1"
WPA_INTERFACE = "fi.w1.wpa_supplicant1 /fi/w1/wpa_supplicant1/Interfaces/0 fi.w1.wpa_supplicant1.Interface"
BENCH_SIGNAL = "/bench com.vantora.bench Mark"


class Mark:
    """Where journal and signals stood before a deed.

    Waits with the same mark take turns: each looks only at what came after that which answered the one before it, in
    the journal and among the signals for itself. So no line that is older than what a test has waited for can pass for its
    consequence. What comes in no certain order is waited for with `anew()`.
    """

    def __init__(self, journal: int = 0, signals: int = 0) -> None:
        self.journal, self.signals = journal, signals
        self.next = {"journal": journal, "signals": signals}

    def anew(self) -> Mark:
        """The same mark, as if nothing had been waited for yet."""
        return Mark(self.journal, self.signals)

    def wait(self, stream: Stream, match: Match, *, seconds: float, what: str) -> Event:
        """Waits for what matches and comes after all that this mark was used for."""
        position, event = stream.wait_for_position(match, since=self.next[stream.name], seconds=seconds, what=what)
        self.next[stream.name] = position + 1
        return event


class Device:
    """One booted device. What is asked of it through here is kept as evidence."""

    def __init__(self, machine: Machine, evidence: Evidence) -> None:
        self.machine, self.evidence = machine, evidence
        self.guest = Guest(machine.lines)
        self.journal = Stream("journal", machine.lines["journal"])
        self.signals = Stream("signals", machine.lines["signals"])
        self._numbers = itertools.count(1)

    # Our D-Bus face.

    def get(self, name: str) -> Any:
        """Reads a property."""
        value = plain(json.loads(self.guest.run(f"busctl --user --timeout=90 --json=short get-property {NETWORK} {name}")))
        self.evidence.add(BUS, f"{name} = {json.dumps(value, ensure_ascii=False)}")
        return value

    def set(self, name: str, signature: str, value: str) -> None:
        """Writes a property; fails when the daemon refuses."""
        self.evidence.add(BUS, f"set {name} to {value!r}")
        self.guest.run(f"busctl --user --timeout=90 set-property {NETWORK} {name} {signature} {shlex.quote(value)}")

    def call(self, method: str, *arguments: str) -> None:
        """Calls a method that takes texts; fails with the daemon's error."""
        signature = "s" * len(arguments)
        words = " ".join(shlex.quote(argument) for argument in ((signature, *arguments) if arguments else ()))
        self.evidence.add(BUS, f"{method}({', '.join(map(repr, arguments))})")
        self.guest.run(f"busctl --user --timeout=90 call {NETWORK} {method} {words}")

    def wait_for_property(self, name: str, value: Any, *, seconds: float = EVENT) -> None:
        """Waits until a property reads as a value: for what is right when read but is not announced."""
        text = shlex.quote(json.dumps(value))
        read = f"busctl --user --json=short get-property {NETWORK} {name}"
        self.guest.wait_until(f"{read} | grep -F {text}", seconds=seconds)
        self.evidence.add(BUS, f"{name} = {json.dumps(value)}")

    # The settings daemon.

    def setting(self, section: str, name: str) -> Any:
        """Reads a setting."""
        value = plain(
            json.loads(
                self.guest.run(
                    f"busctl --user --json=short get-property {SETTINGS} {SETTINGS_PATH}/{section} {SETTINGS} {name}"
                )
            )
        )
        self.evidence.add(BUS, f"setting {section}.{name} = {json.dumps(value, ensure_ascii=False)}")
        return value

    def store(self, section: str, name: str, signature: str, value: str) -> None:
        """Writes a setting, as another program of the device would."""
        self.evidence.add(BUS, f"another program sets {section}.{name} to {value!r}")
        self.guest.run(
            f"busctl --user set-property {SETTINGS} {SETTINGS_PATH}/{section} {SETTINGS} {name} "
            f"{signature} {shlex.quote(value)}"
        )

    # What it announces and logs.

    def mark(self) -> Mark:
        """Where journal and signals stand: waits that are given this look only at what comes after.

        Both arrive late, so an entry and a signal of the bench's own are waited for: all that came before is there then.
        """
        text = f"bench {next(self._numbers)}"
        mark = Mark(self.journal.position, self.signals.position)
        self.guest.run(f"logger -t bench '{text}' && busctl --user emit {BENCH_SIGNAL} s '{text}'")
        mark.wait(self.journal, lambda event: event.message == text, seconds=EVENT, what="the bench's own entry")
        mark.wait(self.signals, lambda event: is_bench_signal(event, text), seconds=EVENT, what="the bench's own signal")
        return Mark(mark.next["journal"], mark.next["signals"])

    def wait_for_change(self, name: str, value: Any = None, *, since: Mark, seconds: float = EVENT) -> Any:
        """Waits until a property is announced, with this value if one is given; the value announced."""

        def match(event: Event) -> bool:
            found = changed_value(event, name)
            return found is not None and (value is None or found[0] == value)

        event = since.wait(self.signals, match, seconds=seconds, what=f"change of {name} to {value!r}")
        found = changed_value(event, name)
        assert found is not None
        self.evidence.add(BUS, f"announced: {name} = {json.dumps(found[0], ensure_ascii=False)}")
        return found[0]

    def wait_for_signal(self, member: str, *, since: Mark, seconds: float = EVENT, match: Match = lambda event: True) -> Any:
        """Waits for a signal of the object; its arguments."""
        event = since.wait(
            self.signals,
            lambda event: event.fields.get("path") == NETWORK_PATH and event.fields.get("member") == member and match(event),
            seconds=seconds,
            what=f"signal {member}",
        )
        self.evidence.add(BUS, f"signal {signal_text(event.fields)}")
        return plain(event.fields["payload"])

    def changes(self, name: str, *, since: Mark) -> list[Any]:
        """All values of a property that were announced after a mark."""
        found = (changed_value(event, name) for event in self.signals.since(since.signals))
        return [value[0] for value in found if value is not None]

    def wait_for_log(self, text: str, *, since: Mark, priority: str | None = None, seconds: float = EVENT) -> Event:
        """Waits for a line of the daemon's, given whole."""
        event = since.wait(self.journal, log(text, priority=priority), seconds=seconds, what=f"log line {text!r}")
        self.evidence.add(LOG, str(event))
        return event

    def wait_for_entry(self, match: Match, what: str, *, since: Mark, seconds: float = EVENT) -> Event:
        """Waits for a journal entry, of whomever."""
        event = since.wait(self.journal, match, seconds=seconds, what=what)
        self.evidence.add(LOG, str(event))
        return event

    def logged(self, *, since: Mark) -> list[Event]:
        """All that the daemon has logged after a mark and until now."""
        self.mark()
        return [
            event for event in self.journal.since(since.journal) if event.fields.get("SYSLOG_IDENTIFIER") == "vantora-network"
        ]

    # Other programs' own view.

    def see(self, command: str, *, seconds: float = EVENT) -> str:
        """What a program of the device says."""
        output = self.guest.run(command, seconds=seconds)
        self.evidence.add(TOOL, f"$ {command}\n{output}")
        return output

    def see_once(self, condition: str, *, seconds: float = EVENT) -> str:
        """Waits until a command succeeds, and keeps what it said then."""
        output = self.guest.wait_until(condition, seconds=seconds)
        self.evidence.add(TOOL, f"$ {condition}\n{output}")
        return output

    def unit_state(self, unit: str) -> str:
        """systemd's word for a unit: active, inactive, failed."""
        state = self.guest.try_run(f"systemctl is-active {shlex.quote(unit)}")[1].strip()
        self.evidence.add(TOOL, f"$ systemctl is-active {unit}\n{state}")
        return state

    def wait_for_unit(self, unit: str, state: str, *, seconds: float = EVENT) -> None:
        """Waits until systemd says so of a unit."""
        self.see_once(f"systemctl show --value --property=ActiveState {shlex.quote(unit)} | grep -x {state}", seconds=seconds)

    def wpa(self, name: str) -> Any:
        """A property of wpa_supplicant's interface object."""
        value = plain(json.loads(self.guest.run(f"busctl --json=short get-property {WPA_INTERFACE} {name}")))
        self.evidence.add(TOOL, f"wpa_supplicant: {name} = {json.dumps(value)}")
        return value

    def process(self) -> int:
        """The daemon's process number."""
        return int(self.guest.run("systemctl show --value --property=MainPID vantora-network"))

    def passphrase(self) -> str:
        """The access point's passphrase, which the device has made itself."""
        return self.guest.run("cat /var/lib/vantora-device/passphrase")

    # States that tests start from.

    def wait_for_access_point(self, *, seconds: float = EVENT) -> None:
        """Waits until hostapd says that the access point is on air."""
        self.see_once(
            "hostapd_cli -i wlan0 status | grep -E '^(state=ENABLED|ssid|channel|freq=)' | grep -A9 ENABLED", seconds=seconds
        )

    def to_client_mode(self) -> None:
        """Switches to Client mode and waits until wpa_supplicant is there."""
        self.set("Mode", "s", "Client")
        self.see_once(f"busctl get-property {WPA_INTERFACE} State")

    def to_host_mode(self) -> None:
        """Switches to Host mode and waits until the access point is on air."""
        self.set("Mode", "s", "Host")
        self.wait_for_access_point()


def is_bench_signal(event: Event, text: str) -> bool:
    """Whether this is the signal that the bench has sent with a text."""
    return event.fields.get("path") == "/bench" and plain(event.fields.get("payload")) == [text]


def changed_value(event: Event, name: str) -> tuple[Any] | None:
    """The value that a signal announces for a property of the network object, in a tuple; None when it does not."""
    fields = event.fields
    if fields.get("path") != NETWORK_PATH or fields.get("member") != "PropertiesChanged":
        return None
    changed = plain(fields["payload"])[1]
    return (changed[name],) if name in changed else None


__all__ = ["CommandFailed", "Device", "Mark"]
