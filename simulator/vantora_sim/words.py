"""The commands of vantora-simctl: as the words that people write, and as the requests that a device is sent."""

from __future__ import annotations

import argparse
import shlex
from pathlib import Path
from typing import Any, NoReturn

CONTROL_VARIABLE = "VANTORA_SIM_CONTROL"
"""Environment variable that says where the control socket of a device is."""
NAMES = ("hostapd", "wpa_supplicant", "systemd", "vantora-settingsd", "vantora-network")
"""The daemons that can be killed, made to hang, let go and started."""

_NETWORK = "name (SSID) or address (BSSID)"


def make_parser(kind: type[argparse.ArgumentParser] = argparse.ArgumentParser) -> argparse.ArgumentParser:
    """The command line of vantora-simctl, as a parser of this kind."""
    parser = kind(prog="vantora-simctl", description="Changes the world of a running vantora-sim.")
    parser.add_argument(
        "--control",
        type=Path,
        metavar="SOCKET",
        help=f"control socket of the device (default: ${CONTROL_VARIABLE}, else that of the only device of " "this user)",
    )
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
    add.add_argument(
        "--security",
        choices=("open", "wep", "wpa2", "wpa2-wpa3", "wpa3", "enterprise"),
        help="wpa2 with --passphrase, else open",
    )
    add.add_argument("--passphrase")
    add.add_argument("--hidden", action="store_true", default=None)
    dhcp = add.add_mutually_exclusive_group()
    dhcp.add_argument("--address", metavar="ADDRESS/LENGTH", help="what its DHCP server gives the device")
    dhcp.add_argument("--no-dhcp", action="store_true", help="it has no DHCP server")

    for name, text in (
        ("remove", "take a network off the air"),
        ("signal", "change how strongly a network is received"),
        ("key", "change the passphrase of a network"),
    ):
        command = commands.add_parser(name, help=text)
        command.add_argument("network", metavar="NETWORK", help=_NETWORK)
        if name == "signal":
            command.add_argument("dbm", type=int, metavar="DBM", help="from -120 to 0; below -86 nobody can stay connected")
        if name == "key":
            command.add_argument("passphrase", metavar="PASSPHRASE")

    for name, text in (("join", "let a station join the access point"), ("leave", "let a station leave it")):
        commands.add_parser(name, help=text).add_argument(
            "station", metavar="STATION", help="name or address in the world file"
        )

    for name, text in (
        ("kill", "kill a daemon"),
        ("hang", "make a daemon hang"),
        ("release", "let a daemon go on that hangs"),
        ("start", "start a daemon again"),
    ):
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


class _Refusing(argparse.ArgumentParser):
    """Says what is wrong to its caller instead of ending the program."""

    def error(self, message: str) -> NoReturn:
        raise ValueError(message)


def request_of_words(words: list[str]) -> dict[str, Any]:
    """The request for the words of a command, as after "vantora-simctl". Raises ValueError with what is wrong."""
    if not words or words[0].startswith("-"):
        raise ValueError("begins with a command of vantora-simctl")
    if words[0] == "show":
        raise ValueError("show changes nothing")
    if {"-h", "--help"} & set(words):
        raise ValueError("asks for help")
    return request_of(make_parser(_Refusing).parse_args(words))


def words_of(command: str, arguments: dict[str, Any]) -> list[str]:
    """The words for a request: what request_of_words() makes it of."""
    match command:
        case "add":
            return _words_of_network(arguments["network"])
        case "radio":
            return ["radio", "block" if arguments["blocked"] else "unblock", *(["--hard"] if arguments.get("hard") else [])]
        case "cable":
            address = ["--address", arguments["address"]] if "address" in arguments else []
            return ["cable", "plug" if arguments["plugged"] else "unplug", *address]
        case "show":
            return ["show", "--json"]
    values = [str(value) for value in arguments.values()]
    # What begins with a hyphen is no option.
    return [command, *(["--"] if any(value.startswith("-") for value in values) else []), *values]


def _words_of_network(network: dict[str, Any]) -> list[str]:
    options: list[str] = []
    for name in ("bssid", "band", "channel", "signal", "security", "passphrase", "address"):
        if network.get(name) is not None:
            options.append(f"--{name}={network[name]}")
    if "address" in network and network["address"] is None:
        options.append("--no-dhcp")
    if network.get("hidden"):
        options.append("--hidden")
    if "ssid_hex" in network:
        options.append("--hex")
    return ["add", *options, "--", network.get("ssid_hex", network.get("ssid", ""))]


def command_line(command: str, arguments: dict[str, Any]) -> str:
    """The same for a shell."""
    return shlex.join(["vantora-simctl", *words_of(command, arguments)])
