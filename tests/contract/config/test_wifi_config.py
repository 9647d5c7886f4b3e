"""How the stored configuration is read at boot, and what stands in for it when it cannot be read."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from control import logs
from settings_texts import ABSENT, GET_BOOL, MISSING, config_dump, get_failed
from vantora_sim import Variant, World, call

READ = ("info", "Read settings from Settings Daemon")
SAFE = ("err", "[Main] Failed to read initial wifi configuration, use safe config")


def identity(model: str = "Korrin One", serial: str = "12-3456", ssid: str = "Korrin One-3456") -> list[tuple[str, str]]:
    """The lines of the default SSID."""
    return [("info", f"model name: {model}"), ("info", f"serial number : {serial}"), ("info", f"default ssid: {ssid}")]


SAFE_DUMP = config_dump("Enabled", "Host", "5.0 GHz", "Korrin One-3456")


def config_logs(world: World) -> list[tuple[str, str]]:
    """The lines from the read of the configuration to the end of its dump."""
    lines = logs(world, 0)
    start = lines.index(READ)
    return lines[start : lines.index(("info", "Client SSID:      ")) + 1]


def test_each_setting_is_read_by_one_get_of_its_property_in_order(world: World) -> None:
    world.up()

    def get(section: str, key: str) -> Any:
        return call(
            "Get",
            "com.vantora.common.Settings1",
            key,
            bus="user",
            destination="com.vantora.common.Settings1",
            path=f"/com/vantora/common/Settings1/{section}",
            interface="org.freedesktop.DBus.Properties",
            signature="ss",
        )

    gets = world.journal.find(call("Get", bus="user"))[:5]
    expected = [
        get("development", "killWifiOnBoot"),
        get("network", "enabled"),
        get("network", "mode"),
        get("network", "frequency"),
        get("device", "deviceName"),
    ]
    assert len(gets) == 5
    assert all(pattern.matches(entry) for pattern, entry in zip(expected, gets))


@pytest.mark.parametrize(
    ("stored", "lines"),
    [
        ((True, "Host", "2.4", "Korrin One"), config_dump("Enabled", "Host", "2.4 GHz", "Korrin One")),
        ((False, "Client", "5", ""), config_dump("Disabled", "Client", "5.0 GHz", "")),
        ((True, "client", "5", "x" * 40), config_dump("Enabled", "Host", "5.0 GHz", "x" * 40)),
        ((False, "", "2.4", "50%s"), config_dump("Disabled", "Host", "2.4 GHz", "50%s")),
    ],
)
def test_the_stored_configuration_is_read_and_dumped(
    world: World, stored: tuple[bool, str, str, str], lines: list[tuple[str, str]]
) -> None:
    enabled, mode, frequency, name = stored
    world.settings.set("network", "enabled", enabled)
    world.settings.set("network", "mode", mode)
    world.settings.set("network", "frequency", frequency)
    world.settings.set("device", "deviceName", name)
    world.up()
    assert config_logs(world) == [READ, *lines]


@pytest.mark.parametrize(
    ("section", "key", "extra"),
    [
        ("network", "enabled", []),
        ("network", "mode", [("warning", "Failed to get WiFi mode")]),
        ("network", "frequency", []),
        ("device", "deviceName", [("warning", "Failed to fetch host ssid")]),
    ],
)
def test_a_missing_setting_leads_to_the_safe_configuration(
    world: World, section: str, key: str, extra: list[tuple[str, str]]
) -> None:
    world.settings.remove(section, key)
    world.up()
    assert config_logs(world) == [READ, *get_failed(key, MISSING), *extra, SAFE, *identity(), *SAFE_DUMP]
    assert world.get("Mode") == "Host"


@pytest.mark.parametrize(
    ("section", "key", "value", "wanted"),
    [
        ("network", "enabled", Variant("s", "true"), "b"),
        ("network", "enabled", Variant("u", 1), "b"),
        ("network", "mode", Variant("b", True), "s"),
        ("network", "frequency", Variant("d", 2.4), "s"),
        ("device", "deviceName", Variant("as", ["a"]), "s"),
    ],
)
def test_a_setting_of_the_wrong_type_can_not_be_read(world: World, section: str, key: str, value: Variant, wanted: str) -> None:
    world.settings.set(section, key, value)
    world.up()
    text = f"Property {key} is of type '{value.signature}', not '{wanted}'"
    lines = config_logs(world)
    assert lines[:3] == [READ, *get_failed(key, text)]
    assert lines[-12:] == [SAFE, *identity(), *SAFE_DUMP]


@pytest.mark.parametrize("frequency", ["", "5.0", "6"])
def test_an_unknown_band_leads_to_the_safe_configuration(world: World, frequency: str) -> None:
    world.settings.set("network", "frequency", frequency)
    world.settings.set("network", "mode", "Client")
    world.up()
    assert config_logs(world) == [
        READ,
        ("warning", f"Got unknown WiFi frequency band '{frequency}'"),
        SAFE,
        *identity(),
        *SAFE_DUMP,
    ]


@pytest.mark.parametrize(
    ("frequency", "radio_type", "hw_mode", "warnings"),
    [
        ("", "1", "a", []),
        ("", "0", "g", []),
        (
            "5.0",
            "1",
            "g",
            [
                ("warning", "Got invalid value of 'frequency' setting"),
                ("warning", "[WiFi] Failed to get AP freq, use default (2.4)"),
            ],
        ),
    ],
)
def test_the_access_point_takes_the_default_band_only_for_an_unset_one(
    make_world: Callable[..., World], frequency: str, radio_type: str, hw_mode: str, warnings: list[tuple[str, str]]
) -> None:
    world = make_world(device={"radio_type": radio_type})
    world.settings.set("network", "frequency", frequency)
    world.up()
    assert f"\nhw_mode={hw_mode}\n" in world.hostapd_conf.read_text()
    lines = logs(world, 0)
    start = lines.index(("info", "Starting Hostapd daemon service"))
    assert [line for line in lines[start:] if line[0] == "warning"][: len(warnings)] == warnings


@pytest.mark.parametrize(
    ("model", "serial", "ssid"),
    [
        ("Model", "AB-12-34", "Model-12-34"),
        ("Model", "123456", "Model-123456"),
        ("Model", "12-", "Model-"),
        ("Model of a very long name indeed, it is", "1", "Model of a very long name indeed, it is-1"),
    ],
)
def test_the_default_ssid_follows_from_the_device(make_world: Callable[..., World], model: str, serial: str, ssid: str) -> None:
    world = make_world(device={"model": model, "serial": serial, "radio_type": "0"})
    world.settings.remove("network", "enabled")
    world.settings.remove("device", "deviceName")
    world.up()
    assert config_logs(world) == [
        READ,
        *get_failed("enabled", MISSING),
        SAFE,
        *identity(model, serial, ssid),
        *config_dump("Enabled", "Host", "2.4 GHz", ssid),
    ]
    assert f"\nssid={ssid}\n" in world.hostapd_conf.read_text()


def test_without_a_settings_daemon_the_device_comes_up_as_the_safe_access_point(world: World) -> None:
    world.settings.go()
    world.up()
    lines = logs(world, 0)
    assert get_failed("killWifiOnBoot", ABSENT) == [line for line in lines if "killWifiOnBoot" in line[1]]
    assert config_logs(world) == [READ, *get_failed("enabled", ABSENT), SAFE, *identity(), *SAFE_DUMP]
    assert "\nssid=Korrin One-3456\n" in world.hostapd_conf.read_text()
    assert world.get("WiFiState") == 1


def test_without_an_answer_every_read_is_given_up_after_its_time_out(world: World) -> None:
    world.settings.hang("Get")
    world.up(environment={"SYSTEMD_BUS_TIMEOUT": "1s"})
    assert config_logs(world) == [READ, *get_failed("enabled", "Connection timed out"), SAFE, *identity(), *SAFE_DUMP]


def test_slow_answers_are_waited_for(world: World) -> None:
    world.settings.slow("Get", 0.2)
    world.settings.set("network", "mode", "Client")
    world.up()
    assert config_logs(world) == [READ, *config_dump("Enabled", "Client", "2.4 GHz", "Korrin One")]


def test_a_daemon_that_ends_in_the_middle_of_a_read_counts_as_failed(world: World) -> None:
    world.settings.vanish("Get", on="network.frequency")
    world.up()
    text = "Message recipient disconnected from message bus without replying"
    assert config_logs(world) == [READ, *get_failed("frequency", text), SAFE, *identity(), *SAFE_DUMP]


def test_an_answer_that_is_no_variant_counts_as_failed(world: World) -> None:
    world.settings.reply("Get", "b", [True], on="network.enabled")
    world.up()
    lines = config_logs(world)
    assert lines[1] == (
        "err",
        f"{GET_BOOL}: ERROR sdbus_utils::GetProperty enabled failed "
        "The reply for property enabled holds 'b' in place of a variant",
    )
    assert lines[-8:] == SAFE_DUMP
