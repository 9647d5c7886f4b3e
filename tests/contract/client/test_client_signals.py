"""Whom the client believes: who owns the daemon's name, and nobody else on the bus; and signals that are not what they should be."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import pytest
from dbus_next import Variant
from played_daemon import SECURED, PlayedDaemon, played_daemon, send_to_everybody_alone
from vantora_sim import World
from vantora_sim.client import INTERFACE, PATH, SERVICE
from vantora_sim.dbus_fake import PROPERTIES
from wifi_client import DONE, Running, Way, objects_in, start

WARNING = "vantora-wifi: a signal of the daemon cannot be read and is passed over: "


@pytest.fixture
def daemon(world: World) -> Iterator[PlayedDaemon]:
    """A daemon that says what the test has it say."""
    with played_daemon(world) as daemon:
        yield daemon


def changes(text: str) -> list[tuple[Any, Any]]:
    """What `monitor --json` has shown to have changed."""
    return [(entry["name"], entry["value"]) for entry in objects_in(text) if entry["type"] == "changed"]


def monitoring(world: World, *arguments: str) -> Running:
    """`monitor` for programs, when it has shown the state."""
    client = start(world, "monitor", "--json", *arguments)
    client.wait_for('"type":"status"')
    return client


def test_signals_of_a_stranger_are_not_shown(world: World, daemon: PlayedDaemon) -> None:
    with monitoring(world) as client:
        send_to_everybody_alone(
            world, PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, {"Mode": Variant("s", "forged")}, []]
        )
        send_to_everybody_alone(world, INTERFACE, "AccessPointsChanged", "a(siib)", [[["forged", 1, -40, True]]])
        send_to_everybody_alone(world, INTERFACE, "AccessPointsChanged", "s", ["forged and wrong"])
        send_to_everybody_alone(
            world, "org.freedesktop.DBus", "NameOwnerChanged", "sss", [SERVICE, ":1.1", ""], "/org/freedesktop/DBus"
        )
        daemon.announce("IPAddress", Variant("s", "10.0.0.1"))
        client.wait_for("10.0.0.1")
        assert changes(client.text) == [("address", "10.0.0.1")]
        assert {entry["type"] for entry in objects_in(client.text)} == {"status", "changed"}


def test_the_next_owner_of_the_name_is_believed_and_the_last_one_no_more(world: World, daemon: PlayedDaemon) -> None:
    with monitoring(world) as client:
        daemon.go()
        client.wait_for('"running":false')
        with played_daemon(world) as successor:
            client.wait_for('"running":true')
            client.wait_for('"type":"status"', 2)
            # The old one is back on the bus, under no name.
            daemon.names = ()
            daemon.come_back()
            daemon.announce("IPAddress", Variant("s", "10.0.0.1"))
            send_to_everybody_alone(
                world, PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, {"IPAddress": Variant("s", "10.0.0.1")}, []]
            )
            successor.announce("IPAddress", Variant("s", "10.0.0.2"))
            client.wait_for("10.0.0.2")
            assert changes(client.text) == [("address", "10.0.0.2")]


@pytest.mark.parametrize(
    ("interface", "member", "signature", "body"),
    [
        (PROPERTIES, "PropertiesChanged", "s", [INTERFACE]),
        (PROPERTIES, "PropertiesChanged", "u", [7]),
        (PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, {"Mode": Variant("u", 1)}, []]),
        (PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, {"WiFiState": Variant("s", "on")}, []]),
        (PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, {"WiFiConnectedClients": Variant("i", 3)}, []]),
        (PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, {"IPAddress": Variant("as", ["10.0.0.1"])}, []]),
        (PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, {"WiFiAccessPointInitialised": Variant("u", 1)}, []]),
        (PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, {"Mode": Variant("d", 1.5)}, []]),
        (INTERFACE, "AccessPointsChanged", "s", ["home"]),
        (INTERFACE, "AccessPointsChanged", "as", [["home"]]),
        (INTERFACE, "AccessPointsChanged", "(siib)", [["home", 1, -40, True]]),
        (INTERFACE, "AccessPointsChanged", "u", [3]),
        (INTERFACE, "AccessPointsChanged", "", []),
    ],
    ids=lambda value: str(value)[:40],
)
def test_a_wrongly_typed_signal_is_passed_over_with_one_warning(
    world: World, daemon: PlayedDaemon, way: Way, interface: str, member: str, signature: str, body: list[Any]
) -> None:
    with way.start(world, "monitor") as people, monitoring(world) as programs:
        people.wait_for("Transmit power")
        daemon.emit(PATH, interface, member, signature, body)
        daemon.announce("IPAddress", Variant("s", "10.0.0.2"))
        people.wait_for("Address.*10.0.0.2")
        programs.wait_for("10.0.0.2")
        assert people.plain.count(WARNING) == 1
        assert f"{WARNING}{member}\n" in people.plain
        assert changes(programs.text) == [("address", "10.0.0.2")]
        assert [entry for entry in objects_in(programs.text) if entry["type"] == "warning"] == [
            {"type": "warning", "text": f"a signal of the daemon cannot be read and is passed over: {member}"}
        ]
        assert people.running and programs.running


@pytest.mark.parametrize("words", [["scan"], ["scan", "--watch"], ["status", "--watch"]], ids=" ".join)
def test_a_wrongly_typed_signal_while_something_is_waited_for_is_told(
    world: World, daemon: PlayedDaemon, words: list[str]
) -> None:
    with start(world, *words) as client:
        if words[0] == "scan":
            world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        else:
            client.wait_for("Transmit power")
        daemon.emit(PATH, INTERFACE, "AccessPointsChanged", "s", ["home"])
        client.wait_for(f"{WARNING}AccessPointsChanged\n")


def test_a_signal_about_another_interface_of_the_object_is_no_business_of_the_client(
    world: World, daemon: PlayedDaemon
) -> None:
    with monitoring(world) as client:
        daemon.emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", ["com.example.Other", {"Mode": Variant("d", 1.5)}, []])
        daemon.announce("IPAddress", Variant("s", "10.0.0.2"))
        client.wait_for("10.0.0.2")
        assert {entry["type"] for entry in objects_in(client.text)} == {"status", "changed"}


@pytest.mark.parametrize(
    ("name", "value"),
    [("Mode", Variant("u", 1)), ("WiFiState", Variant("s", "on")), ("WiFiAvailableFrequencies", Variant("a(siib)", [SECURED]))],
    ids=lambda value: str(value)[:20],
)
def test_a_wrongly_typed_answer_is_a_value_that_nobody_knows(
    world: World, daemon: PlayedDaemon, way: Way, name: str, value: Variant
) -> None:
    daemon.properties[name] = value
    shown = way.run(world, "status")
    assert shown.status == DONE
    assert "?\n" in shown.stdout


def test_a_stranger_does_not_end_a_scan_early(world: World, daemon: PlayedDaemon) -> None:
    with start(world, "scan") as client:
        world.journal.wait_until(lambda: ("Scan", []) in daemon.called, "scan")
        send_to_everybody_alone(world, INTERFACE, "AccessPointsChanged", "a(siib)", [[]])
        # Believed, that would have ended it before the scan is asked for once more.
        world.journal.wait_until(lambda: daemon.called.count(("Scan", [])) == 2, "second scan")
        daemon.announce_networks(SECURED)
        assert client.end() == DONE
        assert "secured" in client.text
