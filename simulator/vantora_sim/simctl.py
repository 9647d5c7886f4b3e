"""The command `vantora-simctl`: changes the world of a running vantora-sim."""

from __future__ import annotations

import json
import os
import socket
import sys
import tempfile
from pathlib import Path
from typing import Any

from .control import CONTROL_SOCKET
from .state import as_text
from .words import CONTROL_VARIABLE, make_parser, request_of
from .world import WORK_PREFIX

_FAILED = 1
_NOT_RUNNING = 3
_TIME_OUT = 60


class NotRunning(Exception):
    """No device can be reached; the text says why."""


def find_device() -> Path:
    """The control socket of the only device of this user."""
    if CONTROL_VARIABLE in os.environ:
        return Path(os.environ[CONTROL_VARIABLE])
    found = sorted(
        {
            path
            for folder in _folders()
            for path in folder.glob(f"{WORK_PREFIX}*/{CONTROL_SOCKET}")
            if path.parent.stat().st_uid == os.geteuid() and _answers(path)
        }
    )
    if not found:
        raise NotRunning("no vantora-sim of this user is running")
    if len(found) > 1:
        raise NotRunning("several are running, choose one with --control: " + " ".join(map(str, found)))
    return found[0]


def _folders() -> set[Path]:
    """Where devices have their work folders."""
    return {Path(tempfile.gettempdir()), Path("/tmp")}


def _answers(path: Path) -> bool:
    with socket.socket(socket.AF_UNIX) as connection:
        try:
            connection.connect(str(path))
        except OSError:
            return False
        return True


def ask(path: Path, request: dict[str, Any]) -> dict[str, Any]:
    """Send a request and return the answer. Raises NotRunning."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(_TIME_OUT)
        try:
            connection.connect(str(path))
            connection.sendall(json.dumps(request).encode() + b"\n")
            with connection.makefile("rb") as reader:
                line = reader.readline()
        except OSError as error:
            raise NotRunning(f"{path}: {error.strerror or error}") from None
    if not line:
        raise NotRunning(f"{path}: the device has ended")
    answer: dict[str, Any] = json.loads(line)
    return answer


def main(argv: list[str]) -> int:
    """Run the command line; returns the exit status."""
    options = make_parser().parse_args(argv)
    try:
        answer = ask(options.control or find_device(), request_of(options))
    except NotRunning as error:
        print(f"vantora-simctl: {error}", file=sys.stderr)
        return _NOT_RUNNING
    if "error" in answer:
        print(f"vantora-simctl: {answer['error']}", file=sys.stderr)
        return _FAILED
    if options.command == "show" and not options.json:
        print(as_text(json.loads(answer["text"])))
    else:
        print(answer["text"])
    return 0
