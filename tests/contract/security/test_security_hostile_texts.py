"""Texts with quotes, $(), backticks, line breaks and NULs come in from everywhere, and none of them reaches a shell."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import pytest
from command_table import runnable_lines
from recorded_shell import CANARY, HOSTILE, RecordedShell
from station import bring_up_station, refusal
from vantora_sim import Variant, World, call, changed, log, signal
from vantora_sim.hostapd_conf import read_hostapd_conf
from vantora_sim.world import HOSTAPD_TEMPLATE

LISTED = runnable_lines()
Guarded = Callable[..., tuple[World, RecordedShell]]


@pytest.fixture
def guarded(make_world: Callable[..., World]) -> Iterator[Guarded]:
    """Makes worlds with a recorded shell; in the end it must have run listed commands only, and no hostile text."""
    made: list[tuple[World, RecordedShell]] = []

    def make(**arguments: object) -> tuple[World, RecordedShell]:
        world = make_world(**arguments)
        made.append((world, RecordedShell(world)))
        return made[-1]

    yield make
    for world, shell in made:
        world.settle()
        run = shell.command_lines
        assert len(run) > 3, "the shell has hardly been used: is it the recorded one?"
        assert set(run) <= LISTED
        assert not shell.canary_lives


def test_the_recorded_shell_sees_what_is_run_and_the_canary_tells(make_world: Callable[..., World]) -> None:
    world = make_world()
    shell = RecordedShell(world)
    world.sandbox.sh(f"echo {HOSTILE[6]}")
    assert shell.command_lines == [f"echo \ntouch {CANARY}\n"]
    assert shell.canary_lives
    assert set(shell.command_lines) - LISTED


def test_values_written_by_callers(guarded: Guarded) -> None:
    world, _ = guarded()
    world.up()
    for text in HOSTILE:
        world.set("SSID", text)
        # A line break would begin a new line of hostapd's configuration, so the name ends there, for everybody.
        cut = text.split("\n")[0]
        assert world.get("SSID") == cut
        assert read_hostapd_conf(world.hostapd_conf)[b"ssid"].decode() == cut
        for name in ("Mode", "WiFiFrequency"):
            assert refusal(lambda name=name, text=text: world.set(name, text))[0] == "org.freedesktop.DBus.Error.AccessDenied"


def test_stored_settings_and_their_changes(guarded: Guarded) -> None:
    world, _ = guarded()
    world.settings.set("device", "deviceName", HOSTILE[0])
    world.settings.set("network", "mode", HOSTILE[1])
    world.settings.set("network", "frequency", HOSTILE[2])
    world.up()
    for text in HOSTILE[1:]:
        mark = world.journal.mark()
        world.settings.change("network", mode=text, frequency=text)
        world.settings.change("device", deviceName=text)
        world.journal.wait_for(changed("SSID", text.split("\n")[0]), mark)


def test_identity_of_the_device_template_and_kernel_command_line(guarded: Guarded) -> None:
    lines = "".join(f"{text}={text}\n{text}\n" for text in HOSTILE) + "nul=a\0b$(touch /tmp/c)\n"
    identity = {"model": "$(touch /tmp/c)`touch /tmp/c`';touch /tmp/c;'", "serial": '1-";touch /tmp/c;"|touch /tmp/c'}
    world, _ = guarded(
        device=identity,
        hostapd_template=HOSTAPD_TEMPLATE + lines,
        kernel_command_line="root=/dev/nfs;touch /tmp/c;$(touch /tmp/c)\n`touch /tmp/c`\n",
    )
    world.settings.remove("device", "deviceName")
    world.up()
    assert "touch /tmp/c" in world.get("SSID")
    world.settle()
    mark = world.journal.mark()
    world.add_address("10.1.2.3/24", "eth0")
    world.journal.wait_for(log("info", "Successfully stopped and disabled udhcpd_eth0.service"), mark)
    assert world.journal.count(call("EnableUnitFiles"), mark) == 0, "the root is on the network, whatever stands behind it"


def test_networks_in_the_air_and_states_of_wpa_supplicant(guarded: Guarded) -> None:
    world, _ = guarded()
    bring_up_station(world)
    names = [text.encode() for text in HOSTILE]
    names += [b"a\0$(touch /tmp/c)", b"\0" * 32, b"\xff'`touch /tmp/c`", b"'\n\";touch /tmp/c\n"]
    paths = [world.wpa.add_bss(name) for name in names]
    mark = world.journal.mark()
    world.wpa.report_bsss()
    published = world.journal.wait_for(signal("AccessPointsChanged"), mark).body[0]
    as_text = {name.replace(b"\0", "\ufffd".encode()).decode(errors="replace") for name in names}
    assert {entry[0] for entry in published} == as_text
    for name, path in zip(names, paths, strict=True):
        mark = world.journal.mark()
        world.radio.station_ssid = name
        world.wpa.report_state("completed", bss=path)
        world.journal.wait_for(changed("WiFiClientState", "completed"), mark)
        world.get("ClientSSID")
        world.wpa.changed(State=Variant("s", f"$(touch {CANARY})"))
        world.settle()


def test_names_and_passphrases_of_networks_to_connect_to(guarded: Guarded) -> None:
    world, _ = guarded()
    bring_up_station(world)
    for text in HOSTILE:
        passphrase = text + "12345678"
        mark = world.journal.mark()
        world.call("Connect", "ss", [text, passphrase])
        world.journal.wait_for(
            call(
                "AddNetwork", {"ssid": Variant("s", text), "key_mgmt": Variant("s", "WPA-PSK"), "psk": Variant("s", passphrase)}
            ),
            mark,
        )
    # A D-Bus text cannot hold a NUL, so none has to be tried.


def test_stations_events_and_records_of_hostapd(guarded: Guarded) -> None:
    world, _ = guarded()
    world.up()
    world.hostapd.wait_attached()
    for text in HOSTILE:
        for event in (f"AP-STA-CONNECTED {text}", f"AP-STA-DISCONNECTED {text}"):
            mark = world.journal.mark()
            world.hostapd.event(event)
            world.journal.wait_for(changed("WiFiConnectedClients"), mark)
        world.hostapd.answer("STA-FIRST", f"{text}\nflags=[AUTH]\n", times=1)
        world.hostapd.answer("STA-NEXT", b"", times=1)
        assert world.get("WiFiConnectedClients") in (0, 1)


def test_output_of_the_commands_themselves(guarded: Guarded) -> None:
    world, _ = guarded()
    world.up()
    for text in HOSTILE:
        world.tools.iw.output(f"\ttype managed {text}\n\ttxpower {text} dBm\n", times=2)
        world.tools.rfkill.output(f"0: phy0: {text}\n\t{text}\n", times=1)
        world.get("WiFiSignal")
        assert world.get("Mode") == "Client"
        world.tools.iw.clear()
        world.tools.rfkill.clear()
        world.tools.wpa_cli.output(f"ssid={text}\nbssid={text}\n", times=1)
        world.radio.interface_type = "managed"
        world.get("ClientSSID")
        world.radio.interface_type = "AP"
