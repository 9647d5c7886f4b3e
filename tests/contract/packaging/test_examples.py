"""What the documentation shows works: the example programs, and the code on the page about the D-Bus interface."""

from __future__ import annotations

import re
import shlex
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT
from station import bring_up_station
from vantora_sim import World, call, changed
from wifi_client import Running, environment

PYTHON = "/usr/bin/python3"


def blocks(page: Path, language: str) -> list[str]:
    """The code blocks of a page in this language."""
    return re.findall(rf"^```{language}\n(.*?)^```$", page.read_text(), re.MULTILINE | re.DOTALL)


@pytest.fixture(params=["C++", "Python"])
def follower(request: pytest.FixtureRequest, build_dir: Path) -> list[str]:
    """The command that runs an example."""
    if request.param == "C++":
        return [str(build_dir / "examples/follow_state")]
    return [PYTHON, str(ROOT / "examples/follow_state.py")]


def test_the_examples_follow_the_state(world: World, follower: list[str]) -> None:
    bring_up_station(world)
    with Running(follower, environment(world)) as example:
        example.wait_for("WiFiClientState = ")
        assert example.text.startswith("Mode = Client\nWiFiClientState = ")
        world.wpa.report_state("completed", world.wpa.add_bss("cafe"))
        example.wait_for("(?m)^WiFiClientState = completed$")
        world.set("Mode", "Host")
        example.wait_for("(?m)^Mode = Host$")


def test_the_examples_end_when_the_bus_is_lost(world: World, follower: list[str]) -> None:
    world.up()
    assert world.daemon
    with Running(follower, environment(world)) as example:
        example.wait_for("WiFiClientState = ")
        world.user_bus.stop()
        example.end()
    world.daemon.wait()


REMEMBERING = """
from gi.repository import Gio
proxy = Gio.DBusProxy.new_for_bus_sync(Gio.BusType.SESSION, Gio.DBusProxyFlags.NONE, None, "com.vantora.Network1",
                                       "/com/vantora/Network1", "com.vantora.Network1.WiFi", None)
print("remembered at the start:", proxy.get_cached_property("ClientSSID").unpack(), flush=True)
input()
print("remembered later:", proxy.get_cached_property("ClientSSID").unpack(), flush=True)
"""
"""What the page warns of."""


def test_the_example_without_remembered_values_shows_what_is_never_announced(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    with Running([PYTHON, str(ROOT / "examples/fresh_values.py")], environment(world)) as example:
        example.wait_for("(?m)^ClientSSID = $")
        world.settle()
        assert [text for _, text in world.journal.logs(mark) if text.startswith("Get ")] == [
            "Get 'WiFiClientSSID' property"
        ], "nothing else is loaded"
        world.radio.station_ssid = b"cafe"
        world.wpa.report_state("completed", world.wpa.add_bss("cafe"))
        example.wait_for("(?m)^ClientSSID = cafe$", 2)  # for the state, and two seconds later for SSID
        assert [name for name, _ in world.journal.changes(mark) if name == "ClientSSID"] == []
        world.user_bus.stop()
        example.end()
    assert world.daemon
    world.daemon.wait()


def test_a_proxy_that_remembers_values_is_wrong_as_the_page_says(world: World) -> None:
    bring_up_station(world)
    with subprocess.Popen(
        [PYTHON, "-c", REMEMBERING], env=environment(world), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
    ) as proxy:
        assert proxy.stdout and proxy.stdin
        assert proxy.stdout.readline() == "remembered at the start: \n"
        world.radio.station_ssid = b"cafe"
        mark = world.journal.mark()
        world.wpa.report_state("completed", world.wpa.add_bss("cafe"))
        world.journal.wait_for(changed("SSID"), mark)
        assert world.get("ClientSSID") == "cafe"
        assert proxy.communicate("\n")[0] == "remembered later: \n"


# docs/dbus-api.md


def the_shell_block() -> list[str]:
    """The lines of the only shell example."""
    found = blocks(ROOT / "docs/dbus-api.md", "sh")
    assert len(found) == 1
    return found[0].splitlines()


def run_line(world: World, alias: str, line: str) -> str:
    """Run a line of the shell example as it stands; returns what it prints."""
    completed = world.sandbox.sh(f"{alias}\n{line}\n")
    assert (completed.status, completed.stderr) == (0, ""), line
    return completed.stdout


def test_the_busctl_examples_of_the_page_work(world: World) -> None:
    world.up()
    alias, *lines = the_shell_block()
    assert alias == "alias net='busctl --user'"
    verbs = [shlex.split(line)[1] for line in lines]
    assert verbs == ["introspect", "get-property", "set-property", "call", "monitor"], "each is checked below"
    introspect, get, put, connect, monitor = lines

    assert "com.vantora.Network1.WiFi" in run_line(world, alias, introspect)
    assert run_line(world, alias, get).splitlines() == ["u 1", 's "Host"', 's "Korrin One"']
    run_line(world, alias, put)
    assert world.get("Mode") == "Client"
    mark = world.journal.mark()
    run_line(world, alias, connect)
    added = world.journal.wait_for(call("AddNetwork"), mark)
    assert {name: value.value for name, value in added.args[0].items()} == {
        "ssid": "my network",
        "key_mgmt": "WPA-PSK",
        "psk": "my passphrase",
    }

    command = monitor.replace("net", "busctl --user", 1).split()
    with Running(command, environment(world)) as watching:
        watching.wait_for("Monitoring bus message stream")
        world.set("SSID", "Kitchen")
        watching.wait_for("Kitchen")


def start_python_example(world: World, *arguments: str) -> Running:
    """Start the page's Python example.

    Outside of the sandbox, as every client that tells the bus a user id: in it an ordinary user's id is 0, and the bus, which
    knows better, turns it away.
    """
    found = blocks(ROOT / "docs/dbus-api.md", "python")
    assert len(found) == 1
    return Running([PYTHON, "-c", found[0], *arguments], environment(world))


@pytest.mark.parametrize(
    ("states", "outcome"),
    [(["4way_handshake", "completed"], "completed"), (["4way_handshake", "disconnected"], "failed")],
    ids=str,
)
def test_the_python_example_of_the_page_tells_the_outcome(world: World, states: list[str], outcome: str) -> None:
    bring_up_station(world)
    with start_python_example(world, "cafe", "secret12") as example:
        world.journal.wait_for(call("SelectNetwork"))
        world.settle()
        for state in states:
            world.wpa.report_state(state)
        assert (example.end(), example.text) == (0, outcome + "\n")
