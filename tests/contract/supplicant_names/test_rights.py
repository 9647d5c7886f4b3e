"""Only root's calls are handed on: by the bus's policy, and by the program's own look at the caller where that lets others in."""

from __future__ import annotations

import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from older_name import FIRST, NEWER, OLDER, PROGRAM, OlderName
from vantora_sim import DEADLINE, Process, World, log
from vantora_sim.sandbox import Completed

ROOT = Path(__file__).resolve().parents[3]
POLICY = ROOT / "packaging/dbus/vantora-supplicant-names.conf"
THEIR_POLICY = next(
    path for folder in ("etc", "usr/share") if (path := Path(f"/{folder}/dbus-1/system.d/wpa_supplicant.conf")).exists()
)
"""That of the real wpa_supplicant: where it lies differs between releases."""
USER = "_vantora-supplicant-names"
OWN_USER = "daemon"
"""Plays the program's user, which only an installation makes. The bus knows it."""
CALL = f"{FIRST} fi.w1.wpa_supplicant1.Interface Echo"


def as_user(world: World, user: str, *argv: str) -> Completed:
    """Run a program in the sandbox as another user."""
    return world.sandbox.run(["/usr/bin/setpriv", "--reuid", user, "--regid", "65534", "--clear-groups", *argv])


def busctl_as(world: World, user: str, arguments: str) -> Completed:
    return as_user(world, user, "/usr/bin/busctl", "--system", *arguments.split())


# Where the bus lets everybody call


@pytest.mark.parametrize("path", [FIRST, "/"])
def test_another_user_is_refused_and_nothing_reaches_wpa_supplicant(names: OlderName, path: str) -> None:
    names.up()
    refused = as_user(
        names.world,
        "65534",
        "/usr/bin/dbus-send",
        "--system",
        "--print-reply",
        f"--dest={OLDER}",
        path,
        "fi.w1.wpa_supplicant1.Interface.Echo",
    )
    assert (refused.status, refused.stdout) == (1, "")
    assert refused.stderr == f"Error org.freedesktop.DBus.Error.AccessDenied: Only root may call {OLDER}\n"
    names.logged("warning", "[Names] Refused the calls of user 65534")
    assert names.calls("Echo") == []
    assert names.caller.call("Echo", "u", [1]).body == [1]


def test_neither_by_the_unique_name_nor_without_asking_for_an_answer(names: OlderName) -> None:
    names.up()
    for more in ("--expect-reply=no ", ""):
        busctl_as(names.world, "65534", f"{more}call {names.caller.owner()} {CALL}")
    names.logged("warning", "[Names] Refused the calls of user 65534")
    names.settle()
    assert [entry.path for entry in names.calls("Echo")] == [f"{FIRST.removesuffix('/Interfaces/1')}/Settle"]


def test_the_connections_that_calls_go_out_on_serve_nobody(names: OlderName) -> None:
    names.up()
    names.caller.call("Echo")
    (lane,) = {sender for sender in names.supplicant.senders if sender != names.caller.owner()}
    refused = names.world.sandbox.sh(f"busctl --system call {lane} {CALL}")
    assert (refused.status, refused.stdout) == (1, "")
    assert len(names.calls("Echo")) == 1


def test_a_caller_that_is_gone_before_the_bus_says_who_it_was_is_not_served(names: OlderName) -> None:
    names.up()
    for _ in range(30):
        other = names.another_caller()
        other.send("Echo", "s", ["gone"])
        other.leave()
    names.settle()
    assert names.process and names.process.running
    assert names.caller.call("Echo", "u", [1]).body == [1]


# By the policy that is shipped

SYSTEM = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/strict-bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <includedir>/run/policies</includedir>
</busconfig>
"""
"""What the policy of a real system bus says to begin with."""

OWNER = """
import asyncio
from dbus_next import MessageType
from dbus_next.aio import MessageBus
from dbus_next.message import Message

async def main():
    bus = await MessageBus(bus_address="unix:path=/run/strict-bus").connect()
    def receive(message):
        if message.message_type is not MessageType.METHOD_CALL:
            return False
        if message.member == "GetInterface":
            bus.send(Message.new_method_return(message, "o", ["/fi/w1/wpa_supplicant1/Interfaces/3"]))
        else:
            bus.send(Message.new_method_return(message, "s", [message.path]))
        return True
    bus.add_message_handler(receive)
    await bus.request_name("fi.w1.wpa_supplicant1")
    print("ready", flush=True)
    await bus.wait_for_disconnect()

asyncio.run(main())
"""


class StrictBus:
    """A second bus in the sandbox, with the policies that packages install, and everybody as the user they are on a device."""

    def __init__(self, world: World, names: OlderName) -> None:
        self.world = world
        self._names = names
        run = world.work / "run"
        (run / "policies").mkdir()
        (run / "policies/wpa_supplicant.conf").write_text(THEIR_POLICY.read_text())
        assert USER in POLICY.read_text()
        (run / "policies/names.conf").write_text(POLICY.read_text().replace(USER, OWN_USER))
        (run / "strict.conf").write_text(SYSTEM)
        self._environment = {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/strict-bus"}
        daemon = world.sandbox.start(["/usr/bin/dbus-daemon", "--config-file=/run/strict.conf", "--nofork", "--print-address"])
        self._wait(daemon, "unix:")
        self.program: Process | None = None

    def _wait(self, process: Process, text: str) -> None:
        self._names.wait_until(lambda: text in process.stdout or not process.running, f"{text} of {process.name}")
        assert text in process.stdout, process.stderr

    def start(self, user: str = OWN_USER) -> None:
        """Start wpa_supplicant as root and the program as its user."""
        self._wait(self.world.sandbox.start(["/usr/bin/python3", "-c", OWNER]), "ready")
        self._names.start(
            "/usr/bin/setpriv", "--reuid", user, "--regid", user, "--clear-groups", environment=dict(self._environment)
        )

    def reload(self) -> None:
        """Have the bus read its policies again, and wait until it has."""
        reloaded = self.world.sandbox.run(
            [
                "/usr/bin/busctl",
                "--system",
                "call",
                "org.freedesktop.DBus",
                "/org/freedesktop/DBus",
                "org.freedesktop.DBus",
                "ReloadConfig",
            ],
            self._environment,
        )
        assert reloaded.status == 0, reloaded.stderr

    def call(self, user: str, name: str = OLDER, path: str = FIRST) -> Completed:
        """Call a name as a user."""
        return self.world.sandbox.run(
            [
                "/usr/bin/setpriv",
                "--reuid",
                user,
                "--regid",
                "65534",
                "--clear-groups",
                "/usr/bin/busctl",
                "--system",
                "call",
                name,
                path,
                "a.b",
                "C",
            ],
            self._environment,
        )


@pytest.fixture
def strict(names: OlderName) -> Iterator[StrictBus]:
    """A bus with the policies of a device."""
    yield StrictBus(names.world, names)


def test_with_the_policy_root_is_served_by_a_program_that_is_not_root(names: OlderName, strict: StrictBus) -> None:
    strict.start()
    names.logged("info", f"[Names] Standing in for {OLDER}")
    assert strict.call("0").stdout == 's "/fi/w1/wpa_supplicant1/Interfaces/3"\n'
    assert names.process is not None
    status = Path(f"/proc/{names.process.pid}/status").read_text(encoding="utf-8")
    uids = next(line.split()[1:] for line in status.splitlines() if line.startswith("Uid:"))
    assert (
        len(set(uids)) == 1
        and uids[0]
        == subprocess.run(["id", "-u", OWN_USER], capture_output=True, text=True, check=True, timeout=DEADLINE).stdout.strip()
    )


@pytest.mark.parametrize("user", ["65534", OWN_USER])
def test_with_the_policy_nobody_else_reaches_the_program(names: OlderName, strict: StrictBus, user: str) -> None:
    strict.start()
    names.logged("info", f"[Names] Standing in for {OLDER}")
    refused = strict.call(user)
    assert (refused.status, refused.stdout) == (1, "")
    assert "Access denied" in refused.stderr  # the bus's own, the program has seen nothing
    assert names.journal.count(log("warning", ident=PROGRAM)) == 0


def test_the_policy_gives_others_no_more_of_wpa_supplicant_than_they_had(strict: StrictBus) -> None:
    strict.start()
    assert strict.call("65534", NEWER).status == 1
    assert strict.call("0", NEWER).status == 0


def test_another_user_can_not_take_the_name(names: OlderName, strict: StrictBus) -> None:
    strict.start("65534")
    names.logged("info", "[Names] Starting: calls to fi.epitest.hostap.WPASupplicant go to fi.w1.wpa_supplicant1")
    names.journal.wait_for(log("err", lambda text: text.startswith(f"[Names] Failed to own {OLDER}: ")))


def test_a_refused_name_is_tried_again_until_the_bus_has_read_its_policy(names: OlderName, strict: StrictBus) -> None:
    policy = names.world.work / "run/policies/names.conf"
    text = policy.read_text()
    policy.write_text(text.replace(OWN_USER, "bin"))
    strict.reload()
    strict.start()
    names.journal.wait_for(log("err", lambda line: line.startswith(f"[Names] Failed to own {OLDER}: ")))
    policy.write_text(text)
    strict.reload()
    names.logged("info", f"[Names] Standing in for {OLDER}")
