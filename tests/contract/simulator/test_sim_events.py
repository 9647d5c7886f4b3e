"""Events of a world file: commands of vantora-simctl that happen by themselves, and the way from words to requests and back."""

from __future__ import annotations

import json
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from conftest import ROOT
from simulated import small_plan, wait_until
from vantora_sim.device import SimulatedDevice
from vantora_sim.plan import Event, Network, Plan, Visitor
from vantora_sim.words import command_line, request_of_words, words_of
from vantora_sim.world_file import WorldFileError, as_document, read_world

COMMANDS: list[tuple[str, dict[str, Any]]] = [
    ("signal", {"network": "Casa -1", "dbm": -70}),
    ("signal", {"network": "-odd", "dbm": -70}),
    ("key", {"network": "02:00:00:00:30:01", "passphrase": "--eight or more"}),
    ("remove", {"network": "with 'quotes' and spaces"}),
    ("join", {"station": "phone"}),
    ("leave", {"station": "phone"}),
    ("kill", {"neighbour": "hostapd"}),
    ("hang", {"neighbour": "systemd"}),
    ("release", {"neighbour": "systemd"}),
    ("start", {"neighbour": "wpa_supplicant"}),
    ("radio", {"blocked": True, "hard": True}),
    ("radio", {"blocked": False, "hard": False}),
    ("set", {"setting": "network.mode", "value": "-Host"}),
    ("cable", {"plugged": True, "address": "10.0.0.1/24"}),
    ("cable", {"plugged": False}),
    (
        "add",
        {
            "network": {
                "ssid": "--new",
                "signal": -48,
                "passphrase": "--flat white",
                "hidden": True,
                "channel": 44,
                "band": "5",
                "security": "wpa2",
                "bssid": "02:00:00:00:70:01",
                "address": "10.9.0.2/24",
            }
        },
    ),
    ("add", {"network": {"ssid_hex": "c328", "address": None}}),
]


@pytest.mark.parametrize(("command", "arguments"), COMMANDS)
def test_words_of_a_command_say_the_same_as_the_request(command: str, arguments: dict[str, Any]) -> None:
    assert request_of_words(words_of(command, arguments)) == {"command": command, **arguments}


@pytest.mark.parametrize(("command", "arguments"), COMMANDS)
def test_the_command_line_reaches_the_program_as_it_was_meant(command: str, arguments: dict[str, Any]) -> None:
    line = command_line(command, arguments).replace(
        "vantora-simctl", f"{sys.executable} -c 'import sys, json; print(json.dumps(sys.argv[1:]))'", 1
    )
    ran = subprocess.run(["/bin/sh", "-c", line], capture_output=True, text=True, check=True)
    assert json.loads(ran.stdout) == words_of(command, arguments)


def test_events_happen_in_the_order_of_their_times(make_device: Callable[..., SimulatedDevice]) -> None:  # noqa: F811
    plan = small_plan()
    plan.events = [
        Event(0.2, "remove", {"network": "open"}),
        Event(0.4, "remove", {"network": "no such"}),
        Event(0.6, "cable", {"plugged": True}),
    ]
    device = make_device(plan)
    wait_until(
        device,
        lambda: any(entry.kind == "world" and entry.command == "cable" for entry in device.world.journal.since()),
        "the last event",
    )
    done = [entry for entry in device.world.journal.since() if entry.kind == "world"]
    assert [entry.command for entry in done] == ["remove", "remove", "cable"]
    assert done[1].text == "failed: there is no network 'no such'" and done[1].failed
    assert all(entry.by_plan for entry in done)
    assert "open" not in [network.label for network in device.air.networks]
    assert done[2].when - done[0].when >= 0.39


def test_a_plan_is_written_as_a_world_file_and_read_again(tmp_path: Path) -> None:
    plan = Plan(
        "all of it",
        {"model": "Korrin One", "serial": "1", "radio_type": "0"},
        [
            Network(b"\xc3(\n", "02:00:00:00:01:01", hidden=True, passphrase="eight or more", address=None),
            Network("Caf\u00e9".encode(), "02:00:00:00:01:02", band="5", channel=44, signal=-71, security="open"),
        ],
        [Visitor("phone", "02:00:00:00:02:01", 1.5), Visitor("tablet", "02:00:00:00:02:02")],
        {"network": {"mode": "Client"}},
        [Event(3.5, "signal", {"network": "02:00:00:00:01:02", "dbm": -100})],
    )
    (tmp_path / "world.json").write_text(json.dumps(as_document(plan)))
    assert read_world(str(tmp_path / "world.json")) == plan


@pytest.mark.parametrize("world", ["home", "office", "single-band"])
def test_shipped_worlds_survive_being_written(tmp_path: Path, world: str) -> None:
    (tmp_path / "world.json").write_text(json.dumps(as_document(read_world(world))))
    assert read_world(str(tmp_path / "world.json")) == read_world(world)


@pytest.mark.parametrize(
    ("event", "expected"),
    [
        ('{ "at": -1, "do": ["kill", "hostapd"] }', "events[0].at"),
        ('{ "at": 1 }', '"do" is missing'),
        ('{ "at": 1, "do": [] }', "events[0].do: begins with a command of vantora-simctl"),
        ('{ "at": 1, "do": ["--control", "x", "kill", "hostapd"] }', "events[0].do: begins with a command of vantora-simctl"),
        ('{ "at": 1, "do": ["kill", "everybody"] }', "invalid choice: 'everybody'"),
        ('{ "at": 1, "do": ["dance"] }', "invalid choice: 'dance'"),
        ('{ "at": 1, "do": ["show"] }', "events[0].do: show changes nothing"),
        ('{ "at": 1, "do": ["kill", "--help"] }', "events[0].do: asks for help"),
        ('{ "at": 1, "do": ["signal", "x", "loud"] }', "invalid int value: 'loud'"),
    ],
)
def test_an_event_that_cannot_be_is_refused_with_its_line(tmp_path: Path, event: str, expected: str) -> None:
    path = tmp_path / "world.json"
    path.write_text('{ "name": "x",\n  "events": [\n    ' + event + " ] }")
    with pytest.raises(WorldFileError) as error:
        read_world(str(path))
    assert expected in str(error.value) and f"{path}:3: " in str(error.value)


def test_without_the_desk_nothing_of_it_is_imported_and_nobody_listens(build_dir: Path) -> None:
    script = """
import os, sys
sys.path.insert(0, sys.argv[1])
from vantora_sim import cli
kept = cli._run_command
def look(device, command):
    assert not [name for name in sys.modules if name.startswith(("aiohttp", "vantora_sim.desk."))], "imported"
    inodes = {os.readlink(f"/proc/self/fd/{fd}") for fd in os.listdir("/proc/self/fd") if os.path.islink(f"/proc/self/fd/{fd}")}
    listening = [line for name in ("tcp", "tcp6") for line in open(f"/proc/net/{name}").read().splitlines()[1:]
                 if line.split()[3] == "0A" and f"socket:[{line.split()[9]}]" in inodes]
    assert not listening, listening
    return kept(device, command)
cli._run_command = look
sys.exit(cli.main(["--build-dir", sys.argv[2], "--", "true"]))
"""
    ran = subprocess.run(
        [sys.executable, "-c", script, ROOT / "simulator", build_dir], capture_output=True, text=True, timeout=120, check=False
    )
    assert ran.returncode == 0, ran.stderr


def test_the_desk_without_its_packages_says_which(build_dir: Path, tmp_path: Path) -> None:
    (tmp_path / "aiohttp.py").write_text("raise ModuleNotFoundError(\"No module named 'aiohttp'\", name='aiohttp')\n")
    script = "import sys; sys.path[:0] = sys.argv[1:3]; from vantora_sim.cli import main; sys.exit(main(['--desk', '--build-dir', sys.argv[3]]))"
    ran = subprocess.run(
        [sys.executable, "-c", script, tmp_path, ROOT / "simulator", build_dir],
        capture_output=True,
        text=True,
        timeout=120,
        check=False,
    )
    assert (ran.returncode, ran.stderr) == (
        1,
        "vantora-sim: the page needs the packages python3-aiohttp and libjs-chart.js (No module named 'aiohttp')\n",
    )
