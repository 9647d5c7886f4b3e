"""The commands that the daemon runs through the shell: every way in which each may fail."""

from __future__ import annotations

import signal as signals
from collections.abc import Callable, Sequence
from typing import Any


import pytest
from fault_requests import (
    ADD_LOGS,
    BLOCK,
    CHANGE_MODE,
    CLIENT_SSID,
    DISCONNECT,
    DISCONNECT_CALLED,
    POWER_OFF,
    READ_MODE,
    READ_POWER,
    READ_SETTINGS,
    READ_SIGNAL,
    REFUSED,
    STOP_CLIENT,
    TO_HOST,
    TO_HOST_MODE,
    still_station,
)
from access_point import heading
from faults import Asked, Impossible, Kind, Line, Neighbour, Request, Row, check, try_row
from station import FLUSH_LOGS
from vantora_sim import World, command

TOOLBOX = "run/toolbox"
HELPERS = ("sh", "tail", "grep", "egrep", "cut", "tr")
TOOLS = ("rfkill", "iw", "ip", "wpa_cli")
NOT_FOUND = 127 << 8
KILLED = (128 + signals.SIGKILL) << 8
FLOOD = "." * 1_000_000


def prepare(world: World) -> None:
    still_station(world)
    world.hostapd.start()  # for a switch to Host mode
    (world.work / TOOLBOX).mkdir()
    install(world, HELPERS, "/usr/bin")
    install(world, TOOLS, "/run/sim/bin")


def install(world: World, names: Sequence[str], folder: str) -> None:
    """Put those programs that are not there into the folder in which the daemon looks for programs, where a row says so."""
    for name in names:
        path = world.work / TOOLBOX / name
        if not path.is_symlink():
            path.symlink_to(f"{folder}/{name}")


def behave(world: World) -> None:
    """All tools are there and do what they should; `ip` still leaves the kernel's addresses alone."""
    world.clear_faults()
    world.tools.ip.output("")
    install(world, TOOLS, "/run/sim/bin")


def tries(line: str, status: int) -> list[Line]:
    """The lines after each of the three runs that fail."""
    return [
        ("err", f"utils_do_system_call: system call failed: {status}"),
        ("err", f'utils_do_system_call: retrying "{line}"...'),
    ] * 3


# What comes of each request when the tool fails with a status


def not_blocked(status: int) -> list[Line]:
    return [
        READ_SETTINGS,
        *BLOCK,
        *tries("rfkill block wlan", status),
        ("err", f"wifi_set_enabled: Unable to power off wifi, error: {status}"),
        ("err", "[Main] set_wifi_state: Failed to set wifi state"),
    ]


def not_flushed(status: int, tag: str) -> list[Line]:
    return [
        *FLUSH_LOGS[:2],
        *tries("ip addr flush dev wlan0", status),
        ("err", f"utils_flush_ip: Unable to flush wlan0 address, error: {status}"),
        ("warning", f"[{tag}] Failed to flush IP, interface might have inavlid IP"),
    ]


def not_left(status: int) -> list[Line]:
    return [DISCONNECT_CALLED, *not_flushed(status, "Main"), *DISCONNECT.logs[1 + len(FLUSH_LOGS) :]]


def no_address(status: int) -> list[Line]:
    return [
        CHANGE_MODE,
        TO_HOST,
        *STOP_CLIENT,
        *heading("[WiFi] Start Host mode"),
        *not_flushed(status, "WiFi"),
        *ADD_LOGS[:2],
        *tries("ip addr add 192.168.8.1/24 dev wlan0", status),
        ("err", f"utils_add_ip: Unable to add wlan0 address, error: {status}"),
        ("err", "[WiFi] wifi_host_start: Failed to add IP address"),
        ("err", "[WiFi] wifi_mode_switch: Failed to start Host mode"),
        ("err", "[Main] set_wifi_mode: Mode switch failed"),
    ]


NO_POWER = [
    ("err", "[Utils] utils_get_signal_strength: could not read AP Tx Power, retrying..."),
    ("err", "[Utils] utils_get_signal_strength: could not read AP Tx Power, timed out."),
]
NO_MODE = ("err", "[Main] Failed to read wifi mode")
UNKNOWN = [Asked(READ_MODE, '"unknown"', [NO_MODE]), Asked(READ_SIGNAL, '""', NO_POWER, 0.5)]

FAILURES: dict[str, Callable[[int], list[Asked]]] = {
    "rfkill": lambda status: [Asked(READ_POWER), Asked(POWER_OFF, REFUSED, not_blocked(status))],
    "iw": lambda status: UNKNOWN,
    "ip": lambda status: [Asked(TO_HOST_MODE, REFUSED, no_address(status)), Asked(DISCONNECT, logs=not_left(status))],
    "wpa_cli": lambda status: [Asked(CLIENT_SSID, '""')],
}
ABOUT = {
    "rfkill": "Read through a pipe (the first 256 bytes count), and run up to three times to switch.",
    "iw": 'Read through a pipe: the first 256 bytes of the lines with "type", the first line with "txpower".',
    "ip": "Run up to three times; its output goes to the daemon's own.",
    "wpa_cli": 'Read through a pipe: the first 256 bytes of the line with "ssid=".',
}
GARBLED: dict[str, tuple[bytes, Sequence[Asked]]] = {
    "rfkill": (b"\n\xff\xfe\0yes\n", [Asked(READ_POWER), Asked(POWER_OFF)]),
    "iw": (b"type ???\ntxpower ??? dBm dBm\n", [UNKNOWN[0], Asked(READ_SIGNAL, '"txpower ??? dB"')]),
    "ip": (b"\xff\xfe\0", [Asked(TO_HOST_MODE), Asked(DISCONNECT)]),
    "wpa_cli": (b"ssid=\xff\xfe\n", [Asked(CLIENT_SSID, '""')]),
}
FLOODING: dict[str, tuple[str, Sequence[Asked]]] = {
    "rfkill": (f"0: phy0\n{FLOOD}yes\n", [Asked(READ_POWER), Asked(POWER_OFF)]),
    "iw": (f"type managed\ntxpower 20.00 dBm\ntype {FLOOD}\n", [Asked(READ_MODE), Asked(READ_SIGNAL)]),
    "ip": (FLOOD, [Asked(TO_HOST_MODE), Asked(DISCONNECT)]),
    "wpa_cli": (f"ssid=cafe\nssid={FLOOD}\n", [Asked(CLIENT_SSID, '"cafe' + "." * 252 + '"')]),
}
REQUESTS: dict[str, Request] = {"rfkill": READ_POWER, "iw": READ_MODE, "ip": DISCONNECT, "wpa_cli": CLIENT_SSID}
HOLDS = "the request, and all that come after it, are answered when the command has ended"


def rows(tool: str) -> list[Row | Impossible]:
    garbage, garbled = GARBLED[tool]
    flood, flooding = FLOODING[tool]

    def broken(kind: Kind, how: str, asked: Sequence[Asked], begin: Callable[[World], Any]) -> Row:
        """A fault that begins in a running daemon and ends when the tool behaves again."""
        return Row(kind, how, asked, begin, end=behave, name=f"{tool} {kind}")

    return [
        Row(
            Kind.ABSENT,
            "not installed",
            FAILURES[tool](NOT_FOUND),
            end=behave,
            before=lambda world: (world.work / TOOLBOX / tool).unlink(),
            environment={"PATH": f"/{TOOLBOX}"},
            name=f"{tool} {Kind.ABSENT}",
        ),
        broken(
            Kind.REFUSES, "ends with status 1 and prints nothing", FAILURES[tool](256), lambda world: world.tools[tool].fail(1)
        ),
        Row(
            Kind.HANGS,
            "does not end",
            text=HOLDS,
            takes="as long as it hangs: a command has no time-out",
            name=f"{tool} {Kind.HANGS}",
            test=f"test_a_command_that_hangs_holds_all_requests_until_it_ends[{tool}]",
        ),
        Impossible((Kind.WRONG_TYPE,), "text has no types; see garbage"),
        broken(Kind.GARBAGE, "prints bytes that mean nothing", garbled, lambda world: world.tools[tool].output(garbage)),
        broken(Kind.DIES, "is killed", FAILURES[tool](KILLED), lambda world: world.tools[tool].die(signals.SIGKILL)),
        Impossible((Kind.RESTARTS,), "it is run anew for each question"),
        broken(Kind.FLOODS, "prints a megabyte", flooding, lambda world: world.tools[tool].output(flood)),
    ]


def without_shell(world: World) -> None:
    """What is no program takes the shell's place."""
    assert world.sandbox.run(["/usr/bin/mount", "--bind", "/run/sim/cmdline", "/usr/bin/dash"]).status == 0


def with_shell(world: World) -> None:
    assert world.sandbox.run(["/usr/bin/umount", "/usr/bin/dash"]).status == 0
    behave(world)


def without_helpers(world: World) -> None:
    for name in HELPERS:
        (world.work / TOOLBOX / name).unlink()


def with_helpers(world: World) -> None:
    install(world, HELPERS, "/usr/bin")


SHELL_ROWS: list[Row | Impossible] = [
    Row(
        Kind.ABSENT,
        "cannot be started, which reads as a radio that is off",
        [
            Asked(READ_POWER, "0"),
            Asked(READ_MODE, '"unknown"'),
            Asked(READ_SIGNAL, '""', NO_POWER, 0.5),
            Asked(CLIENT_SSID, '""'),
            Asked(
                DISCONNECT,
                'org.freedesktop.DBus.Error.Failed "Wifi is off"',
                [DISCONNECT_CALLED, ("err", "[Main] disconnect_from_ap: Wifi is off")],
            ),
            Asked(
                TO_HOST_MODE,
                logs=[
                    CHANGE_MODE,
                    ("err", "[Main] set_wifi_mode: Failed to read wifi mode"),
                    ("err", "[Main] set_wifi_mode: Cannot change mode, wifi is disabled"),
                ],
            ),
            Asked(POWER_OFF, logs=[("err", "[Main] set_wifi_state: already in wifi state 0")]),
        ],
        without_shell,
        end=with_shell,
        name=f"sh {Kind.ABSENT}",
    ),
    Row(
        Kind.REFUSES,
        "finds none of `tail`, `grep`, `egrep`, `cut` and `tr`",
        [Asked(READ_POWER), *UNKNOWN, Asked(CLIENT_SSID, '""', [*CLIENT_SSID.logs, NO_MODE]), Asked(POWER_OFF)],
        before=without_helpers,
        end=with_helpers,
        environment={"PATH": f"/{TOOLBOX}"},
        name="sh without its helpers",
    ),
    Impossible(tuple(kind for kind in Kind if kind not in (Kind.ABSENT, Kind.REFUSES)), "it does what the command in it does"),
]

ABOUT_SHELL = "Runs each command line. (`killall` and `wpa_passphrase` stand in the code, but nothing runs them.)"

NEIGHBOURS = [
    *(Neighbour(f"`{tool}`", ABOUT[tool], rows(tool), prepare) for tool in TOOLS),
    Neighbour("`/bin/sh`", ABOUT_SHELL, SHELL_ROWS, prepare),
]


@pytest.mark.parametrize("row", [parameter for neighbour in NEIGHBOURS for parameter in neighbour.parameters()])
def test_fault(world: World, row: Row) -> None:
    try_row(world, row, prepare)


@pytest.mark.parametrize("tool", TOOLS)
def test_a_command_that_hangs_holds_all_requests_until_it_ends(world: World, tool: str) -> None:
    prepare(world)
    world.up()
    world.tools[tool].hang()
    mark = world.journal.mark()
    get = {"interface": "org.freedesktop.DBus.Properties"}
    if tool == "ip":
        held = world.call_async("Disconnect")
    else:
        name = {"rfkill": "WiFiState", "iw": "Mode", "wpa_cli": "ClientSSID"}[tool]
        held = world.call_async("Get", "ss", ["com.vantora.Network1.WiFi", name], **get)
    world.journal.wait_for(command(lambda line: line.startswith(f"{tool} ")), mark)
    queued = world.call_async("Get", "ss", ["com.vantora.Network1.WiFi", "MacAddress"], **get)
    assert not held.done() and not queued.done()
    behave(world)
    answer = held.result(20)
    assert [value.value for value in answer] == {"rfkill": [1], "iw": ["Client"], "ip": [], "wpa_cli": ["cafe"]}[tool]
    assert queued.result(20)[0].value == "02:00:00:00:10:01"
    check(world, Asked(REQUESTS[tool]), "after the fault")
