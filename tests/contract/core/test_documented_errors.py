"""The table of errors on the page about the D-Bus interface: every row is provoked, its name and text are the daemon's."""

from __future__ import annotations

import re
import signal
import subprocess
from collections.abc import Callable
from concurrent.futures import Future
from typing import Any

import pytest
from conftest import ROOT
from control import REFUSED
from station import bring_up_station
from vantora_sim import CallRefused, Variant, World, command
from vantora_sim.client import INTERFACE, PATH, SERVICE
from wifi_client import environment

PREFIX = "org.freedesktop.DBus.Error."
PROPERTIES = "org.freedesktop.DBus.Properties"

Error = tuple[str, str]
Row = tuple[str, str, str]
"""Name, text and who answers with it, as the page writes them."""

UNIT_TESTED = {"Failed to add network", "Failed to parse d-bus message", "Failed to start AP scan"}
"""No neighbour and no caller can bring these about; the unit test gives the functions below results of its own."""


def documented() -> list[Row]:
    """The rows of the table."""
    section = (ROOT / "docs/dbus-api.md").read_text().split("\n## Errors\n")[1].split("\n## ")[0]
    return re.findall(r'(?m)^\| `(\w+)` \| "(.*?)" \| (.*?) \|', section)


def pattern(text: str) -> str:
    """A text of the page as a regular expression."""
    return ".+".join(map(re.escape, text.split("…")))


def answer(
    world: World,
    member: str,
    signature: str = "",
    args: list[Any] | None = None,
    *,
    interface: str = INTERFACE,
    path: str = PATH,
) -> Error:
    """Name and text of the error that a call is answered with."""
    return error_of(world.call_service_async(SERVICE, path, interface, member, signature, args))


def error_of(asked: "Future[list[Any]]") -> Error:
    """The same of a call that is under way."""
    with pytest.raises(CallRefused) as refused:
        asked.result(60)
    return refused.value.name, refused.value.text


def write(world: World, name: str, value: Variant) -> Error:
    return answer(world, "Set", "ssv", [INTERFACE, name, value], interface=PROPERTIES)


def connect(world: World) -> Error:
    return answer(world, "Connect", "ss", ["cafe", "secret12"])


def refused_write(world: World) -> Error:
    world.sandbox.path("/etc/korrin/device.conf").write_text("model=Korrin One\nserial=12-3456\nradio_type=7\n")
    world.up()
    error = write(world, "Mode", Variant("s", "Router"))
    assert error == answer(world, "Get", "ss", [INTERFACE, "WiFiAvailableFrequencies"], interface=PROPERTIES) == REFUSED
    return error


def radio_off(world: World) -> Error:
    world.settings.set("network", "enabled", False)
    world.up()
    assert connect(world) == answer(world, "Disconnect")
    return connect(world)


def neither_mode(world: World) -> Error:
    world.up()
    world.radio.interface_type = "monitor"
    assert connect(world) == answer(world, "Disconnect")
    return connect(world)


def access_point(world: World) -> Error:
    world.up()
    assert connect(world) == answer(world, "Disconnect")
    return connect(world)


def refused_network(world: World) -> Error:
    bring_up_station(world)
    world.wpa.refuse("AddNetwork")
    return connect(world)


def not_connected(world: World) -> Error:
    bring_up_station(world)
    world.wpa.refuse("Disconnect")
    return answer(world, "Disconnect")


def wrong_arguments(world: World) -> Error:
    world.up()
    return answer(world, "Connect", "s", ["cafe"])


def wrong_type(world: World) -> Error:
    world.up()
    return write(world, "Mode", Variant("u", 1))


def read_only(world: World) -> Error:
    world.up()
    return write(world, "MacAddress", Variant("s", "02:00:00:00:00:01"))


def no_property(world: World) -> Error:
    world.up()
    read = answer(world, "Get", "ss", [INTERFACE, "Nothing"], interface=PROPERTIES)
    assert read == write(world, "Nothing", Variant("s", ""))
    return read


def no_method(world: World) -> Error:
    world.up()
    return answer(world, "Reconnect")


def no_object(world: World) -> Error:
    world.up()
    return answer(world, "Scan", path="/com/vantora")


def no_interface(world: World) -> Error:
    world.up()
    return answer(world, "GetAll", "s", ["com.vantora.Network1.Bluetooth"], interface=PROPERTIES)


def no_daemon(world: World) -> Error:
    return answer(world, "Scan")


def dbus_send(world: World, *options: str) -> Error:
    """Ask with a program of libdbus: outside of the sandbox, since it tells the bus its user id, which is another one there."""
    said = subprocess.run(
        ["/usr/bin/dbus-send", "--session", "--print-reply", *options, f"--dest={SERVICE}", PATH, f"{INTERFACE}.Disconnect"],
        env=environment(world),
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    ).stderr
    found = re.fullmatch(r"Error ([\w.]+): (.*)\n", said, re.DOTALL)
    assert found, said
    return found[1], found[2]


def no_daemon_and_no_activation(world: World) -> Error:
    said = world.sandbox.run(["/usr/bin/busctl", "--user", "--auto-start=no", "call", SERVICE, PATH, INTERFACE, "Scan"]).stderr
    assert said.startswith("Call failed: ")
    # busctl tells the text alone; the name is that of a question about a name that nobody owns.
    asked = world.call_service_async(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner", "s", [SERVICE]
    )
    return error_of(asked)[0], said.removeprefix("Call failed: ").rstrip("\n")


def dying_daemon(world: World) -> Error:
    daemon = world.up()
    world.tools.rfkill.hang()
    mark = world.journal.mark()
    asked = world.call_async("Disconnect")
    world.journal.wait_for(command("rfkill list wlan"), mark)
    daemon.send_signal(signal.SIGKILL)
    daemon.wait()
    return error_of(asked)


def hanging_daemon(world: World) -> Error:
    daemon = world.up()
    daemon.send_signal(signal.SIGSTOP)
    try:
        said = world.sandbox.run(["/usr/bin/busctl", "--user", "--timeout=8", "call", SERVICE, PATH, INTERFACE, "Scan"]).stderr
        assert said == "Call failed: Connection timed out\n"
        return dbus_send(world, "--reply-timeout=5000")
    finally:
        daemon.send_signal(signal.SIGCONT)


PROVOKED: dict[Row, Callable[[World], Error]] = {
    ("AccessDenied", "Operation not permitted", "writes, `WiFiAvailableFrequencies`"): refused_write,
    ("Failed", "Wifi is off", "`Connect`, `Disconnect`"): radio_off,
    ("Failed", "WiFi is in unknown mode", "`Connect`, `Disconnect`"): neither_mode,
    ("Failed", "WiFi is not in client mode", "`Connect`, `Disconnect`"): access_point,
    ("Failed", "Failed to connect to AP", "`Connect`"): refused_network,
    ("Failed", "Failed to connect to AP", "`Disconnect`"): not_connected,
    ("InvalidArgs", "Invalid arguments '…' to call …(), expecting '…'.", "methods"): wrong_arguments,
    ("InvalidArgs", "Incorrect parameters for property '…', expected '…', got '…'.", "writes"): wrong_type,
    ("PropertyReadOnly", "Property '…' is not writable.", "writes"): read_only,
    ("UnknownProperty", "Unknown interface … or property ….", "reads, writes"): no_property,
    ("UnknownMethod", "Unknown method … or interface ….", "methods"): no_method,
    ("UnknownObject", "Unknown object '…'.", "all"): no_object,
    ("UnknownInterface", "Unknown interface '…'.", "`GetAll`"): no_interface,
    ("ServiceUnknown", f"The name {SERVICE} was not provided by any .service files", "all"): no_daemon,
    ("NameHasNoOwner", f'Name "{SERVICE}" does not exist', "calls that forbid activation"): no_daemon_and_no_activation,
    ("NoReply", "Message recipient disconnected from message bus without replying", "all"): dying_daemon,
    ("NoReply", "Did not receive a reply. …", "your own library (libdbus here)"): hanging_daemon,
}


@pytest.mark.parametrize("row", PROVOKED, ids=lambda row: f"{row[0]}: {row[1]} ({row[2]})")
def test_the_error_is_what_the_page_says(world: World, row: Row) -> None:
    assert row in documented()
    name, text = PROVOKED[row](world)
    assert name == PREFIX + row[0]
    assert re.fullmatch(pattern(row[1]), text), text


def test_the_page_lists_no_error_that_is_not_provoked_here_or_unit_tested() -> None:
    rest = [row for row in documented() if row not in PROVOKED]
    assert {text for _, text, _ in rest} == UNIT_TESTED
    unit_test = (ROOT / "tests/unit/network_interface_test.cpp").read_text()
    for _, text, member in rest:
        assert re.search(rf'expect_refused\(call(_oddly)?\({member.replace("`", chr(34))}.*"{text}"\);', unit_test), text


def test_every_error_text_of_the_daemon_is_on_the_page() -> None:
    texts = {
        found
        for source in (ROOT / "src/core").glob("*.cpp")
        for found in re.findall(r'reply_failure\(\w+, "(.*?)"\)', source.read_text())
    }
    assert texts and texts <= {text for _, text, _ in documented()}
