"""Changing the mode: through the Mode property, and through the stored setting "mode"."""

from __future__ import annotations

import pytest
from control import ANNOUNCE_CLIENT, ANNOUNCE_HOST, DHCP_SERVER, READ_MODE, READ_POWER, REFUSED, START_CLIENT, START_HOST
from control import STOP_CLIENT, STOP_HOST, bring_up_quietly, control_logs, logs, steps
from settings_texts import set_failed
from vantora_sim import CallRefused, Variant, World, call

WRITTEN = ("info", "[Main] 'ChangeMode' d-bus method called")


def test_a_write_is_stored_applied_and_announced(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("Mode", "Client")
    assert steps(world, mark) == [READ_MODE, "set network.mode=Client", READ_POWER, *STOP_HOST, *START_CLIENT, *ANNOUNCE_CLIENT]
    assert control_logs(world, mark) == [WRITTEN]
    mark = world.journal.mark()
    world.set("Mode", "Host")
    assert steps(world, mark) == [READ_MODE, "set network.mode=Host", READ_POWER, *STOP_CLIENT, *START_HOST, *ANNOUNCE_HOST]
    assert world.settings.get("network", "mode") == "Host"


def test_a_changed_setting_is_applied_and_announced_but_not_stored(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.change("network", mode="Client")
    assert steps(world, mark) == [READ_MODE, READ_POWER, *STOP_HOST, *START_CLIENT, *ANNOUNCE_CLIENT]
    assert control_logs(world, mark) == []


def test_the_mode_is_stored_by_one_set_of_its_property(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.wait_for(
        call(
            "Set",
            "com.vantora.common.Settings1",
            "mode",
            Variant("s", "Client"),
            bus="user",
            destination="com.vantora.common.Settings1",
            path="/com/vantora/common/Settings1/network",
            interface="org.freedesktop.DBus.Properties",
            signature="ssv",
        ),
        mark,
    )


def test_the_mode_that_is_there_already_succeeds_and_is_not_stored(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("Mode", "Host")
    assert steps(world, mark) == [READ_MODE]
    assert logs(world, mark) == [WRITTEN, ("err", "[Main] set_wifi_mode: already in wifi mode Host")]
    world.radio.interface_type = "managed"
    mark = world.journal.mark()
    world.settings.change("network", mode="Client")
    assert steps(world, mark) == [READ_MODE]
    assert logs(world, mark) == [("err", "[Main] set_wifi_mode: already in wifi mode Client")]


def test_other_texts_are_refused_before_anything_is_read(world: World) -> None:
    bring_up_quietly(world)
    for text in ("host", "", "Access point"):
        mark = world.journal.mark()
        with pytest.raises(CallRefused) as refused:
            world.set("Mode", text)
        assert (refused.value.name, refused.value.text) == REFUSED
        world.settings.change("network", mode=text)
        assert steps(world, mark) == []
        unknown = ("err", f"[Main] set_wifi_mode: Unknown mode:{text}")
        assert logs(world, mark) == [WRITTEN, unknown, unknown]


def test_while_the_radio_is_off_the_mode_is_stored_and_taken_at_the_next_power_on(world: World) -> None:
    world.settings.set("network", "enabled", False)
    bring_up_quietly(world)
    world.radio.interface_type = "AP"
    mark = world.journal.mark()
    world.set("Mode", "Client")
    assert steps(world, mark) == [READ_MODE, "set network.mode=Client", READ_POWER]
    disabled = ("err", "[Main] set_wifi_mode: Cannot change mode, wifi is disabled")
    assert logs(world, mark) == [WRITTEN, disabled]
    mark = world.journal.mark()
    world.settings.change("network", mode="Client")
    assert steps(world, mark) == [READ_MODE, READ_POWER]
    assert logs(world, mark) == [disabled]
    mark = world.journal.mark()
    world.set("WiFiState", 1)
    world.settle()
    assert world.journal.changes(mark) == [("Mode", "Client"), ("WiFiState", 1)]


def test_a_mode_that_can_not_be_read_is_logged_and_the_change_made(world: World) -> None:
    bring_up_quietly(world)
    world.radio.interface_type = "monitor"
    mark = world.journal.mark()
    world.set("Mode", "Host")
    assert steps(world, mark) == [READ_MODE, "set network.mode=Host", READ_POWER, *STOP_CLIENT, *START_HOST, *ANNOUNCE_HOST]
    assert control_logs(world, mark) == [WRITTEN, ("err", "[Main] set_wifi_mode: Failed to read wifi mode")]


def test_a_switch_that_fails_is_refused_not_announced_and_stays_stored(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    bring_up_quietly(world)
    world.tools.ip.fail(on="addr add")
    mark = world.journal.mark()
    with pytest.raises(CallRefused) as refused:
        world.set("Mode", "Host")
    assert (refused.value.name, refused.value.text) == REFUSED
    add = "ip addr add 192.168.8.1/24 dev wlan0"
    assert steps(world, mark) == [
        READ_MODE,
        "set network.mode=Host",
        READ_POWER,
        *STOP_CLIENT,
        "ip addr flush dev wlan0",
        add,
        add,
        add,
    ]
    assert logs(world, mark)[-3:] == [
        ("err", "[WiFi] wifi_host_start: Failed to add IP address"),
        ("err", "[WiFi] wifi_mode_switch: Failed to start Host mode"),
        ("err", "[Main] set_wifi_mode: Mode switch failed"),
    ]
    assert world.settings.get("network", "mode") == "Host"


def test_a_refused_stop_is_passed_over(world: World) -> None:
    bring_up_quietly(world)
    world.systemd.refuse("Stop", on=DHCP_SERVER)
    mark = world.journal.mark()
    world.set("Mode", "Client")
    assert steps(world, mark)[-1] == "announce Mode=Client"


def test_a_mode_that_can_not_be_stored_is_applied_all_the_same(world: World) -> None:
    bring_up_quietly(world)
    world.settings.refuse("Set", text="disk full")
    mark = world.journal.mark()
    world.set("Mode", "Client")
    assert steps(world, mark) == [READ_MODE, "set network.mode=Client", READ_POWER, *STOP_HOST, *START_CLIENT, *ANNOUNCE_CLIENT]
    assert logs(world, mark)[:3] == [WRITTEN, *set_failed("mode", "disk full")]
    assert world.settings.get("network", "mode") == "Host"


def test_the_echo_of_a_write_changes_and_announces_nothing_further(world: World) -> None:
    world.settings.echo = True
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("Mode", "Client")
    assert steps(world, mark) == [
        READ_MODE,
        "set network.mode=Client",
        READ_POWER,
        *STOP_HOST,
        *START_CLIENT,
        *ANNOUNCE_CLIENT,
        READ_MODE,
    ]
    assert control_logs(world, mark) == [WRITTEN, ("err", "[Main] set_wifi_mode: already in wifi mode Client")]
