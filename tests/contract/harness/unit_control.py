"""What the tests of unit control share: how each call to systemd looks, and the lines that go with it."""

from __future__ import annotations

from typing import Any

from vantora_sim import Pattern, Variant, World, call, log, unit_path

SYSTEMD = "org.freedesktop.systemd1"

DHCP_SERVER = "udhcpd.service"
DHCP_CLIENT = "udhcpc@wlan0.service"
WIRED_DHCP_SERVER = "udhcpd_eth0.service"
WIRED_DHCP_SERVER_FILE = "/etc/korrin/udhcpd_eth0.service"

JOB_FAILED = {
    "Start": "[Utils] Failed to start '{}' unit. {}",
    "Restart": "[Utils]  Failed to re-start '{}' unit. {}",
    "Stop": "[Utils] Failed to stop '{}' unit. {}",
}
JOB_QUEUED = {"Start": "Started", "Restart": "Restarted", "Stop": "Stopped"}


def manager_call(member: str, signature: str, *args: Any) -> Pattern:
    """A call of systemd's manager, with every name it must carry."""
    return call(
        member,
        *args,
        bus="system",
        destination=SYSTEMD,
        path="/org/freedesktop/systemd1",
        interface="org.freedesktop.systemd1.Manager",
        signature=signature,
    )


def job_call(verb: str, unit: str) -> Pattern:
    """A job asked of a unit, with every name it must carry."""
    return call(
        verb,
        "replace",
        bus="system",
        destination=SYSTEMD,
        path=unit_path(unit),
        interface="org.freedesktop.systemd1.Unit",
        signature="s",
    )


def loaded_log(unit: str) -> tuple[str, str]:
    """The line about a look-up that succeeded."""
    return "info", f"[Utils] Got unit name '{unit_path(unit)}' for the service '{unit}'"


def queued_log(verb: str, unit: str, job: int) -> tuple[str, str]:
    """The line about a job that was queued under this number."""
    return "info", f"[Utils] {JOB_QUEUED[verb]} '{unit_path(unit)}' unit with job id:/org/freedesktop/systemd1/job/{job}"


def load_failed_log(unit: str, reason: str) -> tuple[str, str]:
    """The line about a look-up that failed: "text (r = number)"."""
    return "err", f"[Utils] Failed to load unit name of '{unit}' service. {reason}"


def job_failed_log(verb: str, unit: str, reason: str) -> tuple[str, str]:
    """The line about a job that was refused; an empty unit is one whose look-up had failed."""
    return "err", JOB_FAILED[verb].format(unit_path(unit) if unit else "", reason)


def empty_path_log(verb: str) -> tuple[str, str]:
    """The line about a job that was asked for after a failed look-up: the bus library refuses the empty path."""
    return job_failed_log(verb, "", "Invalid argument (r = -22)")


def associate(world: World) -> int:
    """Report an association, which restarts the DHCP client on the main loop; returns the mark before it when all is done."""
    mark = world.journal.mark()
    world.wpa.changed(State=Variant("s", "completed"))
    world.journal.wait_for(log("info", "[WPA Supplicant] Restarting udhcpc"), mark)
    world.settle()
    return mark
