"""Changing the access point's band: through the WiFiFrequency property, and through the stored setting "frequency"."""

from __future__ import annotations

from collections.abc import Callable

import pytest
from control import HOSTAPD, READ_MODE, READ_POWER, REFUSED, RESTART_HOSTAPD, bring_up_quietly, control_logs, logs, steps
from settings_texts import set_failed
from vantora_sim import CallRefused, World

WRITTEN = ("info", "[Main] Set WiFi frequency called")
ANNOUNCE_5 = [READ_POWER, READ_MODE, "announce WiFiFrequency=5"]


def test_a_write_is_stored_applied_and_announced(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    assert steps(world, mark) == ["set network.frequency=5", READ_POWER, READ_MODE, *RESTART_HOSTAPD, *ANNOUNCE_5]
    assert control_logs(world, mark) == [WRITTEN]
    assert world.settings.get("network", "frequency") == "5"
    assert "\nhw_mode=a\n" in world.hostapd_conf.read_text()
    world.set("WiFiFrequency", "2.4")
    assert "\nhw_mode=g\n" in world.hostapd_conf.read_text()


def test_a_changed_setting_is_applied_and_announced_but_not_stored(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.settings.change("network", frequency="5")
    assert steps(world, mark) == [READ_POWER, READ_MODE, *RESTART_HOSTAPD, *ANNOUNCE_5]
    assert control_logs(world, mark) == []


def test_the_band_that_is_applied_already_succeeds_and_is_not_stored(world: World) -> None:
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("WiFiFrequency", "2.4")
    world.settings.change("network", frequency="2.4")
    assert steps(world, mark) == []
    already = ("err", "[Main] set_wifi_frequency: already on wifi frequency 2.4")
    assert logs(world, mark) == [WRITTEN, already, already]


def test_other_texts_are_refused_before_anything_is_read(world: World) -> None:
    bring_up_quietly(world)
    for text in ("5.0", "", "2.4 "):
        mark = world.journal.mark()
        with pytest.raises(CallRefused) as refused:
            world.set("WiFiFrequency", text)
        assert (refused.value.name, refused.value.text) == REFUSED
        world.settings.change("network", frequency=text)
        assert steps(world, mark) == []
        invalid = ("err", "[Main] set_wifi_frequency: Invalid WiFi requency")
        assert logs(world, mark) == [WRITTEN, invalid, invalid]


@pytest.mark.parametrize("radio_type", ["0", "2"])
def test_five_gigahertz_is_refused_on_a_radio_without_it(make_world: Callable[..., World], radio_type: str) -> None:
    world = make_world(device={"radio_type": radio_type})
    bring_up_quietly(world)
    mark = world.journal.mark()
    with pytest.raises(CallRefused) as refused:
        world.set("WiFiFrequency", "5")
    assert (refused.value.name, refused.value.text) == REFUSED
    assert steps(world, mark) == []
    assert logs(world, mark) == [WRITTEN, ("err", "[Main] set_wifi_frequency: This device do not support 5GHz")]
    assert world.settings.get("network", "frequency") == "2.4"


def test_while_the_radio_is_off_the_band_is_only_stored(world: World) -> None:
    world.settings.set("network", "enabled", False)
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    assert steps(world, mark) == ["set network.frequency=5", READ_POWER]
    disabled = ("info", "[Main] set_wifi_frequency: Changing frequency, while wifi is disabled")
    assert logs(world, mark) == [WRITTEN, disabled]
    mark = world.journal.mark()
    world.settings.change("network", frequency="5")
    assert steps(world, mark) == [READ_POWER]
    assert logs(world, mark) == [disabled]


@pytest.mark.parametrize(
    ("interface_type", "text"), [("managed", "Failed, Wifi is not in host mode"), ("monitor", "Failed to read wifi mode")]
)
def test_where_there_is_no_access_point_the_band_is_stored_but_refused(world: World, interface_type: str, text: str) -> None:
    bring_up_quietly(world)
    world.radio.interface_type = interface_type
    mark = world.journal.mark()
    with pytest.raises(CallRefused) as refused:
        world.set("WiFiFrequency", "5")
    assert (refused.value.name, refused.value.text) == REFUSED
    assert steps(world, mark) == ["set network.frequency=5", READ_POWER, READ_MODE]
    assert logs(world, mark) == [WRITTEN, ("err", f"[Main] set_wifi_frequency: {text}")]
    assert world.settings.get("network", "frequency") == "5"


def test_a_refused_restart_is_passed_over(world: World) -> None:
    bring_up_quietly(world)
    world.systemd.refuse("Restart", on=HOSTAPD)
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    assert steps(world, mark)[-1] == "announce WiFiFrequency=5"


def test_a_band_that_can_not_be_stored_is_applied_all_the_same(world: World) -> None:
    bring_up_quietly(world)
    world.settings.refuse("Set", text="disk full")
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    assert steps(world, mark) == ["set network.frequency=5", READ_POWER, READ_MODE, *RESTART_HOSTAPD, *ANNOUNCE_5]
    assert logs(world, mark)[:3] == [WRITTEN, *set_failed("frequency", "disk full")]
    assert world.settings.get("network", "frequency") == "2.4"


def test_the_echo_of_a_write_changes_and_announces_nothing_further(world: World) -> None:
    world.settings.echo = True
    bring_up_quietly(world)
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    assert steps(world, mark) == ["set network.frequency=5", READ_POWER, READ_MODE, *RESTART_HOSTAPD, *ANNOUNCE_5]
    assert control_logs(world, mark) == [WRITTEN, ("err", "[Main] set_wifi_frequency: already on wifi frequency 5")]
