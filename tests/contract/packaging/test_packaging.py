"""What is installed, and what the units and activation files promise."""

import configparser
import re
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[3]
BUS_NAMES = {"com.vantora.Network1": "vantora-network.service", "com.vantora.common.Settings1": "vantora-settingsd.service"}


@pytest.fixture(scope="module")
def installed(build_dir: Path, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The root of an installation of the whole build."""
    root = tmp_path_factory.mktemp("installed")
    subprocess.run(
        ["cmake", "--install", build_dir],
        env={"DESTDIR": str(root), "PATH": "/usr/bin:/bin"},
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
    )
    return root


def the_only(root: Path, name: str) -> Path:
    (found,) = root.rglob(name)
    return found


def unit(path: Path) -> configparser.ConfigParser:
    parser = configparser.ConfigParser(strict=False, interpolation=None)
    parser.optionxform = str  # type: ignore[assignment, method-assign]
    parser.read(path)
    return parser


def test_programs_and_files_for_integrators_are_installed(installed: Path) -> None:
    for program in (
        "sbin/vantora-network",
        "sbin/vantora-settingsd",
        "sbin/vantora-supplicant-names",
        "bin/vantora-doctor",
        "bin/vantora-wifi",
        "bin/vantora-sim",
        "bin/vantora-simctl",
    ):
        assert the_only(installed, program).stat().st_mode & 0o111, program
    for name in (
        "vantora-network.service",
        "vantora-settingsd.service",
        "vantora-supplicant-names.service",
        "com.vantora.Network1.service",
        "com.vantora.common.Settings1.service",
        "com.vantora.Network1.WiFi.xml",
    ):
        the_only(installed, name)


def test_the_daemons_unit_waits_for_ready_and_starts_it_anew_whatever_ended_it(installed: Path) -> None:
    service = unit(the_only(installed, "vantora-network.service"))["Service"]
    assert service["Type"] == "notify"
    assert service["NotifyAccess"] == "main"
    assert installed / service["ExecStart"].removeprefix("/") == the_only(installed, "sbin/vantora-network")
    assert service["Restart"] == "always"
    assert service["Environment"] == "XDG_RUNTIME_DIR=/run/user/0"


def test_the_daemons_unit_has_a_station_take_up_its_connection_again(installed: Path) -> None:
    service = unit(the_only(installed, "vantora-network.service"))["Service"]
    assert service["ExecStartPost"] == "-/sbin/wpa_cli -i wlan0 reattach"  # the minus: no station, no harm


def test_the_daemons_unit_leaves_it_the_real_tmp_where_hostapd_answers(installed: Path) -> None:
    assert unit(the_only(installed, "vantora-network.service"))["Service"].get("PrivateTmp", "no") == "no"


@pytest.mark.parametrize("name", BUS_NAMES)
def test_the_user_bus_activates_the_unit_of_a_name(installed: Path, name: str) -> None:
    service = unit(the_only(installed, f"{name}.service"))["D-BUS Service"]
    assert service["Name"] == name
    assert re.search(rf"systemctl .*start {re.escape(BUS_NAMES[name])}$", service["Exec"])
    the_only(installed, BUS_NAMES[name])


# The sandbox and the watchdog

UNITS = ("vantora-network.service", "vantora-settingsd.service", "vantora-supplicant-names.service")
EXPOSURES = {"vantora-network.service": 3.0, "vantora-settingsd.service": 3.0, "vantora-supplicant-names.service": 2.0}


WITH_ITS_OWN_RUN = (
    *("unshare", "--user", "--map-root-user", "--mount"),
    *("sh", "-c", 'mount -t tmpfs tmpfs /run && exec "$@"', "sh"),
)
"""systemd-analyze makes folders in /run, where no systemd has made them and an ordinary user may not."""


@pytest.mark.parametrize("name", UNITS)
def test_a_units_sandbox_is_as_tight_as_promised(installed: Path, name: str) -> None:
    scored = subprocess.run(
        [*WITH_ITS_OWN_RUN, "systemd-analyze", "security", "--offline=true", "--no-pager", the_only(installed, name)],
        env={"PATH": "/usr/bin:/bin", "LC_ALL": "C"},
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )
    (exposure,) = re.findall(r"Overall exposure level for \S+: ([0-9.]+)", scored.stdout)
    assert float(exposure) <= EXPOSURES[name], scored.stdout


def seconds(span: str) -> int:
    """A time span as these units write them."""
    number, unit = re.fullmatch(r"(\d+)(s|min)", span).groups()  # type: ignore[union-attr]
    return int(number) * {"s": 1, "min": 60}[unit]


def section(page: str, heading: str) -> str:
    """The text below a heading of a page."""
    return (ROOT / "docs" / page).read_text().split(f"\n## {heading}\n")[1].split("\n## ")[0]


def test_the_watchdog_waits_longer_than_the_daemon_may_wait_for_its_neighbours(installed: Path) -> None:
    text = section("reliability.md", "How long may it be silent?")
    waits = [int(number) for number in re.findall(r"^\| `\w+` \|.*\| (\d+) \|$", text, re.MULTILINE)]
    (total,) = (int(number) for number in re.findall(r"^\| together \|.*\| (\d+) \|$", text, re.MULTILINE))
    assert len(waits) == 4
    assert sum(waits) == total

    period = seconds(unit(the_only(installed, "vantora-network.service"))["Service"]["WatchdogSec"])
    # A quarter of the period may have passed since the last report when the wait begins.
    assert total + period / 4 < period
    assert f"{period // 60} minutes" in text


def test_a_daemon_ended_by_the_watchdog_is_started_anew_and_leaves_no_core(installed: Path) -> None:
    for name in UNITS:
        service = unit(the_only(installed, name))["Service"]
        assert seconds(service["WatchdogSec"]) >= 60
        assert service["Restart"] == "always"
        assert service["LimitCORE"] == "0"


# wpa_supplicant's older name

NAMES_UNIT = "vantora-supplicant-names.service"


def test_the_older_names_unit_waits_for_ready_and_runs_as_a_user_of_its_own(installed: Path) -> None:
    service = unit(the_only(installed, NAMES_UNIT))["Service"]
    assert (service["Type"], service["NotifyAccess"]) == ("notify", "main")
    assert installed / service["ExecStart"].removeprefix("/") == the_only(installed, "sbin/vantora-supplicant-names")
    user = service["User"]
    assert user == service["Group"] == "_vantora-supplicant-names"
    assert service["CapabilityBoundingSet"] == service["AmbientCapabilities"] == ""
    sysusers = the_only(installed, "sysusers.d/vantora-supplicant-names.conf").read_text()
    assert re.search(rf"^u {user} -", sysusers, re.MULTILINE)
    assert f'<policy user="{user}">' in the_only(installed, "system.d/vantora-supplicant-names.conf").read_text()


def test_the_older_names_user_can_be_made(installed: Path, tmp_path: Path) -> None:
    (tmp_path / "etc").mkdir()
    made = subprocess.run(
        ["systemd-sysusers", f"--root={tmp_path}", the_only(installed, "sysusers.d/vantora-supplicant-names.conf")],
        env={"PATH": "/usr/bin:/bin"},
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )
    assert made.returncode == 0, made.stderr
    (entry,) = [
        line for line in (tmp_path / "etc/passwd").read_text().splitlines() if line.startswith("_vantora-supplicant-names:")
    ]
    assert entry.split(":")[2] != "0"


def test_the_older_name_is_not_activated_since_it_is_there_only_with_wpa_supplicant(installed: Path) -> None:
    assert list(installed.rglob("fi.epitest.hostap.WPASupplicant.service")) == []
    assert "BusName" not in unit(the_only(installed, NAMES_UNIT))["Service"]
