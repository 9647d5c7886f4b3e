"""Completion of the client's command line in bash and zsh: the real shells, and agreement with the program's own help."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT
from wifi_client import Running

BASH = ROOT / "packaging/completions/vantora-wifi.bash"
ZSH = ROOT / "packaging/completions/_vantora-wifi"
COMMANDS = ["status", "on", "off", "mode", "band", "ssid", "scan", "connect", "disconnect", "monitor"]


def bash_offers(*words: str) -> set[str]:
    """What bash offers for the last of these words."""
    script = f'source {BASH}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vantora_wifi; printf "%s\\n" "${{COMPREPLY[@]}}"'
    completed = subprocess.run(["/bin/bash", "--norc", "-c", script, "bash", "vantora-wifi", *words], check=True,
                               capture_output=True, text=True, timeout=60)
    assert completed.stderr == ""
    return set(completed.stdout.split())


def help_of(build_dir: Path, *words: str) -> str:
    """What the program says about itself."""
    return subprocess.run([build_dir / "vantora-wifi", *words, "--help"], check=True, capture_output=True, text=True,
                          timeout=60).stdout


@pytest.mark.parametrize(("words", "offers"), [
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
    (["status", "--o"], set()),
    (["connect", "--open", "--", "-"], set())], ids=lambda value: " ".join(value) if isinstance(value, list) else "offers")
def test_bash_offers_what_fits(words: list[str], offers: set[str]) -> None:
    assert bash_offers(*words) == offers


def test_bash_offers_files_for_the_passphrase(tmp_path: Path) -> None:
    (tmp_path / "my-passphrase").write_text("x")
    assert bash_offers("connect", "--passphrase-file", f"{tmp_path}/my") == {f"{tmp_path}/my-passphrase"}


def zsh_completes(tmp_path: Path, typed: str) -> str:
    """What zsh makes of a line after the tab key."""
    (tmp_path / ".zshrc").write_text(
        f"fpath=({ZSH.parent} $fpath)\nPS1='> '\nunsetopt zle_bracketed_paste prompt_sp 2>/dev/null\n"
        f"autoload -Uz compinit && compinit -u -d {tmp_path}/dump\nvantora-wifi() {{ print -r -- \"RAN[$*]\"; exit 0 }}\n"
        "print READY\n")
    with Running(["/usr/bin/zsh", "-i"], {"PATH": "/usr/bin:/bin", "HOME": str(tmp_path), "ZDOTDIR": str(tmp_path),
                                          "TERM": "dumb", "LC_ALL": "C.UTF-8"}, terminal=True) as shell:
        shell.wait_for("READY")
        shell.wait_for("> ")
        shell.type(typed + "\t\n")
        ran = shell.wait_until(lambda text: re.search(r"(?m)^RAN\[(.*)\]", text), "command run")
        shell.end()
    return str(ran[1])


@pytest.mark.parametrize(("typed", "completed"), [
    ("vantora-wifi stat", "status"), ("vantora-wifi disc", "disconnect"), ("vantora-wifi mode cl", "mode client"),
    ("vantora-wifi band 2", "band 2.4"), ("vantora-wifi --js", "--json"),
    ("vantora-wifi connect cafe --op", "connect cafe --open")])
def test_zsh_completes_what_fits(tmp_path: Path, typed: str, completed: str) -> None:
    assert zsh_completes(tmp_path, typed) == completed


def test_completions_and_manual_know_every_command_and_option(build_dir: Path) -> None:
    manual = (ROOT / "packaging/man/vantora-wifi.1.scd").read_text()
    general = help_of(build_dir)
    commands = re.findall(r"(?m)^  ([a-z]+) ", general.split("Subcommands:")[1])
    assert commands == COMMANDS
    options = set(re.findall(r"--[a-z-]+", general + help_of(build_dir, "connect")))
    for text in (BASH.read_text(), ZSH.read_text(), manual):
        for command in commands:
            assert re.search(rf"\b{command}\b", text), command
        for option in options:
            assert option in text, option
