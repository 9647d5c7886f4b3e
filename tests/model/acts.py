"""The acts of a run: what may be done, how often, with which values, and how a run is written down as a test."""

from __future__ import annotations

import errno
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

from hypothesis import strategies as st
from vantora_sim.view import PROPERTIES as READABLE

if TYPE_CHECKING:
    from .stage import Stage


@dataclass(frozen=True)
class Act:
    """A method of the stage and its arguments."""

    name: str
    arguments: tuple[Any, ...] = ()

    def do(self, stage: Stage) -> None:
        getattr(stage, self.name)(*self.arguments)

    def __str__(self) -> str:
        return f"stage.{self.name}({', '.join(map(repr, self.arguments))})"


@dataclass(frozen=True)
class Run:
    """How a device begins, and all that is done to it."""

    mode: str
    echo: bool
    real_settings: bool
    addresses: bool
    """Whether it is waited for the last announcement of an address in the end."""
    acts: tuple[Act, ...]

    def __len__(self) -> int:
        return len(self.acts)

    def as_test(self, name: str) -> str:
        """The run as a test that can be pasted into tests/contract."""
        options = [f"mode={self.mode!r}"] if self.mode != "Host" else []
        options += ["echo=True"] if self.echo else []
        options += ["real_settings=True"] if self.real_settings else []
        end = "stage.finish(addresses=True)" if self.addresses else "stage.finish()"
        lines = [f"def test_{name}(stage: Stage) -> None:", f"stage.begin({', '.join(options)})", *map(str, self.acts), end]
        return "\n    ".join(lines)


# Values: the first of each is what a found run is made of where it does not matter.

SECONDS = st.sampled_from((0.05, 0.2, 0.6))
WHILE_ATTACHING = st.sampled_from((0.2, 0.6, 2.0))
TIMES = st.integers(1, 3)
STATIONS = st.integers(0, 3)
_ALLOWED_NAMES = ("one", "two", "three", "x" * 32, "n\u00e4me", "a b=c")
ALLOWED_NAMES = st.sampled_from(_ALLOWED_NAMES)
NAMES = st.sampled_from((*_ALLOWED_NAMES, "", "x" * 33))
BANDS = st.sampled_from(("5", "2.4", "6", ""))
MODES = st.sampled_from(("Client", "Host", "host"))
STATES = st.sampled_from((1, 0, 2))
NETWORKS = st.lists(st.sampled_from(("cafe", "home", "attic")), unique=True, max_size=3)
WORDS = st.sampled_from(
    ("completed", "disconnected", "scanning", "authenticating", "associating", "4way_handshake", "inactive")
)
SYSTEMD = st.sampled_from(("LoadUnit", "Start", "Stop", "Restart", "EnableUnitFiles"))
SETTINGS = st.sampled_from(("Get", "Set"))
STATION = st.sampled_from(("Get", "GetAll", "Scan", "AddNetwork", "SelectNetwork", "RemoveNetwork", "Disconnect"))
MEMBERS = st.one_of(
    st.tuples(st.just("systemd"), SYSTEMD),
    st.tuples(st.just("settings"), SETTINGS),
    st.tuples(st.just("wpa_supplicant"), STATION),
)
WHO = st.sampled_from(("systemd", "settings", "wpa_supplicant"))
TOOLS = st.sampled_from(("rfkill", "iw", "ip", "wpa_cli"))
PROPERTIES = st.sampled_from(READABLE)
VALUES = st.one_of(
    st.tuples(st.just("SSID"), NAMES),
    st.tuples(st.just("WiFiFrequency"), BANDS),
    st.tuples(st.just("Mode"), MODES),
    st.tuples(st.just("WiFiState"), STATES),
)
BABBLE = st.sampled_from((b"", b"AP-STA-POSSIBLE-PSK-MISMATCH 02:00:00:00:50:00", b"\xff" * 8))
BUSES = st.sampled_from(("", "tcp:host=127.0.0.1,port=1", "unixexec:path=/bin/false", "unix:path=/none", "none"))
CALLS = st.sampled_from(("write", "open", "fsync", "rename", "unlink", "read"))
STEPS_OF_A_WRITE = st.sampled_from(
    (
        ("fsync", 1),
        ("fsync", 0),
        ("write", 0),
        ("open", 0),
        ("open", 1),
        ("rename", 0),
        ("unlink", 0),
        ("unlink", 1),
        ("read", 0),
    )
)
"""Calls of the settings daemon by name and how many of the name go before: the new file's, the exchange, and the folder's."""
ERRORS = st.sampled_from((errno.EIO, errno.ENOSPC, errno.EMFILE))


def _write(value: tuple[str, Any]) -> tuple[str, str, Any]:
    return ("write", *value)


CHANGES = st.one_of(
    st.tuples(st.just("device"), st.just("deviceName"), ALLOWED_NAMES),
    st.tuples(st.just("network"), st.just("frequency"), st.sampled_from(("5", "2.4"))),
    st.tuples(st.just("network"), st.just("mode"), st.sampled_from(("Client", "Host"))),
    st.tuples(st.just("network"), st.just("enabled"), st.booleans()),
)
REQUESTS = st.one_of(
    st.builds(_write, VALUES),
    st.tuples(st.just("read"), PROPERTIES, st.none()),
    st.sampled_from((("call", "Scan", ()), ("call", "Disconnect", ()))),
)


def _act(name: str, *values: st.SearchStrategy[Any]) -> st.SearchStrategy[Act]:
    return st.builds(Act, st.just(name), st.tuples(*values))


def _joined(name: str, first: tuple[Any, ...], *more: Any) -> Act:
    return Act(name, (*first, *more))


def _act_of(name: str, values: st.SearchStrategy[tuple[Any, ...]], *more: st.SearchStrategy[Any]) -> st.SearchStrategy[Act]:
    return st.builds(_joined, st.just(name), values, *more)


Acts = tuple[tuple[int, st.SearchStrategy[Act]], ...]

USUAL: Acts = (
    (6, _act_of("write", VALUES)),
    (3, _act("change_band")),
    (3, _act("read", PROPERTIES)),
    (1, _act("read_all")),
    (3, _act("together", st.lists(REQUESTS, min_size=2, max_size=6).map(tuple))),
    (2, _act("connect", st.sampled_from(("cafe", "x" * 33)), st.sampled_from(("right and proper", "", "short")))),
    (1, _act("disconnect")),
    (1, _act("scan")),
    (3, _act("station_joins", STATIONS)),
    (3, _act("station_leaves", STATIONS, st.booleans())),
    (3, _act("access_point_says", st.lists(st.booleans(), min_size=1, max_size=4).map(tuple))),
    (1, _act("access_point_babbles", BABBLE)),
    (3, _act("hostapd_restarts", st.sampled_from((0.0, 0.1, 0.5)))),
    (3, _act("hostapd_takes_its_time", st.sampled_from((0.0, 0.1, 0.3)), st.sampled_from((0.0, 0.1, 0.3)))),
    (3, _act("station_reports", WORDS)),
    (2, _act("networks_are", NETWORKS.map(tuple))),
    (2, _act("wpa_supplicant_restarts")),
    (4, _act_of("setting_changes", CHANGES)),
    (1, _act("settings_notify", st.sampled_from(({"mode": 1}, {"unheard": "of"}, {})))),
    (1, _act("settings_daemon_restarts")),
    (2, _act("address_comes", st.sampled_from(("wlan0", "eth0")), STATIONS)),
    (2, _act("address_goes", st.sampled_from(("wlan0", "eth0")), STATIONS)),
    (2, _act("a_moment_passes", SECONDS)),
    (1, _act("link_goes_down_and_up", st.sampled_from(("wlan0", "eth0")))),
    (1, _act("another_daemon_starts", BUSES)),
    (3, _act("daemon_restarts", st.sampled_from(("asked", "killed", "in the middle")), st.sampled_from((0, 1, 100, 300)))),
    (6, _act("quiet")),
    (2, _act("hostapd_is_replaced")),
    (3, _act("attaching_is_slow", WHILE_ATTACHING)),
    (1, _act("counting_fails", st.sampled_from(("slow", "refused", "nonsense")))),
    (2, _act_of("is_slow", MEMBERS, SECONDS)),
    (2, _act("tool_is_slow", TOOLS, SECONDS)),
    (1, _act("system_bus_freezes", SECONDS)),
    (1, _act("user_bus_freezes", SECONDS)),
)
"""What happens all the time, and what the device gets over."""

HARM: Acts = (
    (1, _act("hostapd_dies")),
    (3, _act("hostapd_fails_to_start", st.sampled_from((0.3, 0.1, 0.0)))),
    (1, _act("attaching_is_refused")),
    (1, _act("wpa_supplicant_dies")),
    (2, _act_of("refuses", MEMBERS, TIMES)),
    (1, _act_of("hangs", MEMBERS, st.just(1))),
    (1, _act("vanishes", WHO)),
    (1, _act("is_gone", WHO)),
    (1, _act("tool_fails", TOOLS, TIMES)),
    (1, _act("tool_dies", TOOLS)),
    (1, _act("tool_babbles", TOOLS)),
    (1, _act("few_descriptors_are_left", st.integers(0, 8))),
    (1, _act("daemon_starts_with_few_descriptors", st.integers(4, 24))),
    (1, _act("counting_fails", st.just("hangs"))),
    (1, _act("system_bus_restarts")),
    (1, _act("user_bus_restarts")),
    (1, _act("radio_is_switched_off_by_hand")),
    (1, _act("configuration_cannot_be_written", CALLS, st.integers(0, 2), ERRORS)),
)
"""What it need not get over by itself, or may complain of: once that is over, its mode is set anew before it is judged."""

HARM_TO_SETTINGS: Acts = ((4, _act_of("settings_cannot_be_written", STEPS_OF_A_WRITE, ERRORS)),)
"""The same, where the settings daemon is the real one."""

LONGEST, PARTS = 24, 4
LEAST_KINDS, MOST_KINDS = 5, 16


@st.composite
def runs(draw: st.DrawFn) -> Run:
    """A run of some length, of a few kinds of acts: two that matter together meet far more often than among all kinds."""
    harm = draw(st.booleans())
    acts = USUAL + HARM if harm else USUAL
    real_settings = draw(st.integers(0, 2)) == 2
    chosen = draw(st.sets(st.integers(1, len(acts) - 1), min_size=LEAST_KINDS, max_size=MOST_KINDS))
    drawn = tuple(acts[number] for number in (0, *sorted(chosen))) + (HARM_TO_SETTINGS if harm and real_settings else ())
    kinds = [strategy for weight, strategy in drawn for _ in range(weight)]
    # Several lists, since one would be short as a rule.
    parts = [draw(st.lists(st.one_of(kinds), max_size=LONGEST)) for _ in range(PARTS)]
    return Run(
        draw(st.sampled_from(("Host", "Host", "Client"))),
        draw(st.booleans()),
        real_settings,
        draw(st.integers(0, 3)) == 3,
        tuple(act for part in parts for act in part),
    )
