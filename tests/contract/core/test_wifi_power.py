"""Switching the radio on and off: through the WiFiState property, and through the stored setting "enabled"."""

from __future__ import annotations

from collections.abc import Callable, Sequence

import pytest
from control import ANNOUNCE_CLIENT, ANNOUNCE_HOST, HOSTAPD, READ_CONFIG, READ_POWER, REFUSED, START_CLIENT, START_HOST
from control import STOP_CLIENT, STOP_HOST, bring_up_quietly, control_logs, logs, steps
from vantora_sim import CallRefused, Variant, World

Switch = Callable[[World, bool], None]


def by_property(world: World, on: bool) -> None:
    """Write the property."""
    world.set("WiFiState", 1 if on else 0)


def by_setting(world: World, on: bool) -> None:
    """Change the setting as another program does."""
    world.settings.change("network", enabled=on)


def switched_off(*stop: str) -> list[str]:
    """The steps of switching off where this stops the stored mode."""
    return [READ_POWER, *READ_CONFIG, "rfkill block wlan", *stop, READ_POWER, "announce WiFiState=0"]


def switched_on(*switch: str, announced: Sequence[str]) -> list[str]:
    """The steps of switching on where this brings the stored mode about."""
    return [READ_POWER, *READ_CONFIG, "rfkill unblock wlan", *switch, *announced, READ_POWER, "announce WiFiState=1"]


both_ways = pytest.mark.parametrize("switch", [by_property, by_setting])


@both_ways
def test_switching_off_blocks_the_radio_then_stops_the_stored_mode_then_announces(world: World, switch: Switch) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    switch(world, False)
    assert steps(world, mark) == switched_off(*STOP_HOST)
    assert control_logs(world, mark) == []
    assert logs(world, mark)[:3] == [
        ("info", "Read settings from Settings Daemon"),
        ("info", "[WiFi] Enable wifi: False"),
        ("info", 'utils_do_system_call: trying "rfkill block wlan"...'),
    ]


@both_ways
def test_switching_on_starts_the_stored_mode_and_announces_mode_then_state(world: World, switch: Switch) -> None:
    world.settings.set("network", "enabled", False)
    bring_up_quietly(world)
    mark = world.journal.mark()
    switch(world, True)
    assert steps(world, mark) == switched_on(*STOP_CLIENT, *START_HOST, announced=ANNOUNCE_HOST)
    assert control_logs(world, mark) == []


def test_power_is_never_stored(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("WiFiState", 0)
    world.set("WiFiState", 1)
    assert not [step for step in steps(world, mark) if step.startswith("set ")]
    assert world.settings.get("network", "enabled") is True


def test_switching_on_takes_the_stored_mode_not_the_one_of_the_interface(world: World) -> None:
    bring_up_quietly(world)
    world.set("WiFiState", 0)
    world.settings.set("network", "mode", "Client")
    mark = world.journal.mark()
    world.set("WiFiState", 1)
    assert steps(world, mark) == switched_on(*STOP_HOST, *START_CLIENT, announced=ANNOUNCE_CLIENT)


def test_switching_off_stops_the_stored_mode_though_the_interface_is_in_the_other(world: World) -> None:
    bring_up_quietly(world)
    world.settings.set("network", "mode", "Client")
    mark = world.journal.mark()
    world.set("WiFiState", 0)
    assert steps(world, mark) == switched_off(*STOP_CLIENT)


@both_ways
@pytest.mark.parametrize("on", [True, False])
def test_the_state_that_is_there_already_succeeds_without_action(world: World, switch: Switch, on: bool) -> None:
    world.settings.set("network", "enabled", on)
    bring_up_quietly(world)
    mark = world.journal.mark()
    switch(world, on)
    assert steps(world, mark) == [READ_POWER]
    assert logs(world, mark) == [("err", f"[Main] set_wifi_state: already in wifi state {int(on)}")]


@pytest.mark.parametrize("state", [2, 2**32 - 1])
def test_other_states_are_refused_before_anything_is_read(world: World, state: int) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    with pytest.raises(CallRefused) as refused:
        world.set("WiFiState", state)
    assert (refused.value.name, refused.value.text) == REFUSED
    assert steps(world, mark) == []
    assert logs(world, mark) == [("err", f"[Main] set_wifi_state: Unsupported state: {state}")]


def test_a_radio_that_does_not_obey_fails_and_nothing_is_announced(world: World) -> None:
    bring_up_quietly(world)
    world.tools.rfkill.fail(status=1, on="block wlan")
    mark = world.journal.mark()
    with pytest.raises(CallRefused) as refused:
        world.set("WiFiState", 0)
    assert (refused.value.name, refused.value.text) == REFUSED
    assert steps(world, mark) == [READ_POWER, *READ_CONFIG, *["rfkill block wlan"] * 3]
    assert logs(world, mark)[-1] == ("err", "[Main] set_wifi_state: Failed to set wifi state")


@both_ways
def test_a_mode_that_can_not_be_started_is_logged_and_only_the_state_announced(world: World, switch: Switch) -> None:
    world.settings.set("network", "enabled", False)
    bring_up_quietly(world)
    world.tools.ip.fail(on="addr add")
    mark = world.journal.mark()
    switch(world, True)
    assert steps(world, mark)[-2:] == [READ_POWER, "announce WiFiState=1"]
    assert world.journal.changes(mark) == [("WiFiState", 1)]
    assert logs(world, mark)[-3:] == [
        ("err", "[WiFi] wifi_host_start: Failed to add IP address"),
        ("err", "[WiFi] wifi_mode_switch: Failed to start Host mode"),
        ("err", "[Main] set_wifi_state: Failed to switch wifi mode"),
    ]


def test_a_refused_stop_is_passed_over(world: World) -> None:
    bring_up_quietly(world)
    world.systemd.refuse("Stop", on=HOSTAPD)
    mark = world.journal.mark()
    world.set("WiFiState", 0)
    assert steps(world, mark)[-1] == "announce WiFiState=0"
    assert control_logs(world, mark) == []


def test_switching_on_without_settings_brings_up_the_safe_access_point(world: World) -> None:
    world.settings.set("network", "enabled", False)
    bring_up_quietly(world)
    world.settings.set("network", "mode", "Client")
    world.settings.set("network", "frequency", "")
    mark = world.journal.mark()
    world.set("WiFiState", 1)
    assert logs(world, mark)[:6] == [
        ("info", "Read settings from Settings Daemon"),
        ("warning", "Got unknown WiFi frequency band ''"),
        ("info", "model name: Korrin One"),
        ("info", "serial number : 12-3456"),
        ("info", "default ssid: Korrin One-3456"),
        ("info", "[WiFi] Enable wifi: True"),
    ]
    assert world.journal.changes(mark) == [("Mode", "Host"), ("WiFiState", 1)]


def test_the_setting_with_another_type_is_ignored(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    for value in (Variant("s", "false"), Variant("u", 0), Variant("v", Variant("b", False))):
        world.settings.notify("network", {"enabled": value})
    assert steps(world, mark) == []
    assert logs(world, mark) == []
