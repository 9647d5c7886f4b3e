"""The object's face: the table of its members, what the bus library refuses, and who may reach it."""

from __future__ import annotations

import os
import re
import xml.etree.ElementTree as xml
from pathlib import Path

import pytest
from access_point import attached_up
from vantora_sim import CallRefused, Variant, World, signal

INTERFACE = "com.vantora.Network1.WiFi"
DESCRIPTION = Path(__file__).resolve().parents[3] / "packaging/dbus/com.vantora.Network1.WiFi.xml"
INVALID_ARGUMENTS = "org.freedesktop.DBus.Error.InvalidArgs"

METHODS = [("Connect", ["s", "s"]), ("Scan", []), ("Disconnect", [])]
PROPERTIES = [
    ("IPAddress", "s", "read"),
    ("MacAddress", "s", "read"),
    ("AccessPoints", "a(siib)", "read"),
    ("WiFiSignal", "s", "read"),
    ("WiFiAvailableFrequencies", "as", "read"),
    ("WiFiConnectedClients", "u", "read"),
    ("WiFiClientState", "s", "read"),
    ("WiFiAccessPointInitialised", "b", "read"),
    ("ClientSSID", "s", "read"),
    ("WiFiState", "u", "readwrite"),
    ("Mode", "s", "readwrite"),
    ("WiFiFrequency", "s", "readwrite"),
    ("SSID", "s", "readwrite"),
]
READ_ONLY = [name for name, _, access in PROPERTIES if access == "read"]


def introspect(world: World) -> str:
    """What the running daemon tells about itself, as it comes."""
    text: str = world.call_async("Introspect", interface="org.freedesktop.DBus.Introspectable").result(20)[0]
    return text


def interface_lines(text: str) -> list[str]:
    """The lines of the interface's own element, without comments."""
    bare = re.sub(r"\s*<!--.*?-->", "", text, flags=re.DOTALL)
    element = re.search(rf' *<interface name="{re.escape(INTERFACE)}">.*?</interface>', bare, re.DOTALL)
    assert element, text
    return element[0].splitlines()


def test_members_are_introspected_in_order_with_signatures_access_and_flags(world: World) -> None:
    world.up()
    root = xml.fromstring(introspect(world))
    assert [item.get("name") for item in root] == [
        "org.freedesktop.DBus.Peer",
        "org.freedesktop.DBus.Introspectable",
        "org.freedesktop.DBus.Properties",
        INTERFACE,
    ]
    members = list(root[-1])
    no_reply = [("org.freedesktop.DBus.Method.NoReply", "true")]
    found = []
    for member in members:
        arguments = [(item.get("type"), item.get("direction")) for item in member.findall("arg")]
        annotations = [(item.get("name"), item.get("value")) for item in member.findall("annotation")]
        found.append((member.tag, member.get("name"), member.get("type"), member.get("access"), arguments, annotations))
    assert found == [
        *[("method", name, None, None, [(part, "in") for part in parts], no_reply) for name, parts in METHODS],
        # No annotation: every change is announced with its value, which is what D-Bus takes for granted.
        *[("property", name, kind, access, [], []) for name, kind, access in PROPERTIES],
        ("signal", "AccessPointsChanged", None, None, [("(siib)", None)], []),
    ]


def test_packaged_description_is_what_the_daemon_introspects_to(world: World) -> None:
    world.up()
    assert interface_lines(DESCRIPTION.read_text()) == interface_lines(introspect(world))


def test_get_all_yields_every_property_with_its_type(world: World) -> None:
    world.up()
    values = world.call_async("GetAll", "s", [INTERFACE], interface="org.freedesktop.DBus.Properties").result(20)[0]
    assert [(name, value.signature) for name, value in values.items()] == [(name, kind) for name, kind, _ in PROPERTIES]


def test_methods_with_other_arguments_are_refused_by_the_bus_library(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    for member, signature, args, expected in [
        ("Connect", "", [], "ss"),
        ("Connect", "s", ["net"], "ss"),
        ("Connect", "sss", ["a", "b", "c"], "ss"),
        ("Connect", "su", ["net", 1], "ss"),
        ("Connect", "ay", [b"net"], "ss"),
        ("Scan", "s", ["active"], ""),
        ("Scan", "a{sv}", [{}], ""),
        ("Disconnect", "b", [True], ""),
    ]:
        with pytest.raises(CallRefused) as refused:
            world.call(member, signature, args)
        assert (refused.value.name, refused.value.text) == (
            INVALID_ARGUMENTS,
            f"Invalid arguments '{signature}' to call {INTERFACE}.{member}(), expecting '{expected}'.",
        )
    world.settle()
    assert world.journal.since(mark) == []


def test_writes_of_another_type_are_refused_by_the_bus_library(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    for name, expected, value in [
        ("WiFiState", "u", Variant("i", 1)),
        ("WiFiState", "u", Variant("b", True)),
        ("WiFiState", "u", Variant("s", "1")),
        ("Mode", "s", Variant("u", 1)),
        ("Mode", "s", Variant("ay", b"Host")),
        ("Mode", "s", Variant("v", Variant("s", "Host"))),
        ("WiFiFrequency", "s", Variant("d", 2.4)),
        ("WiFiFrequency", "s", Variant("as", ["5"])),
        ("SSID", "s", Variant("ay", b"net")),
        ("SSID", "s", Variant("(s)", ["net"])),
    ]:
        with pytest.raises(CallRefused) as refused:
            world.set(name, value)
        assert (refused.value.name, refused.value.text) == (
            INVALID_ARGUMENTS,
            f"Incorrect parameters for property '{name}', expected '{expected}', got '{value.signature}'.",
        )
    world.settle()
    assert world.journal.since(mark) == []


def test_read_only_properties_cannot_be_written(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    for name in READ_ONLY:
        with pytest.raises(CallRefused) as refused:
            world.set(name, Variant(dict((name, kind) for name, kind, _ in PROPERTIES)[name], default_of(name)))
        assert (refused.value.name, refused.value.text) == (
            "org.freedesktop.DBus.Error.PropertyReadOnly",
            f"Property '{name}' is not writable.",
        )
    world.settle()
    assert world.journal.since(mark) == []


def default_of(name: str) -> object:
    kind = dict((name, kind) for name, kind, _ in PROPERTIES)[name]
    return {"s": "x", "u": 1, "b": True, "as": ["x"], "a(siib)": [["x", 1, -1, True]]}[kind]


def test_what_does_not_exist_is_refused(world: World) -> None:
    world.up()
    with pytest.raises(CallRefused) as refused:
        world.get("Password")
    assert (refused.value.name, refused.value.text) == (
        "org.freedesktop.DBus.Error.UnknownProperty",
        "Unknown interface com.vantora.Network1.WiFi or property Password.",
    )
    with pytest.raises(CallRefused) as refused:
        world.call("Reboot")
    assert (refused.value.name, refused.value.text) == (
        "org.freedesktop.DBus.Error.UnknownMethod",
        f"Unknown method Reboot or interface {INTERFACE}.",
    )


def test_methods_answer_in_spite_of_their_annotation_and_also_when_no_answer_is_wanted(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    assert world.call("Scan") == []
    mark = world.journal.mark()
    sent = world.sandbox.sh(
        "busctl --user --expect-reply=no call com.vantora.Network1 /com/vantora/Network1 " f"{INTERFACE} Scan"
    )
    assert (sent.status, sent.stdout) == (0, "")
    world.settle()
    assert ("info", "[WPA] Scan APs") in world.journal.logs(mark)


def test_access_points_changed_carries_an_array_that_may_be_empty(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    mark = world.journal.mark()
    world.wpa.report_bsss()
    empty = world.journal.wait_for(signal("AccessPointsChanged"), mark)
    assert (empty.body, empty.signature, empty.path, empty.interface) == ([[]], "a(siib)", "/com/vantora/Network1", INTERFACE)
    mark = world.journal.mark()
    world.wpa.add_bss(b"weak", signal=-80, privacy=False, key_mgmt=())
    world.wpa.add_bss(b"strong", signal=-30)
    world.wpa.report_bsss()
    both = [["strong", 1, -30, True], ["weak", 0, -80, False]]
    assert world.journal.wait_for(signal("AccessPointsChanged", both), mark).signature == "a(siib)"


# Who may reach it

CONNECT_BY_HAND = """
import os, socket
bus = socket.socket(socket.AF_UNIX)
bus.connect('/run/user/0/bus')
bus.sendall(b'\\0AUTH EXTERNAL ' + str(os.getuid()).encode().hex().encode() + b'\\r\\n')
print(bus.recv(2).decode())
bus.sendall(b'BEGIN\\r\\n')
while bus.recv(100):
    pass
print('turned away')
"""


def test_another_user_is_turned_away_by_the_bus(world: World) -> None:
    if os.geteuid() != 0:
        pytest.skip("needs root: an ordinary user has no second user id to try")
    attached_up(world)
    mark = world.journal.mark()
    other = "setpriv --reuid 65534 --regid 65534 --clear-groups"
    read = f"busctl --user get-property com.vantora.Network1 /com/vantora/Network1 {INTERFACE} WiFiAccessPointInitialised"
    assert world.sandbox.sh(read).stdout == "b false\n"
    refused = world.sandbox.sh(f"{other} {read}")
    assert (refused.status, refused.stdout) == (1, "")
    # It reaches the socket and proves who it is; then the bus closes the connection before a single message.
    by_hand = world.sandbox.run(["/usr/bin/setpriv", *other.split()[1:], "/usr/bin/python3", "-c", CONNECT_BY_HAND])
    assert by_hand.stdout == "OK\nturned away\n"
    world.settle()
    assert [entry.kind for entry in world.journal.since(mark)] == ["exit"] * 3
