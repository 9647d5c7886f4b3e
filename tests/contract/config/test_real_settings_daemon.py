"""The daemon with the settings daemon of this repository in place of the scripted one."""

from __future__ import annotations

import json
import time
from pathlib import Path

import pytest
from vantora_sim import DEADLINE, Process, Variant, World, changed, log

SERVICE = "com.vantora.common.Settings1"
BASE = "/com/vantora/common/Settings1"
STATE = "/etc/korrin/settings.json"


def start_settingsd(world: World, build_dir: Path) -> Process:
    """Start the settings daemon and wait until it owns its name."""
    settingsd = world.sandbox.start([build_dir / "vantora-settingsd", "--state", STATE])
    deadline = time.monotonic() + DEADLINE
    while not world.name_owned(SERVICE):
        assert settingsd.running, settingsd.stderr
        assert time.monotonic() < deadline, "the settings daemon does not come up"
        time.sleep(0.005)
    return settingsd


@pytest.fixture
def settingsd(world: World, build_dir: Path) -> Process:
    """The settings daemon, running in the world."""
    world.settings.go()
    return start_settingsd(world, build_dir)


def stored(world: World, section: str, key: str) -> str:
    """A setting as busctl prints it."""
    return world.sandbox.sh(f"busctl --user get-property {SERVICE} {BASE}/{section} {SERVICE} {key}").stdout.strip()


def store(world: World, section: str, key: str, signature: str, value: str) -> None:
    """Change a setting as another program does."""
    completed = world.sandbox.sh(f"busctl --user set-property {SERVICE} {BASE}/{section} {SERVICE} {key} {signature} '{value}'")
    assert completed.status == 0, completed.stderr


def announced(world: World, since: int) -> list[tuple[str, object]]:
    """What was announced about the settings themselves, without what the listeners add."""
    world.settle()
    return [change for change in world.journal.changes(since) if change[0] in ("WiFiState", "Mode", "WiFiFrequency", "SSID")]


@pytest.mark.usefixtures("settingsd")
def test_the_device_comes_up_with_its_defaults(world: World) -> None:
    world.up()
    assert (world.get("WiFiState"), world.get("Mode"), world.get("WiFiFrequency"), world.get("SSID")) == (
        1,
        "Host",
        "2.4",
        "Korrin One-3456",
    )
    assert [line for line in world.journal.logs() if line[0] in ("err", "warning")] == []


@pytest.mark.usefixtures("settingsd")
def test_writes_are_stored_and_each_is_announced_once_though_the_writer_is_notified_too(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    world.settle()
    world.set("SSID", "Küche")
    world.settle()
    world.set("Mode", "Client")
    world.journal.wait_for(log("err", "[Main] set_wifi_mode: already in wifi mode Client"), mark)
    assert announced(world, mark) == [("WiFiFrequency", "5"), ("SSID", "Küche"), ("Mode", "Client")]
    assert (stored(world, "network", "frequency"), stored(world, "network", "mode")) == ('s "5"', 's "Client"')
    kept = json.loads(world.sandbox.path(STATE).read_text())
    assert "Küche" in json.dumps(kept, ensure_ascii=False)


@pytest.mark.usefixtures("settingsd")
def test_two_writes_right_after_each_other_are_not_undone_by_the_notification_of_the_first(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    writes = [
        world.call_async(
            "Set", "ssv", ["com.vantora.Network1.WiFi", "Mode", Variant("s", mode)], interface="org.freedesktop.DBus.Properties"
        )
        for mode in ("Client", "Host")
    ]
    for write in writes:
        write.result(DEADLINE)
    world.journal.wait_for(log("err", "[Main] set_wifi_mode: already in wifi mode Host"), mark)
    assert announced(world, mark) == [("Mode", "Client"), ("Mode", "Host")]


@pytest.mark.usefixtures("settingsd")
def test_another_programs_changes_reach_the_radio(world: World) -> None:
    world.up()
    mark = world.journal.mark()
    store(world, "device", "deviceName", "s", "Cellar")
    world.journal.wait_for(changed("SSID", "Cellar"), mark)
    store(world, "network", "frequency", "s", "5")
    world.journal.wait_for(changed("WiFiFrequency", "5"), mark)
    store(world, "network", "mode", "s", "Client")
    world.journal.wait_for(changed("Mode", "Client"), mark)
    store(world, "network", "enabled", "b", "false")
    world.journal.wait_for(changed("WiFiState", 0), mark)
    assert world.radio.soft_blocked
    store(world, "network", "enabled", "b", "true")
    world.journal.wait_for(changed("WiFiState", 1), mark)
    assert announced(world, mark) == [
        ("SSID", "Cellar"),
        ("WiFiFrequency", "5"),
        ("Mode", "Client"),
        ("WiFiState", 0),
        ("Mode", "Client"),
        ("WiFiState", 1),
    ]


def test_values_survive_the_end_of_both_daemons(world: World, settingsd: Process, build_dir: Path) -> None:
    world.up()
    world.set("SSID", "Attic")
    world.set("Mode", "Client")
    assert world.stop_daemon() == 0
    assert settingsd.stop() == 0
    start_settingsd(world, build_dir)
    world.up()
    assert world.get("Mode") == "Client"
    assert stored(world, "device", "deviceName") == 's "Attic"'


def test_the_settings_daemon_may_be_killed_and_come_back_while_the_device_runs(
    world: World, settingsd: Process, build_dir: Path
) -> None:
    world.up()
    world.set("SSID", "Attic")
    settingsd.stop(9)
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.wait_for(log("warning", "Failed to set 'mode' setting"), mark)
    assert world.get("Mode") == "Client"
    start_settingsd(world, build_dir)
    assert (stored(world, "device", "deviceName"), stored(world, "network", "mode")) == ('s "Attic"', 's "Host"')
    mark = world.journal.mark()
    store(world, "network", "enabled", "b", "false")
    world.journal.wait_for(changed("WiFiState", 0), mark)


@pytest.mark.usefixtures("settingsd")
def test_a_reset_by_another_program_brings_the_radio_back_to_the_default(world: World) -> None:
    world.up()
    world.set("WiFiFrequency", "5")
    world.settle()
    mark = world.journal.mark()
    completed = world.sandbox.sh(f"busctl --user call {SERVICE} {BASE} {SERVICE} ResetSection s network")
    assert completed.status == 0, completed.stderr
    world.journal.wait_for(changed("WiFiFrequency", "2.4"), mark)


@pytest.mark.usefixtures("settingsd")
def test_kill_on_boot_is_read_from_it(world: World) -> None:
    store(world, "development", "killWifiOnBoot", "b", "true")
    world.up()
    world.journal.expect_in_order(
        [
            log("info", "[Main] main: Killing Wi-Fi on boot"),
            log("info", "[WiFi] Enable wifi: False"),
            log("info", "[WiFi] Enable wifi: True"),
        ]
    )
