"""The sources that faults are put into, and how they are compiled."""

from __future__ import annotations

import json
import os
import shlex

from run import Tree

FOLDERS = ("src/", "platform/", "client/", "doctor/", "support/")


def compile_flags(tree: Tree) -> dict[str, list[str]]:
    """The sources that mutants are made of, each with the flags that say where its headers are."""
    flags: dict[str, list[str]] = {}
    for file, command in compile_commands(tree).items():
        words = shlex.split(command)
        system = [word for flag, word in zip(words, words[1:]) if flag == "-isystem"]
        flags[file] = [word for word in words if word.startswith(("-I", "-D", "-std"))]
        flags[file] += [f"-I{folder}" for folder in system]
    return flags


def compile_commands(tree: Tree) -> dict[str, str]:
    """Source -> how it is compiled, for the sources that mutants are made of."""
    entries = json.loads((tree.build / "compile_commands.json").read_text())
    commands = {os.path.relpath(entry["file"], tree.folder): entry["command"] for entry in entries}
    return {file: command for file, command in commands.items() if file.startswith(FOLDERS)}


def object_of(command: str) -> str:
    """What a source is compiled to, below the build's folder."""
    words = shlex.split(command)
    return words[words.index("-o") + 1]
