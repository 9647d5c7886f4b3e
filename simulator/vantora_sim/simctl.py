"""The command `vantora-simctl`: changes the world of a running vantora-sim."""

from __future__ import annotations

import argparse
import json
import os
import socket
import sys
import tempfile
from pathlib import Path
from typing import Any

from .control import CONTROL_SOCKET, CONTROL_VARIABLE
from .neighbours import NAMES
from .state import as_text
from .world import WORK_PREFIX

_FAILED = 1
_NOT_RUNNING = 3
_TIME_OUT = 60
_NETWORK = "name (SSID) or address (BSSID)"


class NotRunning(Exception):
    """No device can be reached; the text says why."""


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="vantora-simctl", description="Changes the world of a running vantora-sim.")
    parser.add_argument("--control", type=Path, metavar="SOCKET",
                        help=f"control socket of the device (default: ${CONTROL_VARIABLE}, else that of the only device of "
                             "this user)")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")

    show = commands.add_parser("show", help="show how things really are")
    show.add_argument("--json", action="store_true", help="as one JSON object")

    add = commands.add_parser("add", help="put a network on the air")
    add.add_argument("ssid", metavar="SSID")
    add.add_argument("--hex", action="store_true", help="SSID is written as hexadecimal digits")
    add.add_argument("--bssid", metavar="ADDRESS")
    add.add_argument("--band", choices=("2.4", "5"))
    add.add_argument("--channel", type=int)
    add.add_argument("--signal", type=int, metavar="DBM", help="-60 when not given")
    add.add_argument("--security", choices=("open", "wep", "wpa2", "wpa2-wpa3", "wpa3", "enterprise"),
                     help="wpa2 with --passphrase, else open")
    add.add_argument("--passphrase")
    add.add_argument("--hidden", action="store_true", default=None)
    dhcp = add.add_mutually_exclusive_group()
    dhcp.add_argument("--address", metavar="ADDRESS/LENGTH", help="what its DHCP server gives the device")
    dhcp.add_argument("--no-dhcp", action="store_true", help="it has no DHCP server")

    for name, text in (("remove", "take a network off the air"), ("signal", "change how strongly a network is received"),
                       ("key", "change the passphrase of a network")):
        command = commands.add_parser(name, help=text)
        command.add_argument("network", metavar="NETWORK", help=_NETWORK)
        if name == "signal":
            command.add_argument("dbm", type=int, metavar="DBM", help="from -120 to 0; below -86 nobody can stay connected")
        if name == "key":
            command.add_argument("passphrase", metavar="PASSPHRASE")

    for name, text in (("join", "let a station join the access point"), ("leave", "let a station leave it")):
        commands.add_parser(name, help=text).add_argument("station", metavar="STATION", help="name or address in the world file")

    for name, text in (("kill", "kill a daemon"), ("hang", "make a daemon hang"), ("release", "let a daemon go on that hangs"),
                       ("start", "start a daemon again")):
        commands.add_parser(name, help=text).add_argument("neighbour", choices=NAMES)

    radio = commands.add_parser("radio", help="block or unblock the radio, as rfkill does")
    radio.add_argument("blocked", choices=("block", "unblock"))
    radio.add_argument("--hard", action="store_true", help="by the switch on the device, which no program can overrule")

    setting = commands.add_parser("set", help="change a setting as another program does")
    setting.add_argument("setting", metavar="SECTION.KEY")
    setting.add_argument("value", metavar="VALUE")

    cable = commands.add_parser("cable", help="plug or unplug the wired cable")
    cable.add_argument("plugged", choices=("plug", "unplug"))
    cable.add_argument("--address", metavar="ADDRESS/LENGTH", help="what eth0 gets")
    return parser


def request_of(options: argparse.Namespace) -> dict[str, Any]:
    """What is sent for a command line."""
    arguments = {name: value for name, value in vars(options).items() if name != "control" and value is not None}
    match options.command:
        case "show":
            del arguments["json"]
        case "add":
            network = {name: value for name, value in arguments.items() if name not in ("command", "hex", "no_dhcp")}
            if options.hex:
                network["ssid_hex"] = network.pop("ssid")
            if options.no_dhcp:
                network["address"] = None
            arguments = {"command": "add", "network": network}
        case "radio":
            arguments["blocked"] = options.blocked == "block"
        case "cable":
            arguments["plugged"] = options.plugged == "plug"
    return arguments


def find_device() -> Path:
    """The control socket of the only device of this user."""
    if CONTROL_VARIABLE in os.environ:
        return Path(os.environ[CONTROL_VARIABLE])
    found = sorted({path for folder in _folders() for path in folder.glob(f"{WORK_PREFIX}*/{CONTROL_SOCKET}")
                    if path.parent.stat().st_uid == os.geteuid() and _answers(path)})
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
    options = _parser().parse_args(argv)
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
