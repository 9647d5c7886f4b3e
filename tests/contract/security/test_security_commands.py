"""Which command lines the sources hold: those of the table in docs/security.md, and no other."""

from __future__ import annotations

import re
from collections.abc import Iterator
from pathlib import Path

from command_table import listed_commands, runnable_lines
from conftest import ROOT

SRC = ROOT / "src"
RUNNERS = re.compile(r"\b(?:shell_run|utils_do_system_call|ShellPipe(?:\s+\w+)?)\s*[({]")
RUNNER_NAMES = re.compile(r"\b(?:shell_run|utils_do_system_call|ShellPipe)\b")
PROCESS_MAKERS = re.compile(r"\b(?:system|popen|posix_spawnp?|v?fork|clone3?|exec(?:l|lp|le|v|vp|ve|vpe|veat)|wordexp)\s*\(")
LITERAL = re.compile(r'R"\((.*?)\)"|"((?:[^"\\]|\\.)*)"', re.S)
COMMENT = re.compile(r"/\*.*?\*/|//[^\n]*", re.S)

PASSED_ON = {("utils/shell_commands.cpp", "command")}
"""Where a runner passes on what it was given, to the runner below it: file and argument."""


def sources() -> Iterator[tuple[str, str]]:
    """Name and text of every source and header, without comments."""
    for path in sorted(SRC.rglob("*.[ch]pp")):
        yield str(path.relative_to(SRC)), COMMENT.sub("", path.read_text())


def arguments_from(text: str, start: int) -> str:
    """What stands between the bracket before `start` and the one that closes it."""
    depth, position = 1, start
    while depth:
        literal = LITERAL.match(text, position)
        if literal:
            position = literal.end()
            continue
        depth += {"(": 1, "{": 1, ")": -1, "}": -1}.get(text[position], 0)
        position += 1
    return " ".join(text[start : position - 1].split())


def value_of(literal: re.Match[str]) -> str:
    """The text that a literal stands for."""
    return literal[1] if literal[1] is not None else literal[2].encode().decode("unicode_escape")


def commands_in(expression: str, text: str) -> list[str]:
    """The command lines that an argument can be, variable parts as <name>; empty when it cannot be told."""
    if match := re.fullmatch(r"(\w+)\.data\(\)", expression):
        return formatted(match[1], text)
    commands: list[str] = []
    branches = re.fullmatch(r"\w+ \? (.+) : (.+)", expression)
    for branch in branches.groups() if branches else [expression]:
        command, rest = "", branch
        while rest:
            literal, name = LITERAL.match(rest), re.match(r"\w+", rest)
            if literal:
                command, rest = command + value_of(literal), rest[literal.end() :]
            elif name:
                command, rest = f"{command}<{name[0]}>", rest[name.end() :]
            else:
                return []
            rest = re.sub(r"^\s*\+\s*|^\s+", "", rest)
        if not LITERAL.search(branch):
            return []
        commands.append(command)
    return commands


def formatted(buffer: str, text: str) -> list[str]:
    """What snprintf puts into a buffer."""
    found = []
    for call in re.finditer(rf"snprintf\({buffer}\.data\(\), {buffer}\.size\(\),\s*", text):
        arguments = arguments_from(text, call.end())
        literal = LITERAL.match(arguments)
        assert literal
        text_of = value_of(literal)
        for name in re.findall(r"(\w+)\.c_str\(\)", arguments[literal.end() :]):
            text_of = text_of.replace("%s", f"<{name}>", 1)
        found.append(text_of)
    return found


def commands_of_the_sources() -> set[tuple[str, str]]:
    """Command line and file of every place where a command is run."""
    found: set[tuple[str, str]] = set()
    for name, text in sources():
        if name.startswith("utils/shell_process."):
            continue
        code = LITERAL.sub('""', text)
        assert len(RUNNER_NAMES.findall(code)) == len(RUNNERS.findall(code)), f"{name} names a runner without calling it"
        for call in RUNNERS.finditer(text):
            expression = arguments_from(text, call.end())
            if (name, expression) in PASSED_ON or expression.startswith("const std::string& command"):
                continue
            commands = commands_in(expression, text)
            assert commands, f"{name}: it cannot be told what is run by {call[0]}{expression})"
            found.update((command, name) for command in commands)
    return found


def test_every_command_line_of_the_sources_is_in_the_table_and_no_other() -> None:
    assert commands_of_the_sources() == {(listed.line, listed.where) for listed in listed_commands()}


def test_the_table_explains_every_variable_part() -> None:
    for listed in listed_commands():
        parts = re.findall(r"<\w+>", listed.line)
        assert re.findall(r"`(<\w+>)`", listed.variable) == parts
        assert listed.never_run or len(listed.constants) == len(parts)
    assert len(runnable_lines()) == 8


def test_processes_are_made_in_one_place_only() -> None:
    makers = {(name, match[0].rstrip("(").strip()) for name, text in sources() for match in PROCESS_MAKERS.finditer(text)}
    assert makers == {("utils/shell_process.cpp", "posix_spawn")}
    libraries = (ROOT / "platform").rglob("*.[ch]pp")
    assert [path for path in libraries if PROCESS_MAKERS.search(COMMENT.sub("", path.read_text()))] == []


def test_the_address_that_is_added_is_the_constant_of_the_table() -> None:
    given = [
        (name, arguments_from(text, match.end()))
        for name, text in sources()
        for match in re.finditer(r"\butils_add_ip\(", text)
    ]
    assert sorted(given) == [
        ("radio/wifi_controller.cpp", "kAccessPointAddress"),
        *[(f"utils/shell_commands.{kind}", "const std::string& address") for kind in ("cpp", "hpp")],
    ]
    defined = re.findall(r'kAccessPointAddress = "([^"]+)"', (SRC / "radio/wifi_controller.cpp").read_text())
    assert [defined] == [listed.constants for listed in listed_commands() if "<address>" in listed.line]


def test_the_command_that_quotes_nothing_is_neither_called_nor_in_the_program(build_dir: Path) -> None:
    users = [name for name, text in sources() if re.search(r"wpa_supplicant_(configure|gen_passphrase)\(", text)]
    assert users == [f"radio/wpa_supplicant_config_file.{kind}" for kind in ("cpp", "hpp")]
    program = (build_dir / "vantora-network").read_bytes()
    assert b"Stoping UDHCP client service" in program  # texts can be found in it
    assert b"wpa_passphrase" not in program
