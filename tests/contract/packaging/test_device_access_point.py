"""What stands between a device's units and hostapd: passphrase, configuration, attempts after a failure; and the wired server."""

from __future__ import annotations

import os
import re
import stat
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT

DEVICE = ROOT / "packaging/device"
RUNTIME = "acs_blacklist=52 56\nchannel=0\nhw_mode={mode}\nssid=Boat\nwpa_psk_file=/run/vantora-device/wlan0.psk\n"


def run(root: Path, script: str, *arguments: str, **environment: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [DEVICE / "libexec" / script, *arguments],
        env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "VANTORA_DEVICE_ROOT": str(root), **environment},
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )


@pytest.fixture
def root(tmp_path: Path) -> Path:
    """The root of a device."""
    made = tmp_path / "device"
    for folder in ("dev", "run", "proc", "var/lib"):
        (made / folder).mkdir(parents=True)
    return made


def mode(path: Path) -> int:
    return stat.S_IMODE(path.stat().st_mode)


# The passphrase


def passphrase(root: Path) -> str:
    return (root / "var/lib/vantora-device/passphrase").read_text()


def test_a_passphrase_is_made_that_is_random_typeable_and_roots_alone(tmp_path: Path) -> None:
    made = set()
    for number in range(20):
        root = tmp_path / str(number)
        assert run(root, "passphrase").returncode == 0
        made.add(passphrase(root))
        assert mode(root / "var/lib/vantora-device/passphrase") == 0o600
    assert len(made) == 20
    # 15 out of 27: 71 bits; without what is taken for another: 0 o, 1 i l, 2 z, 5 s.
    for text in made:
        assert re.fullmatch(r"[abcdefghjkmnpqrtuvwxy346789]{5}(-[abcdefghjkmnpqrtuvwxy346789]{5}){2}\n", text), text
    # Each character comes from the whole alphabet.
    assert len(set("".join(made))) == 27 + len("-\n")


def test_a_passphrase_stays_and_one_that_a_power_cut_left_empty_is_made_anew(root: Path) -> None:
    run(root, "passphrase")
    first = passphrase(root)
    run(root, "passphrase", "--show")
    assert passphrase(root) == first
    (root / "var/lib/vantora-device/passphrase").write_text("")
    run(root, "passphrase")
    assert len(passphrase(root)) == 18
    assert [path.name for path in (root / "var/lib/vantora-device").iterdir()] == ["passphrase"]


def test_the_console_and_the_login_prompts_show_it(root: Path) -> None:
    console = root / "dev/console"
    console.write_text("")
    (root / "var/lib/vantora-device").mkdir()
    (root / "var/lib/vantora-device/passphrase").write_text("back\\slash\n")
    assert run(root, "passphrase", "--show").returncode == 0
    assert console.read_text() == "Passphrase of the access point: back\\slash\n"
    issue = root / "run/issue.d/vantora-device.issue"
    assert issue.read_text() == "Passphrase of the access point: back\\\\slash\n\n"
    assert mode(issue) == 0o600
    console.unlink()
    console.mkdir()
    assert run(root, "passphrase", "--show").returncode == 0, "a device without a console has a passphrase all the same"


# The configuration


def prepare(root: Path, hostapd_knows: str = "acs_exclude_dfs", band: str = "g") -> str:
    """hostapd's configuration after the script, for a hostapd that knows these keys."""
    program = root / "hostapd"
    program.write_bytes(b"\x7fELF\0" + hostapd_knows.encode() + b"\0")
    (root / "run/hostapd.conf").write_text(RUNTIME.format(mode=band))
    ran = run(root, "hostapd-prepare", VANTORA_DEVICE_HOSTAPD=str(program))
    assert (ran.returncode, ran.stderr) == (0, ""), ran
    return (root / "run/vantora-device/hostapd.conf").read_text()


def test_the_key_file_has_the_passphrase_for_any_station_and_is_roots_alone(root: Path) -> None:
    prepare(root)
    assert (root / "run/vantora-device/wlan0.psk").read_text() == f"00:00:00:00:00:00 {passphrase(root)}"
    for name in ("wlan0.psk", "hostapd.conf"):
        assert mode(root / "run/vantora-device" / name) == 0o600
    assert sorted(os.listdir(root / "run/vantora-device")) == ["hostapd.conf", "wlan0.psk"]


def test_a_passphrase_that_somebody_has_typed_is_taken_as_it_is(root: Path) -> None:
    (root / "var/lib/vantora-device").mkdir()
    (root / "var/lib/vantora-device/passphrase").write_text("three blank words")
    prepare(root)
    assert (root / "run/vantora-device/wlan0.psk").read_text() == "00:00:00:00:00:00 three blank words\n"


def test_a_hostapd_that_knows_the_list_of_channels_gets_the_file_itself(root: Path) -> None:
    assert prepare(root, "acs_blacklist acs_exclude_dfs") == RUNTIME.format(mode="g")
    assert (root / "run/vantora-device/hostapd.conf").resolve() == (root / "run/hostapd.conf").resolve()


def test_one_that_does_not_gets_its_own_word_or_none(root: Path) -> None:
    assert prepare(root) == RUNTIME.format(mode="g").replace("acs_blacklist=52 56", "acs_exclude_dfs=1")
    assert prepare(root, "neither") == RUNTIME.format(mode="g").replace("acs_blacklist=52 56\n", "")


@pytest.mark.parametrize(("band", "channel"), [("g", "6"), ("a", "36")])
def test_every_other_attempt_after_a_failure_has_a_fixed_channel(root: Path, band: str, channel: str) -> None:
    failures = root / "run/vantora-device/failures"
    failures.parent.mkdir()
    for count, expected in (("1", channel), ("2", "0"), ("3", channel), ("", "0")):
        failures.write_text(f"{count} 77\n" if count else "")
        assert f"\nchannel={expected}\n" in prepare(root, band=band)


def test_without_a_configuration_hostapd_is_not_started(root: Path) -> None:
    assert run(root, "hostapd-prepare", VANTORA_DEVICE_HOSTAPD="/bin/true").returncode != 0


# Attempts


class Manager:
    """systemd's answers, a clock, and waits that only tell how long they would be."""

    def __init__(self, root: Path) -> None:
        self.root = root
        self.tools = root / "tools"
        self.tools.mkdir()
        self.calls = root / "calls"
        self.states("failed", "inactive")
        self.tool("sleep", 'echo "sleep $*" >>"$CALLS"')

    def tool(self, name: str, script: str) -> None:
        (self.tools / name).write_text(f"#!/bin/sh\n{script}\n")
        (self.tools / name).chmod(0o755)

    def states(self, hostapd: str, station: str) -> None:
        self.tool(
            "systemctl",
            f'case "$*" in *"is-failed hostapd.service") [ {hostapd} = failed ];;'
            f' *"is-active wpa_supplicant-nl80211@wlan0.service") [ {station} = active ];;'
            ' *) echo "systemctl $*" >>"$CALLS";; esac',
        )

    def fail(self, now: int) -> list[str]:
        """hostapd has failed at a time; what was done about it."""
        self.calls.write_text("")
        (self.root / "proc/uptime").write_text(f"{now}.25 1.00\n")
        ran = run(self.root, "access-point-retry", PATH=f"{self.tools}:/usr/bin:/bin", CALLS=str(self.calls))
        assert (ran.returncode, ran.stderr) == (0, ""), ran
        return self.calls.read_text().splitlines()


@pytest.fixture
def manager(root: Path) -> Manager:
    return Manager(root)


RESTART = "systemctl --no-block restart vantora-network.service"


def test_an_access_point_that_fails_is_tried_again_for_ever_at_growing_distance(manager: Manager) -> None:
    now, waits = 100, []
    for _ in range(40):
        wait, restart = manager.fail(now)
        waits.append(int(wait.removeprefix("sleep ")))
        assert restart == RESTART
        now += waits[-1] + 5
    assert waits == [0, 2, 4, 8, 16, 32, 64, 128, 256] + [300] * 31


def test_one_that_ran_for_a_while_is_tried_again_at_once(manager: Manager) -> None:
    manager.fail(100)
    assert manager.fail(110)[0] == "sleep 2"
    assert manager.fail(110 + 2 + 300)[0] == "sleep 4"
    assert manager.fail(110 + 2 + 300 + 4 + 301)[0] == "sleep 0"


@pytest.mark.parametrize(("hostapd", "station"), [("active", "inactive"), ("failed", "active")])
def test_nothing_is_restarted_that_runs_by_then_or_is_not_wanted(manager: Manager, hostapd: str, station: str) -> None:
    manager.states(hostapd, station)
    assert manager.fail(100) == ["sleep 0"]


# The wired server


@pytest.mark.parametrize(("answer", "status"), [("2: eth0    inet 192.168.7.1/24", 0), ("", 1)])
def test_the_wired_server_runs_where_the_cable_has_a_fixed_address(root: Path, answer: str, status: int) -> None:
    tools = root / "tools"
    tools.mkdir()
    (tools / "ip").write_text(f'#!/bin/sh\necho "$*" >{root}/asked\necho "{answer}"\n')
    (tools / "ip").chmod(0o755)
    ran = run(root, "has-fixed-address", "eth0", str(DEVICE / "etc/korrin/udhcpd_eth0.conf"), PATH=f"{tools}:/usr/bin:/bin")
    assert ran.returncode == status
    asked = (root / "asked").read_text()
    assert asked == "-4 -oneline address show dev eth0 permanent to 192.168.7.100/255.255.255.0\n"


def test_the_question_for_a_fixed_address_is_one_that_ip_understands() -> None:
    configuration = DEVICE / "etc/korrin/udhcpd_eth0.conf"
    ran = run(Path("/"), "has-fixed-address", "lo", str(configuration))
    assert (ran.returncode, ran.stdout) == (
        1,
        "lo has no fixed address in the network of 192.168.7.100: no DHCP server there\n",
    )
    assert ran.stderr == ""
