"""systemd's manager on the system bus: every way in which it may fail."""

from __future__ import annotations

from collections.abc import Callable

import pytest
from access_point import HOSTAPD, SEPARATOR, heading
from fault_requests import CHANGE_MODE, STATION, TO_CLIENT, TO_CLIENT_MODE, still_station
from faults import REAL_TIMEOUT, SHORT, SHORT_TIMEOUT, Asked, Impossible, Kind, Line, Neighbour, Row, try_row
from station import FLUSH_LOGS
from unit_control import DHCP_SERVER, empty_path_log, job_failed_log, load_failed_log, loaded_log
from vantora_sim import World, unit_path

MISSING = "The name org.freedesktop.systemd1 was not provided by any .service files (r = -113)"
VANISHED = "Message recipient disconnected from message bus without replying (r = -110)"
TIMED_OUT = "Connection timed out (r = -110)"
WIRED = "test_wired_dhcp_server.py::"


def to_client(unit_lines: Callable[[str, str], list[Line]]) -> list[Line]:
    """The lines of a switch to Client mode, with these lines for each job (verb, unit)."""
    return [
        CHANGE_MODE,
        TO_CLIENT,
        *heading("[WiFi] Stop Host mode"),
        ("info", "Stoping UDHCP daemon service"),
        *unit_lines("Stop", DHCP_SERVER),
        ("info", "Stopping Hostapd daemon service"),
        *unit_lines("Stop", HOSTAPD),
        SEPARATOR,
        *heading("[WiFi] Start Client mode"),
        ("info", "Starting WPA Supplicant daemon service"),
        *unit_lines("Start", STATION),
        *FLUSH_LOGS,
        SEPARATOR,
    ]


def not_found(reason: str) -> list[Line]:
    """Every look-up fails, and the job is asked of nothing."""
    return to_client(lambda verb, unit: [load_failed_log(unit, reason), empty_path_log(verb)])


def dies_in(member: str, logs: list[Line]) -> Asked:
    def cause(world: World) -> None:
        world.systemd.come_back()
        world.systemd.vanish(member)

    return Asked(TO_CLIENT_MODE, logs=logs, cause=cause)


def first(first_lines: Callable[[str, str], list[Line]]) -> list[Line]:
    """The first job has these lines, for the others systemd is gone."""
    return to_client(
        lambda verb, unit: first_lines(verb, unit)
        if unit == DHCP_SERVER
        else [load_failed_log(unit, MISSING), empty_path_log(verb)]
    )


def odd_types(world: World) -> None:
    world.systemd.reply("LoadUnit", "u", [7], on=DHCP_SERVER)
    world.systemd.reply("Stop", "s", ["/org/freedesktop/systemd1/job/1"], on=HOSTAPD)
    world.systemd.reply("Start", "", [], on=STATION)


def odd_lines(verb: str, unit: str) -> list[Line]:
    if unit == DHCP_SERVER:
        return [("err", "utils_load_service_unit: Failed to read response"), empty_path_log(verb)]
    return [loaded_log(unit), ("err", f"utils_{verb.lower()}_service: Failed to read response")]


def elsewhere(world: World) -> None:
    world.systemd.reply("LoadUnit", "o", ["/no/such/unit"])


def elsewhere_lines(verb: str, unit: str) -> list[Line]:
    reason = "Unknown object '/no/such/unit'. (r = -53)"
    return [
        ("info", f"[Utils] Got unit name '/no/such/unit' for the service '{unit}'"),
        ("err", job_failed_log(verb, "", reason)[1].replace("''", "'/no/such/unit'")),
    ]


def start_again(world: World) -> None:
    world.systemd.go()
    world.systemd.come_back()


UNIT_FILES = "`udhcpd_eth0.service` is not switched with the wire; requests are answered meanwhile"
ENABLE_LINES = [
    ("err", "[Utils] Failed to send bus enable call"),
    ("err", "[Utils] utils_enable_service Error building/calling EnableUnitFiles: N"),
    ("err", "Failed to enable udhcpd_eth0.service"),
]

ABOUT = (
    "Each look-up and each job opens a connection of its own. A job that is refused counts as done: the caller is answered "
    "with success, and the remaining steps are taken. Enabling and disabling (only of `udhcpd_eth0.service`, after an "
    "address event) have a time-out of 5 s."
)

NEIGHBOUR = Neighbour(
    "systemd",
    ABOUT,
    [
        Row(
            Kind.ABSENT,
            "not on the bus",
            [Asked(TO_CLIENT_MODE, logs=not_found(MISSING))],
            before=lambda world: world.systemd.go(),
            end=lambda world: world.systemd.come_back(),
        ),
        Row(
            Kind.REFUSES,
            "refuses look-ups",
            [Asked(TO_CLIENT_MODE, logs=not_found("refused (r = -13)"))],
            lambda world: world.systemd.refuse("LoadUnit", name="org.freedesktop.DBus.Error.AccessDenied"),
            name="refuses look-ups",
        ),
        Row(
            Kind.REFUSES,
            "refuses jobs",
            [
                Asked(
                    TO_CLIENT_MODE,
                    logs=to_client(lambda verb, unit: [loaded_log(unit), job_failed_log(verb, unit, "refused (r = -13)")]),
                )
            ],
            lambda world: [
                world.systemd.refuse(verb, name="org.freedesktop.DBus.Error.AccessDenied") for verb in ("Stop", "Start")
            ],
            name="refuses jobs",
        ),
        Row(
            Kind.REFUSES,
            "is absent, refuses or dies while a unit file is enabled or disabled",
            text=UNIT_FILES,
            lines=ENABLE_LINES,
            takes="at once",
            test=WIRED + "test_server_that_can_not_be_enabled_is_neither_looked_up_nor_started",
            after="the next event is acted upon",
        ),
        Row(
            Kind.HANGS,
            "answers no call",
            [Asked(TO_CLIENT_MODE, logs=not_found(TIMED_OUT), waits=3 * SHORT_TIMEOUT)],
            lambda world: world.systemd.hang(),
            environment=SHORT,
        ),
        Row(
            Kind.HANGS,
            "answers one look-up not, at the real time-out",
            [
                Asked(
                    TO_CLIENT_MODE,
                    logs=to_client(
                        lambda verb, unit: [load_failed_log(unit, TIMED_OUT), empty_path_log(verb)]
                        if unit == DHCP_SERVER
                        else [
                            loaded_log(unit),
                            (
                                "info",
                                f"[Utils] {'Stopp' if verb == 'Stop' else 'Start'}ed '{unit_path(unit)}' unit with job id:"
                                "/org/freedesktop/systemd1/job/N",
                            ),
                        ]
                    ),
                    waits=REAL_TIMEOUT,
                )
            ],
            lambda world: world.systemd.hang("LoadUnit", times=1),
            slow=True,
            name="hangs for 25 s",
        ),
        Row(
            Kind.HANGS,
            "does not answer the enabling of a unit file",
            text=UNIT_FILES,
            lines=ENABLE_LINES,
            takes="5 s, on a thread of its own",
            test=WIRED + "test_enable_that_is_not_answered_ends_after_five_seconds_and_holds_up_nobody",
        ),
        Row(
            Kind.WRONG_TYPE,
            "answers look-up and jobs with other types",
            [Asked(TO_CLIENT_MODE, logs=to_client(odd_lines))],
            odd_types,
        ),
        Row(
            Kind.GARBAGE,
            "names an object that is not there",
            [Asked(TO_CLIENT_MODE, logs=to_client(elsewhere_lines))],
            elsewhere,
        ),
        Row(
            Kind.DIES,
            "ends instead of answering",
            [
                dies_in("LoadUnit", first(lambda verb, unit: [load_failed_log(unit, VANISHED), empty_path_log(verb)])),
                dies_in("Stop", first(lambda verb, unit: [loaded_log(unit), job_failed_log(verb, unit, VANISHED)])),
            ],
            end=lambda world: world.systemd.come_back(),
        ),
        Row(Kind.RESTARTS, "`systemctl daemon-reexec`", [Asked(TO_CLIENT_MODE)], start_again),
        Impossible((Kind.FLOODS,), "nothing that systemd sends by itself is subscribed to, so the bus does not pass it on"),
    ],
    still_station,
)


@pytest.mark.parametrize("row", NEIGHBOUR.parameters())
def test_fault(world: World, row: Row) -> None:
    try_row(world, row, NEIGHBOUR.prepare)
