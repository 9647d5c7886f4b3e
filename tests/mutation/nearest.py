"""Which tests are asked about a source, and in which order: the nearest first, since the first that fails ends it."""

from __future__ import annotations

import os
import re
from functools import cache
from pathlib import Path

from run import Tree, run
from sources import FOLDERS, compile_commands, object_of

ROOMS = {
    "src/core": ("core", "faults"),
    "src/config": ("config", "core"),
    "src/radio": ("radio", "core"),
    "src/listeners": ("listeners", "core"),
    "src/utils": ("utils", "core"),
    "src/main.cpp": ("core",),
    "client": ("client",),
    "doctor": ("doctor",),
    "platform/settingsd": ("config", "faults"),
    "platform/korrin-info": ("core",),
    "platform/dbus-helper": ("config", "listeners"),
    "support": ("core", "faults"),
}
"""Contract tests' folders, nearest first, for the folders of the code."""
WORDS = {
    "client/arguments": "settings status",
    "client/con": "joining",
    "client/daemon": "joining status",
    "client/daemon_signals": "signals",
    "client/disconnect": "joining",
    "client/failure": "status settings",
    "client/follower": "screen truth",
    "client/interrupts": "joining scan",
    "client/join": "joining",
    "client/main": "status settings",
    "client/network": "joining scan",
    "client/output": "truth status",
    "client/passphrase": "joining",
    "client/properties": "signals status",
    "client/setting": "settings",
    "client/settings": "settings truth",
    "client/signal_bars": "scan",
    "client/t": "status scan",
    "client/values": "signals status",
    "client/watch": "truth",
    "client/whose_bus": "truth",
    "client/words": "joining",
}
"""What the client's contract tests call what is in a source, by the beginning of its path: they go by command, and it does not."""
ELSEWHERE = {
    "src/core/client_operations.cpp": ("core/test_station_connect.py", "core/test_station_scan_disconnect.py"),
    "src/main.cpp": ("core/test_deferred_startup.py", "security/test_security_files.py"),
    "client/scan.cpp": ("client/test_client_scan.py", "client/test_client_truth.py"),
    "src/radio/wpa_supplicant.cpp": ("core/test_station_connect.py", "core/test_station_scan_disconnect.py"),
    "src/utils/interface_queries.cpp": ("core/test_wired_dhcp_server.py", "utils/test_interface_queries.py"),
    "client/main.cpp": ("client/test_client_status.py", "client/test_client_truth.py"),
    "client/passphrase.cpp": ("client/test_client_joining.py", "client/test_client_truth.py"),
}
"""The nearest contract tests of those sources that neither room nor words lead to."""
UNIT_TESTS = "tests/unit/"


def nearness(file: str, name: str) -> int:
    """How many words a source's name and a test's have in common, as a key that sorts the most first."""
    more = next((WORDS[begin] for begin in sorted(WORDS, reverse=True) if file.startswith(begin)), "")
    return -len(
        {*re.split(r"[/_.\-]", file), *more.split()} & set(re.split(r"[/_.\-]", name)) - {"cpp", "test", "py", "src", "tests"}
    )


def contract_files(tree: Tree, file: str) -> list[Path]:
    """All contract tests: those of a source's rooms first, and of these those with most words in common with its path."""
    rooms = next((rooms for folder, rooms in ROOMS.items() if file.startswith(folder)), ())

    def distance(path: Path) -> tuple[int, int, str]:
        room = path.parent.name
        if f"{room}/{path.name}" in ELSEWHERE.get(file, ()):
            return (-1, 0, path.name)
        return (rooms.index(room), nearness(file, path.name), path.name) if room in rooms else (len(rooms), 0, str(path))

    return sorted((tree.folder / "tests/contract").glob("*/test_*.py"), key=distance)


def unit_programs(tree: Tree) -> dict[str, list[str]]:
    """Source -> unit test programs that hold a function of it, or run a program that does, nearest first.

    A library is linked into more programs than take something out of it, and what the linker has left out of a program cannot fail
    there.
    """
    texts = {file: functions_of(tree, command) for file, command in compile_commands(tree).items()}
    found: dict[str, list[str]] = {file: [] for file in texts}
    for path in sorted((tree.build / UNIT_TESTS).iterdir()):
        if not (path.is_file() and os.access(path, os.X_OK)):
            continue
        inputs = run(["ninja", "-C", str(tree.build), "-t", "inputs", UNIT_TESTS + path.name], tree.folder).stdout.splitlines()
        held = symbols(path)
        for started in inputs:
            program = tree.build / started.strip()
            if program.parent == tree.build and program.is_file() and os.access(program, os.X_OK):
                held |= symbols(program)
        linked = {os.path.relpath(line.strip(), tree.folder) for line in inputs if line.strip().endswith(".cpp")}
        for file in linked:
            if file.startswith(FOLDERS) and texts[file] & held:
                found[file].append(path.name)
    return {file: sorted(names, key=lambda name, file=file: (nearness(file, name), name)) for file, names in found.items()}


def functions_of(tree: Tree, command: str) -> frozenset[str]:
    """The functions that a source's object offers."""
    return symbols(tree.build / object_of(command))


@cache
def symbols(path: Path) -> frozenset[str]:
    """The functions with a name of their own in an object or a program."""
    lines = run(["nm", "--defined-only", str(path)], path.parent).stdout.splitlines()
    return frozenset(words[2] for words in map(str.split, lines) if len(words) == 3 and words[1] == "T")
