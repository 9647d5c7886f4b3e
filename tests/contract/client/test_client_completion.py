"""Completion of the client's command line in bash and zsh: the real shells, and agreement with the program's own help."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT
from simulated import PYTHON
from vantora_sim.words import NAMES
from wifi_client import Running

COMPLETIONS = ROOT / "packaging/completions"
COMMANDS = ["status", "on", "off", "mode", "band", "ssid", "scan", "connect", "disconnect", "monitor"]


def bash_offers(*words: str, program: str = "vantora-wifi", environment: dict[str, str] | None = None) -> set[str]:
    """What bash offers for the last of these words behind the program."""
    script = (
        f'source {COMPLETIONS}/{program}.bash; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _{program.replace("-", "_")}; '
        'printf "%s\\n" "${COMPREPLY[@]}"'
    )
    completed = subprocess.run(
        ["/bin/bash", "--norc", "-c", script, "bash", program, *words],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
        env=environment,
    )
    assert completed.stderr == ""
    return set(filter(None, completed.stdout.splitlines()))


def scripts_of(program: str) -> list[str]:
    """The texts of the scripts for both shells."""
    return [(COMPLETIONS / name).read_text() for name in (f"{program}.bash", f"_{program}")]


def help_of(*words: str | Path) -> str:
    """What a program says about itself."""
    return subprocess.run([*words, "--help"], check=True, capture_output=True, text=True, timeout=60).stdout


@pytest.mark.parametrize(
    ("program", "words", "offers"),
    [
        ("vantora-wifi", [""], set(COMMANDS)),
        ("vantora-wifi", ["s"], {"status", "ssid", "scan"}),
        ("vantora-wifi", ["--json", "con"], {"connect"}),
        ("vantora-wifi", ["--timeout", ""], set()),
        ("vantora-wifi", ["--timeout", "5", "mon"], {"monitor"}),
        ("vantora-wifi", ["--"], {"--json", "--timeout", "--help", "--version"}),
        ("vantora-wifi", ["mode", ""], {"host", "client"}),
        ("vantora-wifi", ["mode", "h"], {"host"}),
        ("vantora-wifi", ["band", ""], {"2.4", "5"}),
        ("vantora-wifi", ["band", "5", ""], set()),
        ("vantora-wifi", ["ssid", ""], set()),
        ("vantora-wifi", ["connect", ""], set()),
        ("vantora-wifi", ["connect", "cafe", "--pass"], {"--passphrase-file", "--passphrase-stdin"}),
        ("vantora-wifi", ["connect", "--o"], {"--open"}),
        ("vantora-wifi", ["connect", "--f"], {"--force"}),
        ("vantora-wifi", ["status", "--o"], set()),
        ("vantora-wifi", ["status", "--w"], {"--watch"}),
        ("vantora-wifi", ["scan", "--n"], {"--names"}),
        ("vantora-wifi", ["connect", "--open", "--", "-"], set()),
        ("vantora-simctl", ["jo"], {"join"}),
        ("vantora-simctl", ["r"], {"remove", "release", "radio"}),
        ("vantora-simctl", ["kill", "vantora-n"], {"vantora-network"}),
        ("vantora-simctl", ["radio", ""], {"block", "unblock"}),
        ("vantora-simctl", ["radio", "block", ""], set()),
        ("vantora-simctl", ["cable", "p"], {"plug"}),
        ("vantora-simctl", ["add", "x", "--sec"], {"--security"}),
        ("vantora-simctl", ["add", "x", "--security", "wpa3"], {"wpa3"}),
        ("vantora-simctl", ["join", ""], set()),
        ("vantora-simctl", ["--control", "/no/such", "sh"], {"show"}),
        ("vantora-simctl", ["set", "network.m"], {"network.mode"}),
        ("vantora-simctl", ["show", "--j"], {"--json"}),
        ("vantora-doctor", [""], {"key"}),
        ("vantora-doctor", ["--"], {"--fix", "--json", "--report", "--help", "--version"}),
        ("vantora-doctor", ["--json", "--f"], {"--fix"}),
        ("vantora-doctor", ["key", ""], set()),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else "offers" if isinstance(value, set) else value,
)
def test_bash_offers_what_fits(program: str, words: list[str], offers: set[str]) -> None:
    assert bash_offers(*words, program=program) == offers


@pytest.mark.parametrize(
    ("typed", "completed"),
    [
        ("vantora-wifi stat", "status"),
        ("vantora-wifi disc", "disconnect"),
        ("vantora-wifi mode cl", "mode client"),
        ("vantora-wifi band 2", "band 2.4"),
        ("vantora-wifi --js", "--json"),
        ("vantora-wifi connect cafe --op", "connect cafe --open"),
        ("vantora-simctl jo", "join"),
        ("vantora-simctl kill vantora-n", "kill vantora-network"),
        ("vantora-simctl radio unb", "radio unblock"),
        ("vantora-simctl add x --hid", "add x --hidden"),
        ("vantora-doctor ke", "key"),
        ("vantora-doctor --rep", "--report"),
    ],
)
def test_zsh_completes_what_fits(tmp_path: Path, typed: str, completed: str) -> None:
    assert zsh_completes(tmp_path, typed) == completed


def test_bash_offers_files_for_the_passphrase(tmp_path: Path) -> None:
    (tmp_path / "my-passphrase").write_text("x")
    assert bash_offers("connect", "--passphrase-file", f"{tmp_path}/my") == {f"{tmp_path}/my-passphrase"}


@pytest.fixture
def networks(tmp_path: Path) -> Path:
    """A folder with a vantora-wifi in it that knows some networks."""
    program = tmp_path / "bin/vantora-wifi"
    program.parent.mkdir()
    program.write_text(
        "#!/bin/sh\n[ \"$*\" = \"--timeout 2 scan --names\" ] && printf '%s\\n' home \"Café & Söhne\" 'hot spot' '-x'\n"
    )
    program.chmod(0o755)
    return program.parent


@pytest.mark.parametrize(
    ("words", "offers"),
    [
        (["connect", ""], {"home", r"Café\ \&\ Söhne", r"hot\ spot", "-x"}),
        (["connect", "ho"], {"home", r"hot\ spot"}),
        (["connect", r"hot\ s"], {r"hot\ spot"}),
        (["connect", '"hot'], {r"hot\ spot"}),
        (["connect", "--open", "hom"], {"home"}),
        (["connect", "home", ""], set()),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else "offers",
)
def test_bash_offers_the_names_in_range(networks: Path, words: list[str], offers: set[str]) -> None:
    assert bash_offers(*words, environment={"PATH": f"{networks}:/usr/bin:/bin", "LC_ALL": "C.UTF-8"}) == offers


def test_zsh_offers_the_names_in_range(networks: Path, tmp_path: Path) -> None:
    assert zsh_completes(tmp_path, "vantora-wifi connect hot", networks) == "connect hot spot"


def test_completions_know_every_command_and_option_of_the_world() -> None:
    simctl = ROOT / "simulator/vantora-simctl"
    commands = re.findall(r"(?m)^    ([a-z]+) ", help_of(PYTHON, simctl))
    options = set(re.findall(r"--[a-z-]+", "".join(help_of(PYTHON, simctl, command) for command in commands)))
    assert "join" in commands and "--no-dhcp" in options
    for text in scripts_of("vantora-simctl"):
        for word in [*commands, *options, *NAMES]:
            assert re.search(rf"(?<![a-z]){word}(?![a-z-])", text), word


def test_completions_know_every_option_of_the_doctor(build_dir: Path) -> None:
    told = help_of(build_dir / "vantora-doctor")
    for text in scripts_of("vantora-doctor"):
        assert set(re.findall(r"--[a-z]+", told)) <= set(re.findall(r"--[a-z]+", text))


def zsh_completes(tmp_path: Path, typed: str, tools: Path | None = None) -> str:
    """What zsh makes of a line after the tab key."""
    (tmp_path / ".zshrc").write_text(
        f"fpath=({COMPLETIONS} $fpath)\nPS1='> '\nunsetopt zle_bracketed_paste prompt_sp 2>/dev/null\n"
        f'autoload -Uz compinit && compinit -u -d {tmp_path}/dump\naccept() {{ print; print -r -- "RAN[${{(Q)${{(z)BUFFER}}[2,-1]}}]"; exit 0 }}\n'
        "zle -N accept-line accept\n"
        "print READY\n"
    )
    with Running(
        ["/usr/bin/zsh", "-i"],
        {
            "PATH": f"{tools}:/usr/bin:/bin" if tools else "/usr/bin:/bin",
            "HOME": str(tmp_path),
            "ZDOTDIR": str(tmp_path),
            "TERM": "dumb",
            "LC_ALL": "C.UTF-8",
        },
        terminal=True,
    ) as shell:
        shell.wait_for("READY")
        shell.wait_for("> ")
        shell.type(typed + "\t\n")
        ran = shell.wait_until(lambda text: re.search(r"(?m)^RAN\[(.*)\]", text), "command run")
        shell.end()
    return str(ran[1])


def test_completions_and_manual_know_every_command_and_option(build_dir: Path) -> None:
    manual = (ROOT / "packaging/man/vantora-wifi.1.scd").read_text()
    general = help_of(build_dir / "vantora-wifi")
    commands = re.findall(r"(?m)^  ([a-z]+) ", general.split("Subcommands:")[1])
    assert commands == COMMANDS
    options = set(
        re.findall(r"--[a-z-]+", general + "".join(help_of(build_dir / "vantora-wifi", command) for command in commands))
    )
    for text in (*scripts_of("vantora-wifi"), manual):
        for command in commands:
            assert re.search(rf"\b{command}\b", text), command
        for option in options:
            assert option in text, option
