"""The manual pages say what the programs themselves say: the same options and commands, no more and no fewer."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT
from simulated import PYTHON, SIMULATOR
from vantora_sim.words import NAMES

SIM = [PYTHON, str(SIMULATOR / "vantora-sim")]
SIMCTL = [PYTHON, str(SIMULATOR / "vantora-simctl")]


def manual(page: str) -> str:
    """The source of a page."""
    return (ROOT / f"packaging/man/{page}.scd").read_text()


def section(page: str, title: str) -> str:
    """One section of a page."""
    return manual(page).split(f"\n# {title}\n")[1].split("\n# ")[0]


def help_of(*command: str | Path) -> str:
    """What a program says about itself."""
    return subprocess.run([*command, "--help"], check=True, capture_output=True, text=True, timeout=60).stdout


def options_in(text: str) -> set[str]:
    """All options that a text names, in both forms, but for those of its code examples."""
    return set(re.findall(r"(?<![\w-])(--[a-z][a-z-]*|-[a-zA-Z])(?![\w-])", text))


def simctl_commands() -> dict[str, str]:
    """The commands of vantora-simctl with what each says about itself."""
    names = re.findall(r"(?m)^    ([a-z]+) ", help_of(*SIMCTL))
    return {name: help_of(*SIMCTL, name) for name in names}


def without_examples(page: str) -> str:
    """A page without the commands that it shows, which may be those of others."""
    return re.sub(r"(?s)\n# EXAMPLES\n.*?\n# ", "\n# ", manual(page))


def test_the_simulator_is_documented_option_by_option() -> None:
    told = help_of(*SIM) + help_of(*SIMCTL) + "".join(simctl_commands().values())
    assert options_in(without_examples("vantora-sim.1")) == options_in(told)


def test_what_changes_the_world_is_documented_command_by_command() -> None:
    text = section("vantora-sim.1", "COMMANDS OF VANTORA-SIMCTL")
    entries = "".join(line for line in text.splitlines(keepends=True) if not line.startswith("\t")).split("world file.\n", 1)[1]
    commands = simctl_commands()
    assert len(commands) == 14
    words = {
        choice
        for name in ("radio", "cable")
        for found in re.findall(r"\{([a-z,]+)\}", commands[name])
        for choice in found.split(",")
    }
    assert set(re.findall(r"\*([a-z]+)\*", entries)) == set(commands) | words
    assert all(f"*{name}*" in text for name in NAMES)


def test_shipped_worlds_are_documented() -> None:
    worlds = {path.stem for path in (SIMULATOR / "worlds").glob("*.json")}
    entry = re.search(r"(?s)\*--world\* _file_\n(.*?)\n\n", section("vantora-sim.1", "OPTIONS OF VANTORA-SIM"))
    assert entry and set(re.findall(r"\*([a-z-]+)\*", entry[1])) == worlds
    assert worlds <= set(re.findall(r"[a-z-]+", help_of(*SIM)))


@pytest.mark.parametrize(
    ("page", "program", "commands"),
    [
        ("vantora-doctor.1", "vantora-doctor", ["key"]),
        ("vantora-settingsd.8", "vantora-settingsd", []),
        ("vantora-wifi.1", "vantora-wifi", ["connect", "scan", "status"]),
    ],
)
def test_a_program_is_documented_option_by_option(build_dir: Path, page: str, program: str, commands: list[str]) -> None:
    told = help_of(build_dir / program) + "".join(help_of(build_dir / program, command) for command in commands)
    assert options_in(without_examples(page)) == options_in(told)


@pytest.mark.parametrize(
    ("page", "program"),
    [("vantora-doctor.1", "vantora-doctor"), ("vantora-settingsd.8", "vantora-settingsd"), ("vantora-wifi.1", "vantora-wifi")],
)
def test_exit_statuses_are_those_of_the_help(build_dir: Path, page: str, program: str) -> None:
    told = re.search(r"(?s)Exit status: (.*)", help_of(build_dir / program))
    assert told
    assert re.findall(r"(?m)^\*(\d+)\*$", section(page, "EXIT STATUS")) == re.findall(r"\b(\d+)\b(?!\))", told[1])


def test_the_settings_file_is_where_the_page_says(build_dir: Path) -> None:
    default = re.search(r"\(default: (/.*?)\)", help_of(build_dir / "vantora-settingsd"))
    assert default
    assert f"*{default[1]}*\n" in section("vantora-settingsd.8", "FILES") and default[1] in section(
        "vantora-settingsd.8", "OPTIONS"
    )
