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

BASH = ROOT / "packaging/completions/vantora-wifi.bash"
ZSH = ROOT / "packaging/completions/_vantora-wifi"
COMMANDS = ["status", "on", "off", "mode", "band", "ssid", "scan", "connect", "disconnect", "monitor"]


def bash_offers(*words: str) -> set[str]:
    """What bash offers for the last of these words."""
    script = f'source {BASH}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vantora_wifi; printf "%s\\n" "${{COMPREPLY[@]}}"'
    completed = subprocess.run(
        ["/bin/bash", "--norc", "-c", script, "bash", "vantora-wifi", *words],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert completed.stderr == ""
    return set(completed.stdout.split())


def help_of(build_dir: Path, *words: str) -> str:
    """What the program says about itself."""
    return subprocess.run(
        [build_dir / "vantora-wifi", *words, "--help"], check=True, capture_output=True, text=True, timeout=60
    ).stdout


@pytest.mark.parametrize(
    ("words", "offers"),
    [
        ([""], set(COMMANDS)),
        (["s"], {"status", "ssid", "scan"}),
        (["--json", "con"], {"connect"}),
        (["--timeout", ""], set()),
        (["--timeout", "5", "mon"], {"monitor"}),
        (["--"], {"--json", "--timeout", "--help", "--version"}),
        (["mode", ""], {"host", "client"}),
        (["mode", "h"], {"host"}),
        (["band", ""], {"2.4", "5"}),
        (["band", "5", ""], set()),
        (["ssid", ""], set()),
        (["connect", ""], set()),
        (["connect", "cafe", "--pass"], {"--passphrase-file", "--passphrase-stdin"}),
        (["connect", "--o"], {"--open"}),
        (["connect", "--f"], {"--force"}),
        (["status", "--o"], set()),
        (["status", "--w"], {"--watch"}),
        (["scan", "--n"], {"--names"}),
        (["connect", "--open", "--", "-"], set()),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else "offers",
)
def test_bash_offers_what_fits(words: list[str], offers: set[str]) -> None:
    assert bash_offers(*words) == offers


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
def test_bash_offers_the_names_in_range(
    networks: Path, monkeypatch: pytest.MonkeyPatch, words: list[str], offers: set[str]
) -> None:
    monkeypatch.setenv("PATH", f"{networks}:/usr/bin:/bin")
    monkeypatch.setenv("LC_ALL", "C.UTF-8")
    script = f'source {BASH}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vantora_wifi; printf "%s\\n" "${{COMPREPLY[@]}}"'
    completed = subprocess.run(
        ["/bin/bash", "--norc", "-c", script, "bash", "vantora-wifi", *words],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert (set(filter(None, completed.stdout.splitlines())), completed.stderr) == (offers, "")


def test_zsh_offers_the_names_in_range(networks: Path, tmp_path: Path) -> None:
    assert zsh_completes(tmp_path, "vantora-wifi connect hot", networks) == "connect hot spot"


SIMCTL_BASH = ROOT / "packaging/completions/vantora-simctl.bash"
SIMCTL_ZSH = ROOT / "packaging/completions/_vantora-simctl"


@pytest.mark.parametrize(
    ("words", "offers"),
    [
        (["jo"], {"join"}),
        (["r"], {"remove", "release", "radio"}),
        (["kill", "vantora-n"], {"vantora-network"}),
        (["radio", ""], {"block", "unblock"}),
        (["radio", "block", ""], set()),
        (["cable", "p"], {"plug"}),
        (["add", "x", "--sec"], {"--security"}),
        (["add", "x", "--security", "wpa3"], {"wpa3"}),
        (["join", ""], set()),
        (["--control", "/no/such", "sh"], {"show"}),
        (["set", "network.m"], {"network.mode"}),
        (["show", "--j"], {"--json"}),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else "offers",
)
def test_bash_completes_the_worlds_commands(words: list[str], offers: set[str]) -> None:
    script = (
        f'source {SIMCTL_BASH}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vantora_simctl; printf "%s\\n" "${{COMPREPLY[@]}}"'
    )
    completed = subprocess.run(
        ["/bin/bash", "--norc", "-c", script, "bash", "vantora-simctl", *words],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert (set(completed.stdout.split()), completed.stderr) == (offers, "")


@pytest.mark.parametrize(
    ("typed", "completed"),
    [
        ("vantora-simctl jo", "join"),
        ("vantora-simctl kill vantora-n", "kill vantora-network"),
        ("vantora-simctl radio unb", "radio unblock"),
        ("vantora-simctl add x --hid", "add x --hidden"),
    ],
)
def test_zsh_completes_the_worlds_commands(tmp_path: Path, typed: str, completed: str) -> None:
    assert zsh_completes(tmp_path, typed) == completed


def test_completions_know_every_command_and_option_of_the_world() -> None:
    def help_of_simctl(*words: str) -> str:
        return subprocess.run(
            [PYTHON, ROOT / "simulator/vantora-simctl", *words, "--help"],
            check=True,
            capture_output=True,
            text=True,
            timeout=60,
        ).stdout

    commands = re.findall(r"(?m)^    ([a-z]+) ", help_of_simctl())
    options = set(re.findall(r"--[a-z-]+", "".join(help_of_simctl(command) for command in commands)))
    assert "join" in commands and "--no-dhcp" in options
    for text in (SIMCTL_BASH.read_text(), SIMCTL_ZSH.read_text()):
        for word in [*commands, *options, *NAMES]:
            assert re.search(rf"(?<![a-z]){word}(?![a-z-])", text), word


DOCTOR_BASH = ROOT / "packaging/completions/vantora-doctor.bash"
DOCTOR_ZSH = ROOT / "packaging/completions/_vantora-doctor"


@pytest.mark.parametrize(
    ("words", "offers"),
    [
        ([""], {"key"}),
        (["--"], {"--fix", "--json", "--report", "--help", "--version"}),
        (["--json", "--f"], {"--fix"}),
        (["key", ""], set()),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else "offers",
)
def test_bash_completes_the_doctors_words(words: list[str], offers: set[str]) -> None:
    script = (
        f'source {DOCTOR_BASH}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vantora_doctor; printf "%s\\n" "${{COMPREPLY[@]}}"'
    )
    completed = subprocess.run(
        ["/bin/bash", "--norc", "-c", script, "bash", "vantora-doctor", *words],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert (set(completed.stdout.split()), completed.stderr) == (offers, "")


@pytest.mark.parametrize(("typed", "completed"), [("vantora-doctor ke", "key"), ("vantora-doctor --rep", "--report")])
def test_zsh_completes_the_doctors_words(tmp_path: Path, typed: str, completed: str) -> None:
    assert zsh_completes(tmp_path, typed) == completed


def test_completions_know_every_option_of_the_doctor(build_dir: Path) -> None:
    told = subprocess.run(
        [build_dir / "vantora-doctor", "--help"], check=True, capture_output=True, text=True, timeout=60
    ).stdout
    for text in (DOCTOR_BASH.read_text(), DOCTOR_ZSH.read_text()):
        assert set(re.findall(r"--[a-z]+", told)) <= set(re.findall(r"--[a-z]+", text))


def zsh_completes(tmp_path: Path, typed: str, tools: Path | None = None) -> str:
    """What zsh makes of a line after the tab key."""
    (tmp_path / ".zshrc").write_text(
        f"fpath=({ZSH.parent} $fpath)\nPS1='> '\nunsetopt zle_bracketed_paste prompt_sp 2>/dev/null\n"
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


@pytest.mark.parametrize(
    ("typed", "completed"),
    [
        ("vantora-wifi stat", "status"),
        ("vantora-wifi disc", "disconnect"),
        ("vantora-wifi mode cl", "mode client"),
        ("vantora-wifi band 2", "band 2.4"),
        ("vantora-wifi --js", "--json"),
        ("vantora-wifi connect cafe --op", "connect cafe --open"),
    ],
)
def test_zsh_completes_what_fits(tmp_path: Path, typed: str, completed: str) -> None:
    assert zsh_completes(tmp_path, typed) == completed


def test_completions_and_manual_know_every_command_and_option(build_dir: Path) -> None:
    manual = (ROOT / "packaging/man/vantora-wifi.1.scd").read_text()
    general = help_of(build_dir)
    commands = re.findall(r"(?m)^  ([a-z]+) ", general.split("Subcommands:")[1])
    assert commands == COMMANDS
    options = set(re.findall(r"--[a-z-]+", general + "".join(help_of(build_dir, command) for command in commands)))
    for text in (BASH.read_text(), ZSH.read_text(), manual):
        for command in commands:
            assert re.search(rf"\b{command}\b", text), command
        for option in options:
            assert option in text, option
