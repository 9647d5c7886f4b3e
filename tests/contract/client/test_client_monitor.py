"""The client's `monitor`: the state, then every change; a daemon that comes and goes; a bus that does not."""

from __future__ import annotations

import re
import signal
from datetime import datetime, time, timedelta, timezone
from time import monotonic, sleep

from station import bring_up_station
from vantora_sim import DEADLINE, Process, World
from wifi_client import UNREACHABLE, Running, kill_daemon, objects_in, on_terminal, start

TIME = r"^\d\d:\d\d:\d\d  "


def wait_object(client: Running, **expected: object) -> dict[str, object]:
    """Wait for an object with these fields."""
    return client.wait_until(
        lambda text: next((found for found in objects_in(text) if expected.items() <= found.items()), None), str(expected)
    )


def wait_printed(process: Process) -> None:
    """Wait until a process of the sandbox has written something."""
    deadline = monotonic() + DEADLINE
    while not process.stdout:
        assert monotonic() < deadline, "nothing was written"
        sleep(0.01)


def monitor_up(world: World, *arguments: str) -> Running:
    """Start `monitor` for programs and wait until it shows the state."""
    client = start(world, "monitor", "--json", *arguments)
    wait_object(client, type="status")
    return client


def test_monitor_begins_with_the_state_and_shows_changes_to_people(world: World) -> None:
    world.up()
    with start(world, "monitor") as client:
        client.wait_for("Transmit power .*\n")
        assert client.text.startswith("Radio           on\nMode            Host (access point)\n")
        world.set("Mode", "Client")
        client.wait_for(f"(?m){TIME}Mode            Client \\(station\\)\n")
        world.add_address("10.0.0.9/24")
        client.wait_for(f"(?m){TIME}Address         10.0.0.9\n")


def test_monitor_for_programs_names_the_fields_of_status(world: World) -> None:
    world.up()
    with monitor_up(world) as client:
        world.set("SSID", "Kitchen")
        world.set("WiFiFrequency", "5")
        world.set("WiFiState", 0)
        wait_object(client, type="changed", name="radio", value="off")
        found = objects_in(client.text)
        assert all(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", entry["time"]) for entry in found)
        changes = [(entry["name"], entry["value"]) for entry in found if entry["type"] == "changed"]
        wanted = [("ssid", "Kitchen"), ("band", "5"), ("radio", "off")]
        assert [change for change in changes if change in wanted] == wanted
        assert {name for name, _ in changes} <= set(found[0])


def test_people_read_their_own_time_and_programs_that_of_the_world(world: World) -> None:
    world.up()
    with start(world, "monitor", TZ="Here-05:30") as people, start(world, "monitor", "--json", TZ="Here-05:30") as programs:
        people.wait_for("Transmit power .*\n")
        wait_object(programs, type="status")
        before = datetime.now(timezone.utc)
        world.set("SSID", "Kitchen")
        own = people.wait_until(lambda text: re.search(r"(?m)^(\d\d:\d\d:\d\d)  SSID", text), "a time")[1]
        told = str(wait_object(programs, type="changed", name="ssid")["time"])
    after = datetime.now(timezone.utc)
    # A time without a date is the one nearest to when it was told.
    here = timezone(timedelta(hours=5, minutes=30))
    owns = [datetime.combine(day.astimezone(here), time.fromisoformat(own), here) for day in (before, after)]
    second = timedelta(seconds=1)
    assert any(before - second <= one <= after for one in owns)
    assert before - second <= datetime.fromisoformat(told) <= after


def test_monitor_reads_the_network_that_is_never_announced(world: World) -> None:
    bring_up_station(world)
    with monitor_up(world) as client:
        world.radio.station_ssid = b"cafe"
        world.wpa.report_state("completed", world.wpa.add_bss("cafe"))
        wait_object(client, type="changed", name="client_state", value="completed")
        wait_object(client, type="changed", name="client_ssid", value="cafe")


def test_monitor_shows_networks(world: World) -> None:
    bring_up_station(world)
    with monitor_up(world) as client, start(world, "monitor") as people:
        people.wait_for("Transmit power .*\n")
        world.wpa.add_bss("cafe\x1b[2J", signal=-41)
        world.wpa.report_bsss()
        people.wait_for(re.escape('1 in range, strongest "cafe\\x1b[2J" -41 dBm'))
        found = wait_object(client, type="networks")
        assert found["networks"] == [
            {"ssid": "cafe\x1b[2J", "signal": -41, "bars": 4, "encrypted": True, "wpa_psk": True, "joinable": True}
        ]


def test_monitor_waits_for_a_daemon_that_died_and_shows_its_state_again(world: World) -> None:
    world.up()
    with monitor_up(world) as client, start(world, "monitor") as people:
        people.wait_for("Transmit power .*\n")
        kill_daemon(world)
        wait_object(client, type="daemon", running=False)
        people.wait_for("Daemon +has left the bus; waiting for it to come back\n")
        world.up()
        wait_object(client, type="daemon", running=True)
        client.wait_until(lambda text: sum(entry["type"] == "status" for entry in objects_in(text)) == 2, "second state")
        people.wait_for("Daemon +is back\n")
        people.wait_for("(?m)^Radio +on\n", 2)
        world.set("Mode", "Client")
        wait_object(client, type="changed", name="mode", value="Client")


def test_monitor_ends_with_3_when_the_bus_goes_away(world: World) -> None:
    world.up()
    assert world.daemon
    with monitor_up(world) as client, on_terminal(world, "monitor", NO_COLOR="1") as people:
        people.wait_for("Transmit power .*\n")
        world.user_bus.stop()
        assert (client.end(), people.end()) == (UNREACHABLE, UNREACHABLE)
        assert objects_in(client.text)[-1]["type"] == "error"
        assert people.text.splitlines()[-1].startswith("vantora-wifi: the user bus cannot be reached: ")
    world.daemon.wait()


def test_monitor_ends_at_control_c(world: World) -> None:
    world.up()
    with on_terminal(world, "monitor") as client:
        client.wait_for("Transmit power")
        client.type("\x03")
        assert client.end() == -signal.SIGINT


def test_monitor_ends_when_nobody_reads_it_any_more(world: World) -> None:
    world.up()
    pipe = world.sandbox.start(["/bin/sh", "-c", f"{world.build / 'vantora-wifi'} --json monitor | head -n 1"])
    wait_printed(pipe)
    world.set("SSID", "Kitchen")
    assert pipe.wait() == 0
    assert pipe.stdout.count("\n") == 1
