"""The simulated device in the hands of an ordinary user, who has nothing but user namespaces.

Run by root, the user is nobody, with copies of what a source tree holds, since nobody may not be able to read that; run by
an ordinary user it is that one. Not tested: machines that forbid user namespaces by a security module or a kernel setting of
their own (here a limit of 0 stands for all of them), and users in a login session with a bus of its own.
"""

from __future__ import annotations

import os
import pwd
import re
import shutil
import signal
import subprocess
import tempfile
from collections.abc import Iterator
from pathlib import Path

import pytest
from ignored_signals import forget_ignored_signals
from simulated import PYTHON, SIMULATOR
from vantora_sim import places

TARGET = "com.vantora.Network1 /com/vantora/Network1 com.vantora.Network1.WiFi"
SETPRIV = "/usr/bin/setpriv"


class OrdinaryUser:
    """Runs the commands of the simulator as an ordinary user, in a folder of that user's own."""

    def __init__(self, folder: Path, build_dir: Path) -> None:
        self.folder = folder
        self.build = folder / "build"
        self._become: list[str | Path] = []
        self.uid = os.geteuid()
        shutil.copytree(SIMULATOR, folder / "simulator", ignore=shutil.ignore_patterns("__pycache__"))
        (folder / "docs").mkdir()
        shutil.copy(places.schema(), folder / "docs")
        self.build.mkdir()
        for name in (*places.PROGRAMS, "vantora-wifi"):
            shutil.copy(build_dir / name, self.build)
        # Devices are made in here, so that no other device of this user's is among them.
        self.home = folder / "home"
        self.home.mkdir()
        if self.uid == 0:
            nobody = pwd.getpwnam("nobody")
            self.uid = nobody.pw_uid
            self._become = [
                SETPRIV,
                f"--reuid={nobody.pw_uid}",
                f"--regid={nobody.pw_gid}",
                "--clear-groups",
                "--inh-caps=-all",
            ]
            os.chown(self.home, nobody.pw_uid, nobody.pw_gid)
        subprocess.run(["/usr/bin/chmod", "-R", "a+rX", folder], check=True)
        self._environment = {name: value for name, value in os.environ.items() if name != "VANTORA_SIM_CONTROL"}
        self._environment |= {"TMPDIR": str(self.home), "HOME": str(self.home)}

    def command(self, program: str, *arguments: str | Path) -> list[str | Path]:
        """The command line for one of the simulator's programs."""
        return [PYTHON, self.folder / "simulator" / program, *arguments]

    def run(self, *command: str | Path) -> "subprocess.CompletedProcess[str]":
        """Run any program to its end."""
        return subprocess.run(
            [*self._become, *command],
            capture_output=True,
            text=True,
            stdin=subprocess.DEVNULL,
            timeout=110,
            cwd=self.home,
            env=self._environment,
            check=False,
        )

    def device(self, *arguments: str | Path) -> "subprocess.CompletedProcess[str]":
        """Run vantora-sim to its end."""
        return self.run(*self.command("vantora-sim", "--build-dir", self.build, *arguments))

    def stay(self) -> "subprocess.Popen[str]":
        """Start a device that stays, in a process group of its own, as a terminal does."""
        return subprocess.Popen(
            [*self._become, *self.command("vantora-sim", "--build-dir", self.build)],
            text=True,
            cwd=self.home,
            env=self._environment,
            process_group=0,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            preexec_fn=forget_ignored_signals,
        )

    def left_behind(self) -> list[str]:
        """What stands where the work folders were."""
        return sorted(path.name for path in self.home.iterdir())


@pytest.fixture
def user(build_dir: Path) -> Iterator[OrdinaryUser]:
    """An ordinary user. The folder's name leaves room for the addresses of sockets below it."""
    with tempfile.TemporaryDirectory(prefix="v", dir="/tmp", ignore_cleanup_errors=True) as folder:
        Path(folder).chmod(0o755)
        yield OrdinaryUser(Path(folder), build_dir)


def shell(*lines: str) -> tuple[str, ...]:
    """A COMMAND of several lines."""
    return "--", "/bin/sh", "-c", "\n".join(lines)


def test_ordinary_user_has_the_whole_device(user: OrdinaryUser) -> None:
    ran = user.device(*shell("id -u", f"busctl --user get-property {TARGET} Mode IPAddress", "exit 3"))
    assert ran.returncode == 3, ran.stderr
    assert user.uid != 0
    assert ran.stdout.splitlines() == [str(user.uid), 's "Host"', 's "192.168.8.1"']
    assert user.left_behind() == []


def test_user_id_without_a_name_is_told_what_is_wrong(user: OrdinaryUser) -> None:
    if os.geteuid() != 0:
        pytest.skip("needs root: an ordinary user cannot become another")
    named = {entry.pw_uid for entry in pwd.getpwall()}
    unknown = next(uid for uid in range(54321, 60000) if uid not in named)
    ran = subprocess.run(
        [
            SETPRIV,
            f"--reuid={unknown}",
            f"--regid={unknown}",
            "--clear-groups",
            *user.command("vantora-sim", "--build-dir", user.build, "--", "/bin/true"),
        ],
        capture_output=True,
        text=True,
        cwd="/",
        timeout=110,
        check=False,
    )
    assert (ran.returncode, ran.stdout) == (1, "")
    assert ran.stderr == (
        f"vantora-sim: user id {unknown} is in no user database (passwd): " "a message bus turns away whom it cannot look up\n"
    )


def test_ordinary_user_changes_the_world(user: OrdinaryUser) -> None:
    simctl = " ".join(map(str, user.command("vantora-simctl")))
    ran = user.device(
        *shell(
            f"{simctl} join tablet",
            f"busctl --user get-property {TARGET} WiFiConnectedClients",
            f"{simctl} cable plug --address 10.1.1.1/24",
            f"{simctl} kill hostapd",
            f"{simctl} kill hostapd",
        )
    )
    assert ran.stdout.splitlines() == [
        "tablet has joined",
        "u 1",
        "the cable is plugged, eth0 has 10.1.1.1/24",
        "hostapd is killed",
    ], ran.stderr
    assert ran.returncode == 1 and ran.stderr.endswith("vantora-simctl: hostapd is not running\n")


def test_ordinary_user_gets_from_access_point_to_a_network(user: OrdinaryUser) -> None:
    wifi = user.build / "vantora-wifi"
    ran = user.device(
        *shell(
            f"{wifi} mode client && {wifi} scan && " f"echo quiet-harbour-42 | {wifi} connect 'Casa Marisol' --passphrase-stdin"
        )
    )
    assert ran.returncode == 0, ran.stderr
    assert ran.stdout.startswith("The device is a station (Client).\n") and "  Casa Marisol\n" in ran.stdout
    assert ran.stdout.endswith('Connected to "Casa Marisol", address 192.168.1.50\n')


def test_settings_of_an_ordinary_user_persist(user: OrdinaryUser) -> None:
    state = user.home / "new/state"
    first = user.device("--state", state, *shell(f"busctl --user set-property {TARGET} SSID s Written"))
    assert first.returncode == 0, first.stderr
    assert "Written" in (state / "settings.json").read_text()
    assert (state / "settings.json").stat().st_uid == user.uid
    second = user.device("--state", state, *shell(f"busctl --user get-property {TARGET} SSID"))
    assert (second.returncode, second.stdout) == (0, 's "Written"\n'), second.stderr


def test_device_of_an_ordinary_user_stays_until_an_interrupt_and_leaves_nothing(user: OrdinaryUser) -> None:
    with user.stay() as process:
        try:
            assert process.stdout is not None
            seen: list[str] = []
            while not (seen and seen[-1].startswith("What happens from now on")):
                seen.append(process.stdout.readline())
                assert seen[-1], "".join(seen)
            (work,) = user.home.glob("vantora-sim-*")
            assert (work.stat().st_uid, work.stat().st_mode & 0o777) == (user.uid, 0o700), "nobody else gets at the buses"
            asked = user.run(*user.command("vantora-simctl", "--control", work / "control", "join", "laptop"))
            assert (asked.returncode, asked.stdout) == (0, "laptop has joined\n"), asked.stderr
            while not re.search(r"s  WiFiConnectedClients = \d", seen[-1]):
                seen.append(process.stdout.readline())
                assert seen[-1], "".join(seen)
            os.killpg(process.pid, signal.SIGINT)
            assert process.wait(60) == 0
        finally:
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGKILL)
    assert user.left_behind() == []


def test_ordinary_user_is_shown_the_tour(user: OrdinaryUser) -> None:
    ran = user.device("--demo")
    assert ran.returncode == 0, ran.stdout + ran.stderr
    assert ran.stdout.splitlines()[-1].startswith("All steps done and checked in ")


def test_where_no_sandbox_is_possible_one_line_says_why(user: OrdinaryUser) -> None:
    # A user namespace that lets nobody in it make another, entered without any right over it.
    forbid = (
        "/usr/bin/unshare",
        "--user",
        "--map-root-user",
        "/bin/sh",
        "-c",
        f'echo 0 >/proc/sys/user/max_user_namespaces && exec {SETPRIV} --bounding-set=-all --inh-caps=-all "$@"',
        "sh",
    )
    ran = user.run(*forbid, *user.command("vantora-sim", "--build-dir", user.build))
    assert (ran.returncode, ran.stdout) == (1, "")
    assert ran.stderr.startswith("vantora-sim: no sandbox can be made here: ") and ran.stderr.count("\n") == 1
