"""Changing the access point's SSID: through the SSID property, and through the stored setting "deviceName"."""

from __future__ import annotations

import pytest
from control import HOSTAPD, READ_MODE, READ_POWER, REFUSED, RESTART_HOSTAPD, bring_up_quietly, control_logs, logs, steps
from settings_texts import set_failed
from vantora_sim import CallRefused, World

WRITTEN = ("info", "Set 'SSID' property")


def announce(ssid: str) -> list[str]:
    """The steps of the announcement as an access point."""
    return [READ_POWER, READ_MODE, f"announce SSID={ssid}"]


def test_a_write_is_stored_as_the_device_name_applied_and_announced(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("SSID", "Kitchen")
    assert steps(world, mark) == ["set device.deviceName=Kitchen", READ_POWER, *RESTART_HOSTAPD, *announce("Kitchen")]
    assert control_logs(world, mark) == [WRITTEN]
    assert world.settings.get("device", "deviceName") == "Kitchen"
    assert "\nssid=Kitchen\n" in world.hostapd_conf.read_text()


def test_a_changed_setting_is_applied_and_announced_but_not_stored(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.change("device", deviceName="Kitchen")
    assert steps(world, mark) == [READ_POWER, *RESTART_HOSTAPD, *announce("Kitchen")]
    assert control_logs(world, mark) == []


def test_the_ssid_that_is_applied_already_succeeds_without_a_word(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("SSID", "Korrin One")
    world.settings.change("device", deviceName="Korrin One")
    assert steps(world, mark) == []
    assert logs(world, mark) == [WRITTEN]


def test_thirty_two_bytes_are_taken_and_thirty_three_refused(world: World) -> None:
    bring_up_quietly(world)
    longest = "ü" * 16
    mark = world.journal.mark()
    world.set("SSID", longest)
    assert steps(world, mark)[-1] == f"announce SSID={longest}"
    mark = world.journal.mark()
    with pytest.raises(CallRefused) as refused:
        world.set("SSID", longest + "x")
    assert (refused.value.name, refused.value.text) == REFUSED
    world.settings.change("device", deviceName=longest + "x")
    assert steps(world, mark) == []
    too_long = ("err", "[Main] set_wifi_ssid: SSID is too long")
    assert logs(world, mark) == [WRITTEN, too_long, too_long]


def test_an_empty_ssid_is_taken(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("SSID", "")
    assert steps(world, mark) == ["set device.deviceName=", READ_POWER, *RESTART_HOSTAPD, *announce("")]
    assert "\nssid=\n" in world.hostapd_conf.read_text()


def test_while_the_radio_is_off_the_ssid_is_only_stored(world: World) -> None:
    world.settings.set("network", "enabled", False)
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("SSID", "Kitchen")
    assert steps(world, mark) == ["set device.deviceName=Kitchen", READ_POWER]
    disabled = ("info", "[Main] set_wifi_ssid: Changing SSID, while wifi is disabled")
    assert logs(world, mark) == [WRITTEN, disabled]
    mark = world.journal.mark()
    world.settings.change("device", deviceName="Cellar")
    assert steps(world, mark) == [READ_POWER]
    assert logs(world, mark) == [disabled]


def test_a_station_has_its_access_point_restarted_with_the_new_ssid_all_the_same(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("SSID", "Kitchen")
    # What is announced is what a station has to say: it is no access point.
    assert steps(world, mark) == ["set device.deviceName=Kitchen", READ_POWER, *RESTART_HOSTAPD, *announce("")]
    assert "\nssid=Kitchen\n" in world.hostapd_conf.read_text()
    assert control_logs(world, mark) == [WRITTEN]


def test_a_refused_restart_is_passed_over(world: World) -> None:
    bring_up_quietly(world)
    world.systemd.refuse("Restart", on=HOSTAPD)
    mark = world.journal.mark()
    world.set("SSID", "Kitchen")
    assert steps(world, mark)[-1] == "announce SSID=Kitchen"


def test_an_ssid_that_can_not_be_stored_is_applied_all_the_same(world: World) -> None:
    bring_up_quietly(world)
    world.settings.refuse("Set", text="disk full")
    mark = world.journal.mark()
    world.set("SSID", "Kitchen")
    assert steps(world, mark) == ["set device.deviceName=Kitchen", READ_POWER, *RESTART_HOSTAPD, *announce("Kitchen")]
    assert logs(world, mark)[:3] == [WRITTEN, *set_failed("deviceName", "disk full")]
    assert world.settings.get("device", "deviceName") == "Korrin One"


def test_the_echo_of_a_write_changes_and_announces_nothing_further(world: World) -> None:
    world.settings.echo = True
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("SSID", "Kitchen")
    assert steps(world, mark) == ["set device.deviceName=Kitchen", READ_POWER, *RESTART_HOSTAPD, *announce("Kitchen")]
    assert control_logs(world, mark) == [WRITTEN]
