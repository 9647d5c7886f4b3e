"""Another user of the device reads nothing and changes nothing: on the user bus, the system bus, in files and sockets."""

from __future__ import annotations

import os
from pathlib import Path

import pytest
from access_point import attached_up
from connections import connections_of_the_daemon
from station import bring_up_scanning, bring_up_station
from vantora_sim import Variant, World, changed
from vantora_sim.client import INTERFACE, PATH, SERVICE
from vantora_sim.sandbox import Completed

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="needs root: an ordinary user has no second user id to try")

OTHER = ["/usr/bin/setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"]
OBJECT = f"{SERVICE} {PATH} {INTERFACE}"
REQUESTS = [
    f"get-property {OBJECT} Mode",
    f"get-property {OBJECT} SSID",
    f"set-property {OBJECT} Mode s Client",
    f"call {OBJECT} Scan",
    f"call {OBJECT} Connect ss net secret12",
    f"introspect {SERVICE} {PATH}",
    "list --no-pager",
    "set-property com.vantora.common.Settings1 /com/vantora/common/Settings1/network com.vantora.common.Settings1 mode s Client",
]

SEND = """
import os, socket, sys
sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
try:
    sender.sendto(b'<3>AP-STA-CONNECTED 02:00:00:00:66:66', sys.argv[1])
    print('sent')
except PermissionError:
    print('refused')
"""


def as_other(world: World, *argv: str | Path) -> Completed:
    """Run a program in the sandbox as a user without rights."""
    return world.sandbox.run([*OTHER, *argv])


def busctl_as_other(world: World, arguments: str) -> Completed:
    """Run busctl as a user without rights."""
    return as_other(world, "/usr/bin/busctl", *arguments.split())


@pytest.mark.parametrize("folder_mode", [0o700, 0o755], ids=["as_on_a_device", "with_the_bus_folder_left_open"])
def test_the_user_bus_gives_another_user_nothing(world: World, folder_mode: int) -> None:
    attached_up(world)
    world.sandbox.path("/run/user/0").chmod(folder_mode)
    mark = world.journal.mark()
    for request in REQUESTS:
        refused = busctl_as_other(world, f"--user {request}")
        assert (refused.status, refused.stdout) == (1, ""), request
    world.settle()
    assert {entry.kind for entry in world.journal.since(mark)} == {"exit"}
    assert (world.get("Mode"), world.settings.get("network", "mode")) == ("Host", "Host")


def names_of_the_daemon(world: World) -> list[str]:
    """The daemon's connections to the system bus, by their unique names."""
    names = connections_of_the_daemon(world, world.system_bus.address)
    assert names
    return names


def test_the_system_bus_offers_no_object_of_the_daemon_to_anybody(world: World) -> None:
    bring_up_station(world)
    mark = world.journal.mark()
    for name in names_of_the_daemon(world):
        for call in (
            f"get-property {name} {PATH} {INTERFACE} Mode",
            f"set-property {name} {PATH} {INTERFACE} Mode s Host",
            f"call {name} {PATH} {INTERFACE} Disconnect",
        ):
            refused = busctl_as_other(world, f"--system {call}")
            assert (refused.status, refused.stdout) == (1, "")
            assert "Unknown" in refused.stderr
        tree = busctl_as_other(world, f"--system tree --list {name}")
        assert PATH not in tree.stdout
    world.settle()
    assert {entry.kind for entry in world.journal.since(mark)} == {"exit"}
    assert world.get("Mode") == "Client"


def test_signals_that_another_user_sends_in_wpa_supplicants_stead_are_not_heard(world: World) -> None:
    bring_up_scanning(world)
    mark = world.journal.mark()
    station = "/fi/w1/wpa_supplicant1/Interfaces/1 fi.w1.wpa_supplicant1.Interface PropertiesChanged a{sv} 1 State s completed"
    for name in names_of_the_daemon(world):
        assert busctl_as_other(world, f"--system emit --destination={name} {station}").status == 0
    assert busctl_as_other(world, f"--system emit {station}").status == 0
    world.settle()
    assert {entry.kind for entry in world.journal.since(mark)} == {"exit"}
    # It hears the real one, and with it everything that was sent before.
    world.wpa.changed(State=Variant("s", "disconnected"))
    world.journal.wait_for(changed("WiFiClientState", "disconnected"), mark)
    assert world.journal.count(changed("WiFiClientState"), mark) == 1


def test_hostapds_configuration_can_not_be_read_and_its_events_not_be_forged(world: World) -> None:
    world.up()
    world.hostapd.wait_attached()
    assert as_other(world, "/bin/cat", "/run/hostapd.conf").stdout == ""
    sockets = list((world.work / "tmp").glob("wpa_ctrl_*"))
    assert len(sockets) == 1  # the listener's
    mark = world.journal.mark()
    forge = ["/usr/bin/python3", "-c", SEND, f"/tmp/{sockets[0].name}"]
    assert as_other(world, *forge).stdout == "refused\n"
    # Not even root: the socket is connected to hostapd's, and the kernel takes nothing from any other.
    assert world.sandbox.run(forge).stdout == "refused\n"
    assert as_other(world, *forge[:-1], "/run/sim/log").stdout == "sent\n"  # so it is not the sender that is wrong
    world.hostapd.join("02:00:00:00:00:01")
    world.journal.wait_for(changed("WiFiConnectedClients", 1), mark)
    assert world.journal.count(changed("WiFiConnectedClients"), mark) == 1


def test_the_daemon_itself_can_not_be_looked_into_or_signalled(world: World) -> None:
    world.up()
    pid = world.sandbox.sh("pidof vantora-network").stdout.strip()
    assert pid.isdigit()
    assert as_other(world, "/bin/cat", f"/proc/{pid}/environ").stdout == ""
    assert as_other(world, "/bin/ls", f"/proc/{pid}/fd").stdout == ""
    assert as_other(world, "/bin/kill", pid).status != 0
    assert world.daemon and world.daemon.running
