"""The commands vantora-sim and vantora-simctl as programs: exit status, environment, signals, persistence, the tour."""

from __future__ import annotations

import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from conftest import ROOT
from ignored_signals import forget_ignored_signals
from simulated import PYTHON, SIMULATOR
from vantora_sim import cli, places, simctl

TARGET = "com.vantora.Network1 /com/vantora/Network1 com.vantora.Network1.WiFi"
SETTING = "com.vantora.common.Settings1 /com/vantora/common/Settings1/device com.vantora.common.Settings1 deviceName"


def vantora_sim(build_dir: Path, *arguments: str | Path) -> subprocess.CompletedProcess[str]:
    """Run it to its end."""
    return subprocess.run(
        [PYTHON, SIMULATOR / "vantora-sim", "--build-dir", build_dir, *arguments],
        capture_output=True,
        text=True,
        stdin=subprocess.DEVNULL,
        timeout=100,
        check=False,
    )


def in_shell(build_dir: Path, script: str, *options: str | Path) -> subprocess.CompletedProcess[str]:
    """Run a shell script in reach of a device."""
    return vantora_sim(build_dir, *options, "--", "/bin/sh", "-c", script)


def test_it_runs_in_a_chroot_whose_programs_the_machine_does_not_have(build_dir: Path, tmp_path: Path) -> None:
    if os.geteuid() != 0:
        pytest.skip("only root changes the root")
    script = (
        f"mount --rbind / {tmp_path} && mount --bind {build_dir} {tmp_path}/mnt && "
        f"exec chroot {tmp_path} {SIMULATOR}/vantora-sim --build-dir /mnt -- /mnt/vantora-wifi mode"
    )
    ran = subprocess.run(
        ["unshare", "--mount", "--propagation", "private", "/bin/sh", "-c", script],
        capture_output=True,
        text=True,
        stdin=subprocess.DEVNULL,
        timeout=100,
        check=False,
    )
    assert (ran.returncode, ran.stdout) == (0, "host\n"), ran.stderr


def test_command_reaches_both_buses_and_its_status_is_passed_on(build_dir: Path) -> None:
    ran = in_shell(
        build_dir,
        f"busctl --user get-property {TARGET} Mode IPAddress; "
        "busctl --system call org.freedesktop.DBus / org.freedesktop.DBus NameHasOwner s org.freedesktop.systemd1; "
        f"{PYTHON} {SIMULATOR}/vantora-simctl join tablet; exit 7",
    )
    assert ran.returncode == 7, ran.stderr
    assert ran.stdout == 's "Host"\ns "192.168.8.1"\nb true\ntablet has joined\n'
    for line in (
        "  user bus    unix:path=",
        '  Mode                        "Host"',
        f"  busctl --user call {TARGET} Scan",
        "vantora-wifi --help\n",
        "vantora-simctl --help\n",
    ):
        assert line in ran.stderr


@pytest.mark.parametrize(
    ("command", "status", "complaint"),
    [
        (("/bin/sh", "-c", "kill -9 $$"), 137, ""),
        (("/no/such/program",), 127, "vantora-sim: /no/such/program: not found\n"),
        (("/etc/passwd",), 126, "vantora-sim: /etc/passwd: Permission denied\n"),
    ],
)
def test_command_that_is_killed_or_cannot_run(build_dir: Path, command: tuple[str, ...], status: int, complaint: str) -> None:
    ran = vantora_sim(build_dir, "--", *command)
    assert ran.returncode == status
    assert ran.stderr.endswith(complaint)


def test_settings_persist_in_the_state_folder(build_dir: Path, tmp_path: Path) -> None:
    world = tmp_path / "world.json"
    world.write_text('{ "name": "mine", "settings": { "device": { "deviceName": "Given" } } }')
    state = tmp_path / "new/state"
    first = in_shell(
        build_dir,
        f"busctl --user get-property {TARGET} SSID; busctl --user set-property {TARGET} SSID s Written",
        "--world",
        world,
        "--state",
        state,
    )
    assert (first.returncode, first.stdout) == (0, 's "Given"\n'), first.stderr
    assert "Written" in (state / "settings.json").read_text()
    second = in_shell(
        build_dir,
        f"busctl --user get-property {TARGET} SSID; busctl --user get-property {SETTING}",
        "--world",
        world,
        "--state",
        state,
    )
    assert (second.returncode, second.stdout) == (0, 's "Written"\ns "Written"\n'), second.stderr
    without = in_shell(build_dir, f"busctl --user get-property {TARGET} SSID", "--world", world)
    assert without.stdout == 's "Given"\n'


@pytest.fixture
def short_folder() -> Iterator[Path]:
    """A folder for temporary files whose name leaves room for the addresses of sockets."""
    with tempfile.TemporaryDirectory(prefix="v", dir="/tmp") as folder:
        yield Path(folder)


@pytest.fixture
def staying(build_dir: Path, short_folder: Path) -> Iterator[Callable[..., "subprocess.Popen[str]"]]:
    """Starts a device that stays, in a process group of its own; returns when it says that it is up."""
    started: list[subprocess.Popen[str]] = []

    def start(*options: str) -> "subprocess.Popen[str]":
        environment = {name: value for name, value in os.environ.items() if name != "VANTORA_SIM_CONTROL"}
        process = subprocess.Popen(
            [PYTHON, SIMULATOR / "vantora-sim", "--build-dir", build_dir, *options],
            text=True,
            env={**environment, "TMPDIR": str(short_folder)},
            process_group=0,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            preexec_fn=forget_ignored_signals,
        )
        started.append(process)
        assert process.stdout is not None
        seen: list[str] = []
        while not (seen and seen[-1].startswith("What happens from now on")):
            seen.append(process.stdout.readline())
            assert seen[-1], "".join(seen)
        process.seen = "".join(seen)  # type: ignore[attr-defined]
        return process

    yield start
    for process in started:
        if process.poll() is None:
            process.kill()
        process.wait()
        assert process.stdout is not None
        process.stdout.close()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_device_that_stays_ends_cleanly(staying: Callable[..., "subprocess.Popen[str]"], number: signal.Signals) -> None:
    process = staying()
    text = process.seen  # type: ignore[attr-defined]
    bus = next(line.split("unix:path=")[1] for line in text.splitlines() if line.startswith("  user bus"))
    assert Path(bus).exists()
    for line in (
        "The device starts.",
        '  SSID                        "Korrin One-3456"',
        "  WiFiAccessPointInitialised  true",
        f"  export DBUS_SESSION_BUS_ADDRESS=unix:path={bus}",
    ):
        assert line in text.splitlines()
    os.killpg(process.pid, number)  # as a terminal does
    assert process.wait(60) == 0
    assert not Path(bus).parents[3].exists()


def test_device_that_stays_shows_changes_and_obeys_simctl(
    staying: Callable[..., "subprocess.Popen[str]"], short_folder: Path
) -> None:
    process = staying("-v")
    (control,) = short_folder.glob("vantora-sim-*/control")
    found = subprocess.run(
        [PYTHON, SIMULATOR / "vantora-simctl", "--control", control, "join", "laptop"],
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )
    assert (found.returncode, found.stdout) == (0, "laptop has joined\n"), found.stderr
    assert process.stdout is not None
    wanted = [
        "outside: laptop has joined",
        "log info: ListenTask: Recv <3>AP-STA-CONNECTED 02:00:00:00:40:03",
        "WiFiConnectedClients = 1",
        "hostapd STA-FIRST",
        "command rfkill list wlan",
    ]
    deadline = time.monotonic() + 30
    while wanted:
        line = process.stdout.readline()
        wanted = [text for text in wanted if not line.strip().endswith(f"s  {text}")]
        assert line and time.monotonic() < deadline, wanted


def test_simctl_finds_the_only_device_of_its_user(
    staying: Callable[..., "subprocess.Popen[str]"], short_folder: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.delenv("VANTORA_SIM_CONTROL", raising=False)
    monkeypatch.setattr(simctl, "_folders", lambda: {short_folder})
    with pytest.raises(simctl.NotRunning, match="no vantora-sim of this user is running"):
        simctl.find_device()
    staying()
    assert json.loads(simctl.ask(simctl.find_device(), {"command": "show"})["text"])["world"] == "home"
    staying()
    with pytest.raises(simctl.NotRunning, match="several are running"):
        simctl.find_device()


def test_tour_does_and_checks_every_step(build_dir: Path) -> None:
    ran = vantora_sim(build_dir, "--demo")
    assert ran.returncode == 0, ran.stdout + ran.stderr
    steps = [line for line in ran.stdout.splitlines() if line[:1].isdigit()]
    assert [step.split(". ")[0] for step in steps] == [str(number) for number in range(1, 11)]
    shown = [line.split(" s  ")[1] for line in ran.stdout.splitlines() if " s  " in line]
    for change in (
        'Mode = "Host"',
        "WiFiConnectedClients = 2",
        'WiFiFrequency = "5"',
        'Mode = "Client"',
        'WiFiClientState = "failed"',
        'WiFiClientState = "completed"',
        'IPAddress = "192.168.1.50"',
        "WiFiState = 0",
    ):
        assert change in shown
    assert 'ok     SSID is "Living Room"' in ran.stdout
    taken = re.fullmatch(r"All steps done and checked in ([0-9.]+) s\.", ran.stdout.splitlines()[-1])
    assert taken is not None
    assert float(taken[1]) < 30


def test_tour_of_a_device_with_one_band_that_starts_as_a_station(build_dir: Path) -> None:
    ran = vantora_sim(build_dir, "--demo", "--world", "single-band")
    assert ran.returncode == 0, ran.stdout + ran.stderr
    assert "3. " not in ran.stderr and "Band: 5 GHz, which this device has not\n" in ran.stdout
    assert 'ok     WiFiFrequency is "2.4"\n' in ran.stdout
    assert ran.stdout.splitlines()[-1].startswith("All steps done and checked in ")


@pytest.mark.parametrize(
    ("world", "reason"),
    [
        (
            {"stations": [{"name": "a"}, {"name": "b"}]},
            "it needs a network with a passphrase and an address that the device hears",
        ),
        ({"networks": [{"ssid": "x", "passphrase": "12345678"}], "stations": [{"name": "a"}]}, "it needs two stations"),
        (
            {
                "device": {"radio_type": 0},
                "networks": [{"ssid": "x", "passphrase": "12345678", "band": "5", "channel": 36}],
                "stations": [{"name": "a"}, {"name": "b"}],
            },
            "it needs a network with a passphrase and an address that the device hears",
        ),
    ],
    ids=["no network", "one station", "another band"],
)
def test_tour_says_at_once_why_a_world_does_not_suit_it(
    build_dir: Path, tmp_path: Path, world: dict[str, object], reason: str
) -> None:
    path = tmp_path / "w.json"
    path.write_text(json.dumps({"name": "w", **world}))
    ran = vantora_sim(build_dir, "--demo", "--world", path)
    assert (ran.returncode, ran.stdout, ran.stderr) == (1, "", f'vantora-sim: the tour does not fit the world "w": {reason}\n')


def test_command_finds_the_programs_for_people_by_their_names(build_dir: Path) -> None:
    ran = in_shell(build_dir, "vantora-wifi --json status; vantora-simctl join tablet; command -v vantora-wifi")
    assert ran.returncode == 0, ran.stderr
    status, joined, found = ran.stdout.splitlines()
    assert json.loads(status)["mode"] == "Host"
    assert (joined, found) == ("tablet has joined", str(build_dir.resolve() / "vantora-wifi"))


def test_nothing_but_the_commands_own_words_is_on_standard_output(build_dir: Path) -> None:
    assert in_shell(build_dir, "true").stdout == ""
    run = (ROOT / "scripts/run").read_text()
    assert re.search(r"^scripts/build .* >&2$", run, re.MULTILINE)


def test_what_a_bare_chroot_lacks_is_named(
    build_dir: Path, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str], tmp_path: Path
) -> None:
    present, absent = Path("/usr"), tmp_path / "proc/self/ns"
    monkeypatch.setattr(places, "_NEEDED", (present, absent))
    assert cli.main(["--build-dir", str(build_dir), "--", "true"]) == 1
    assert capsys.readouterr().err == f"vantora-sim: this system lacks {absent}\n"


def test_tour_fails_when_a_step_does(build_dir: Path, tmp_path: Path) -> None:
    """A network with the right name and passphrase that nobody can hold: scanned, but never joined."""
    world = tmp_path / "world.json"
    world.write_text(
        '{ "name": "far", "networks": [ {"ssid": "far away", "signal": -95, "passphrase": "12345678"} ],'
        ' "stations": [ {"name": "a"}, {"name": "b"} ] }'
    )
    ran = vantora_sim(build_dir, "--demo", "--world", world)
    assert ran.returncode == 1
    assert "FAILED: AccessPoints is []" in ran.stdout and "All steps done" not in ran.stdout


def test_wrong_command_lines_are_refused(build_dir: Path, tmp_path: Path) -> None:
    assert vantora_sim(build_dir, "--no-such-option").returncode == 2
    both = vantora_sim(build_dir, "--demo", "--", "true")
    assert (both.returncode, both.stderr) == (2, "vantora-sim: --demo takes no COMMAND\n")
    unbuilt = vantora_sim(tmp_path)
    assert (unbuilt.returncode, unbuilt.stderr) == (
        1,
        f"vantora-sim: {tmp_path} holds no {', '.join(places.PROGRAMS)}: build first, or give --build-dir\n",
    )
    (tmp_path / "w.json").write_text("{}")
    wrong = vantora_sim(build_dir, "--world", tmp_path / "w.json")
    assert (wrong.returncode, wrong.stderr) == (1, f'vantora-sim: {tmp_path}/w.json:1: "name" is missing\n')


def test_run_script_is_a_thin_call() -> None:
    helped = subprocess.run([ROOT / "scripts/run", "--help"], capture_output=True, text=True, timeout=60, check=False)
    assert helped.returncode == 0 and helped.stdout.startswith("Usage: scripts/run [OPTION]... [-- COMMAND...]")


def test_installed_below_any_prefix_it_finds_its_parts(build_dir: Path) -> None:
    with tempfile.TemporaryDirectory(prefix="vantora-installed-", dir="/tmp") as folder:
        prefix = Path(folder)
        subprocess.run(
            ["/usr/bin/cmake", "--install", build_dir, "--prefix", prefix, "--component", "simulator"],
            check=True,
            capture_output=True,
            timeout=60,
        )
        (prefix / "sbin").mkdir()
        for name in ("vantora-network", "vantora-settingsd"):
            shutil.copy(build_dir / name, prefix / "sbin")
        ran = subprocess.run(
            [
                prefix / "bin/vantora-sim",
                "--world",
                "single-band",
                "--",
                "/bin/sh",
                "-c",
                f"busctl --user get-property {TARGET} Mode; {prefix}/bin/vantora-simctl join scanner",
            ],
            capture_output=True,
            text=True,
            timeout=100,
            check=False,
        )
        assert (ran.returncode, ran.stdout) == (1, 's "Client"\n'), ran.stderr
        assert ran.stderr.endswith("vantora-simctl: there is no access point to join\n")
