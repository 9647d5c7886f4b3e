"""How the device is brought into its stored configuration once the loop runs: each step, and each step's failure."""

from __future__ import annotations

from collections.abc import Callable, Sequence

import pytest
from settings_texts import config_dump
from station import wait_first_state
from vantora_sim import World, call, changed, command, log, notify, unit_path

NETLINK_LOG = ("info", "[NETLINK] Starting kernel netlink listener...")
POWER_ON_LOGS = [("info", "[WiFi] Enable wifi: True"), ("info", 'utils_do_system_call: trying "rfkill unblock wlan"...')]
POWER_OFF_LOGS = [("info", "[WiFi] Enable wifi: False"), ("info", 'utils_do_system_call: trying "rfkill block wlan"...')]


def startup_logs(world: World) -> list[tuple[str, str]]:
    """The log from the first line of the deferred start-up on."""
    lines = world.journal.logs()
    return lines[lines.index(("info", "Setup initial WiFi mode")) :]


def jobs(world: World) -> list[tuple[str, str]]:
    """The unit jobs asked for, as (verb, unit path)."""
    return [(entry.member, entry.path) for entry in world.journal.find(call(lambda name: name in ("Start", "Restart", "Stop")))]


def test_a_stored_access_point_is_started(world: World) -> None:
    world.up()
    lines = startup_logs(world)
    assert lines[:2] == [("info", "Setup initial WiFi mode"), ("info", "Read settings from Settings Daemon")]
    assert lines[2:14] == [
        *config_dump("Enabled", "Host", "2.4 GHz", "Korrin One"),
        *POWER_ON_LOGS,
        ("info", "[Main] WiFi is on, start in 'Host' mode"),
        ("info", "[WiFi] Switch wifi mode to 0"),
    ]
    assert NETLINK_LOG in lines
    world.journal.expect_in_order(
        [
            notify("READY=1"),
            log("info", "Setup initial WiFi mode"),
            command("rfkill unblock wlan"),
            command("rfkill list wlan"),
            changed("WiFiState", 1, alone=True),
            call("Stop", path=unit_path("udhcpc@wlan0.service")),
            call("Stop", path=unit_path("wpa_supplicant-nl80211@wlan0.service")),
            command("ip addr flush dev wlan0"),
            command("ip addr add 192.168.8.1/24 dev wlan0"),
            call("Start", path=unit_path("hostapd.service")),
            call("Start", path=unit_path("udhcpd.service")),
            changed("Mode", "Host", alone=True),
        ]
    )
    assert world.journal.changes() == [("WiFiState", 1), ("Mode", "Host")]


def test_a_stored_station_is_started(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.settings.set("network", "frequency", "5")
    world.up()
    assert startup_logs(world)[2:14] == [
        *config_dump("Enabled", "Client", "5.0 GHz", "Korrin One"),
        *POWER_ON_LOGS,
        ("info", "[Main] WiFi is on, start in 'Client' mode"),
        ("info", "[WiFi] Switch wifi mode to 1"),
    ]
    assert jobs(world) == [
        ("Stop", unit_path("udhcpd.service")),
        ("Stop", unit_path("hostapd.service")),
        ("Start", unit_path("wpa_supplicant-nl80211@wlan0.service")),
    ]
    world.journal.expect_in_order([changed("WiFiState", 1, alone=True), changed("Mode", "Client", alone=True)])
    wait_first_state(world)
    assert sorted(name for name, _ in world.journal.changes()) == ["Mode", "WiFiClientState", "WiFiState"]


@pytest.mark.parametrize("mode", ["Host", "Client"])
def test_a_stored_radio_off_stays_off(world: World, mode: str) -> None:
    world.settings.set("network", "enabled", False)
    world.settings.set("network", "mode", mode)
    world.up()
    assert startup_logs(world)[2:14] == [
        *config_dump("Disabled", mode, "2.4 GHz", "Korrin One"),
        *POWER_OFF_LOGS,
        ("info", "[Main] WiFi is disabled, do nothing..."),
        NETLINK_LOG,
    ]
    assert world.radio.soft_blocked
    assert jobs(world) == []
    assert world.journal.changes() == [("WiFiState", 0)]


@pytest.mark.parametrize("trouble", ["absent", "refusing", "no enabled", "no mode", "no frequency", "odd frequency", "no name"])
def test_unreadable_settings_mean_an_access_point_with_the_default_name(world: World, trouble: str) -> None:
    world.settings.set("network", "enabled", False)
    world.settings.set("network", "mode", "Client")
    match trouble:
        case "absent":
            world.settings.go()
        case "refusing":
            world.settings.refuse()
        case "no enabled":
            world.settings.remove("network", "enabled")
        case "no mode":
            world.settings.remove("network", "mode")
        case "no frequency":
            world.settings.remove("network", "frequency")
        case "odd frequency":
            world.settings.set("network", "frequency", "60")
        case "no name":
            world.settings.remove("device", "deviceName")
    world.up()
    world.journal.expect_logs_in_order(
        [
            ("err", "[Main] Failed to read initial wifi configuration, use safe config"),
            ("info", "model name: Korrin One"),
            ("info", "serial number : 12-3456"),
            ("info", "default ssid: Korrin One-3456"),
            *config_dump("Enabled", "Host", "5.0 GHz", "Korrin One-3456"),
            *POWER_ON_LOGS,
            ("info", "[Main] WiFi is on, start in 'Host' mode"),
        ]
    )
    assert world.journal.changes() == [("WiFiState", 1), ("Mode", "Host")]
    assert world.get("Mode") == "Host"
    readable_name = trouble not in ("absent", "refusing", "no name")
    assert world.get("SSID") == (
        "Korrin One" if readable_name else "Korrin One-3456"
    ), "hostapd's own look-up takes what it can get"


def test_the_safe_band_of_a_radio_without_5_ghz_is_the_other(make_world: Callable[..., World]) -> None:
    world = make_world(device={"radio_type": "0"})
    world.settings.go()
    world.up()
    world.journal.expect_logs_in_order(config_dump("Enabled", "Host", "2.4 GHz", "Korrin One-3456"))


def expect_hoped_for(world: World, errors: Sequence[str], what: str, after: tuple[str, str]) -> None:
    """The daemon comes up, complains, and goes on all the same."""
    world.up()
    hope = ("info", f"[Main] init_wifi_callback: Failed to change wifi {what}, hope for best and continue")
    world.journal.expect_logs_in_order([*(("err", text) for text in errors), hope, after])


STARTS_HOST = ("info", "[Main] WiFi is on, start in 'Host' mode")


def test_a_radio_that_can_not_be_switched_is_hoped_for(world: World) -> None:
    world.tools.rfkill.fail(status=1, on="unblock wlan")
    errors = [
        'utils_do_system_call: retrying "rfkill unblock wlan"...',
        "[WiFi] wifi_set_enabled: Unable to power on wifi, error: 256",
    ]
    expect_hoped_for(world, errors, "state", STARTS_HOST)
    assert world.journal.count(command("rfkill unblock wlan")) == 3
    assert world.journal.changes() == [("WiFiState", 1), ("Mode", "Host")]


def test_a_radio_that_stays_blocked_is_announced_off_and_left_alone(world: World) -> None:
    world.radio.hard_blocked = True
    world.up()
    assert startup_logs(world)[10:] == [
        *POWER_ON_LOGS,
        ("info", "[Main] WiFi is disabled, do nothing..."),
        NETLINK_LOG,
        ("info", "[NETLINK] Starting kernel netlink task..."),
    ]
    assert world.journal.changes() == [("WiFiState", 0)]
    assert jobs(world) == []


def test_a_radio_that_can_not_be_switched_off_is_started_all_the_same(world: World) -> None:
    world.settings.set("network", "enabled", False)
    world.tools.rfkill.fail(status=1, on="block wlan")
    expect_hoped_for(world, ["wifi_set_enabled: Unable to power off wifi, error: 256"], "state", STARTS_HOST)


@pytest.mark.parametrize("mode", ["Host", "Client"])
def test_a_radio_killed_at_boot_is_brought_back_when_it_is_stored_as_on(world: World, mode: str) -> None:
    world.settings.set("development", "killWifiOnBoot", True)
    world.settings.set("network", "mode", mode)
    world.up()
    world.journal.expect_in_order(
        [
            log("info", "[Main] main: Killing Wi-Fi on boot"),
            command("rfkill block wlan"),
            notify("READY=1"),
            log("info", "Setup initial WiFi mode"),
            command("rfkill unblock wlan"),
            changed("WiFiState", 1),
            changed("Mode", mode),
        ]
    )
    assert not world.radio.soft_blocked


def test_a_radio_killed_at_boot_stays_off_when_it_is_stored_as_off(world: World) -> None:
    world.settings.set("development", "killWifiOnBoot", True)
    world.settings.set("network", "enabled", False)
    world.up()
    assert [line for line in world.journal.commands() if line.startswith("rfkill") and "list" not in line] == [
        "rfkill block wlan"
    ] * 2
    assert world.radio.soft_blocked
    assert world.journal.changes() == [("WiFiState", 0)]


def test_a_failing_mode_is_hoped_for_and_the_events_are_followed(world: World) -> None:
    world.tools.ip.fail(status=1, on="addr add")
    errors = ["[WiFi] wifi_host_start: Failed to add IP address", "[WiFi] wifi_mode_switch: Failed to start Host mode"]
    expect_hoped_for(world, errors, "mode", NETLINK_LOG)
    assert world.journal.changes() == [("WiFiState", 1)]
    mark = world.journal.mark()
    world.add_address("10.0.0.5/24")
    world.journal.wait_for(changed("IPAddress", "10.0.0.5"), mark)


def test_nobody_hears_of_the_events_of_the_first_switch(world: World) -> None:
    world.add_address("10.0.0.5/24")  # the first switch removes it, and adds another
    world.systemd.hang("Start", on="udhcpd.service")
    world.start_daemon()
    world.journal.wait_for(call("Start", path=unit_path("udhcpd.service")))
    world.hostapd.wait_attached()
    world.hostapd.enable()
    world.hostapd.join("02:00:00:00:30:01")
    world.journal.wait_for(log(text=lambda text: "02:00:00:00:30:01" in text))
    world.wpa.come_back()
    world.wpa.report_bsss()
    world.systemd.clear()
    world.wait_up()
    assert [name for name, _ in world.journal.changes()][:2] == ["WiFiState", "Mode"]
    assert world.journal.count(changed("IPAddress")) == 0
    assert world.journal.count(changed("WiFiConnectedClients")) == 0
    assert world.journal.count(changed("WiFiAccessPointInitialised")) == 0
    for reaction in ("wifi_host_ap_initialised", "wifi_host_station_connected", "Successfully"):
        assert world.journal.count(log(text=lambda text, name=reaction: text.startswith(name))) == 0
    assert world.get("WiFiAccessPointInitialised") is True, "it is known all the same"


def test_it_comes_before_what_the_settings_daemon_has_told_meanwhile(world: World) -> None:
    world.settings.hang("Get", on="development.killWifiOnBoot")
    world.start_daemon()
    world.journal.wait_for(call("Get"))  # by then it listens to the settings daemon, and waits for its answer
    for _ in range(20):
        world.settings.notify("network", {"mode": "Client"})
        world.settings.notify("device", {"deviceName": "Attic"})
    world.settings.release()
    world.wait_up()
    lines = world.journal.logs()
    begin = lines.index(("info", "Setup initial WiFi mode"))
    assert not [text for _, text in lines[:begin] if text.startswith(("[Main] set_wifi_", "[WiFi] Switch"))]
    world.journal.wait_for(changed("Mode", "Client"))
    assert world.journal.changes()[:3] == [("WiFiState", 1), ("Mode", "Host"), ("Mode", "Client")]


def test_requests_before_the_start_up_wait_for_it(world: World) -> None:
    world.systemd.slow("LoadUnit", 0.2)
    world.start_daemon()
    world.wait_ready()
    assert world.get("Mode") == "Host"
    world.wait_up()
