"""Power and mode of the radio: how they are read, and each sequence that changes them, step by step and failure by failure."""

from __future__ import annotations

import pytest
from access_point import HOSTAPD, SEPARATOR, attached_up, heading
from unit_control import DHCP_CLIENT, DHCP_SERVER, JOB_FAILED, job_call, loaded_log
from vantora_sim import CallRefused, World, changed, command, log, unit_path

STATION = "wpa_supplicant-nl80211@wlan0.service"
FLUSH_FAILED = ("warning", "[WiFi] Failed to flush IP, interface might have inavlid IP")
TO_CLIENT, TO_HOST = ("info", "[WiFi] Switch wifi mode to 1"), ("info", "[WiFi] Switch wifi mode to 0")


def tries(line: str, failures: int, status: int = 256) -> list[tuple[str, str]]:
    """The lines of a command that fails so many times."""
    return [
        ("info", f'utils_do_system_call: trying "{line}"...'),
        *[
            ("err", f"utils_do_system_call: system call failed: {status}"),
            ("err", f'utils_do_system_call: retrying "{line}"...'),
        ]
        * failures,
    ]


# Power


@pytest.mark.parametrize(
    ("listing", "on"),
    [
        ("0: phy0: Wireless LAN\n\tSoft blocked: no\n\tHard blocked: no\n", 1),
        ("0: phy0: Wireless LAN\n\tSoft blocked: yes\n\tHard blocked: no\n", 0),
        ("0: phy0: Wireless LAN\n\tSoft blocked: no\n\tHard blocked: yes\n", 0),
        ("0: yes: Wireless LAN\n\tSoft blocked: no\n\tHard blocked: no\n", 1),
        ("", 1),
        ("first line\n" + "." * 253 + "yes\n", 0),
        ("first line\n" + "." * 254 + "yes\n", 1),
        ("first line\n" + "." * 100_000 + "yes\n", 1),
        ("garbage", 1),
    ],
    ids=[
        "on",
        "soft-blocked",
        "hard-blocked",
        "yes in the first line",
        "no WLAN",
        "yes ends at byte 256",
        "yes after byte 256",
        "much output",
        "garbage",
    ],
)
def test_power_is_on_unless_the_first_256_bytes_behind_the_first_line_say_yes(world: World, listing: str, on: int) -> None:
    world.up()
    world.tools.rfkill.output(listing, on="list wlan")
    mark = world.journal.mark()
    assert world.get("WiFiState") == on
    assert world.journal.commands(mark) == ["rfkill list wlan"]
    assert world.journal.logs(mark) == []


def test_commands_that_are_missing_read_as_on_and_of_unknown_mode(world: World) -> None:
    world.radio.soft_blocked = True
    world.up({"PATH": "/nonexistent"})
    assert world.get("WiFiState") == 1  # no "yes" is printed
    assert world.get("Mode") == "unknown"
    assert world.journal.commands() == []


@pytest.mark.parametrize("failures", [1, 2])
def test_power_command_that_fails_at_first_is_retried(world: World, failures: int) -> None:
    world.radio.soft_blocked = True
    world.tools.rfkill.fail(on="unblock wlan", times=failures)
    world.up()
    world.journal.expect_logs_in_order(
        [
            ("info", "[WiFi] Enable wifi: True"),
            *tries("rfkill unblock wlan", failures),
            ("info", "[Main] WiFi is on, start in 'Host' mode"),
        ]
    )
    assert world.journal.count(command("rfkill unblock wlan")) == failures + 1
    assert world.get("WiFiState") == 1


def test_power_on_that_fails_three_times_is_given_up(world: World) -> None:
    world.radio.soft_blocked = True
    world.tools.rfkill.fail(7, on="unblock wlan")
    world.up()
    world.journal.expect_logs_in_order(
        [
            ("info", "[WiFi] Enable wifi: True"),
            *tries("rfkill unblock wlan", 3, status=7 << 8),
            ("err", "[WiFi] wifi_set_enabled: Unable to power on wifi, error: 1792"),
            ("info", "[Main] init_wifi_callback: Failed to change wifi state, hope for best and continue"),
            ("info", "[Main] WiFi is disabled, do nothing..."),
        ]
    )
    assert world.journal.count(command("rfkill unblock wlan")) == 3
    assert world.get("WiFiState") == 0


def test_power_off_that_fails_is_reported_without_the_tag_and_stops_nothing(world: World) -> None:
    attached_up(world)
    world.tools.rfkill.die(9, on="block wlan")
    mark = world.journal.mark()
    with pytest.raises(CallRefused):
        world.set("WiFiState", 0)
    world.journal.expect_logs_in_order(
        [
            ("info", "[WiFi] Enable wifi: False"),
            *tries("rfkill block wlan", 3, status=137 << 8),
            ("err", f"wifi_set_enabled: Unable to power off wifi, error: {137 << 8}"),
            ("err", "[Main] set_wifi_state: Failed to set wifi state"),
        ],
        mark,
    )
    assert world.journal.count(job_call("Stop", HOSTAPD), mark) == 0


def test_power_off_blocks_first_and_then_stops_the_stored_mode(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    world.set("WiFiState", 0)
    world.journal.expect_in_order(
        [command("rfkill block wlan"), job_call("Stop", DHCP_SERVER), job_call("Stop", HOSTAPD)], mark
    )
    assert world.journal.count(job_call("Stop", STATION), mark) == 0
    assert world.get("WiFiState") == 0


# Mode


@pytest.mark.parametrize(
    ("output", "mode"),
    [
        ("Interface wlan0\n\ttype AP\n", "Host"),
        ("Interface wlan0\n\ttype managed\n", "Client"),
        ("Interface wlan0\n\ttype monitor\n", "unknown"),
        ("\ttype managed AP\n", "Host"),
        ("\ttype AP managed\n", "Host"),
        ("\ttype managed\n\tssid AP type\n", "Host"),
        ("\tssid AP\n\ttype managed\n", "Client"),
        ("\ttype ap\n\ttype Managed\n", "unknown"),
        ("type " + "." * 249 + "AP\n", "Host"),
        ("type " + "." * 250 + "AP\n", "unknown"),
        ("AP managed\n", "unknown"),
        ("", "unknown"),
    ],
    ids=[
        "AP",
        "managed",
        "monitor",
        "both",
        "both, other order",
        "AP in an SSID with the word type",
        "AP in an SSID",
        "other case",
        "ends at byte 256",
        "after byte 256",
        "no line with type",
        "nothing",
    ],
)
def test_mode_is_the_interface_type_and_ap_goes_first(world: World, output: str, mode: str) -> None:
    world.up()
    world.tools.iw.output(output)
    mark = world.journal.mark()
    assert world.get("Mode") == mode
    assert world.journal.commands(mark) == ["rfkill list wlan", "iw dev wlan0 info"]
    assert world.journal.logs(mark) == ([("err", "[Main] Failed to read wifi mode")] if mode == "unknown" else [])


def test_iw_that_fails_reads_as_unknown_mode(world: World) -> None:
    world.up()
    world.tools.iw.fail(237)
    assert world.get("Mode") == "unknown"


# Sequences


def jobs(world: World, since: int) -> list[tuple[str, str]]:
    """The unit jobs asked for, in order, as (verb, object path)."""
    return [
        (entry.member, entry.path)
        for entry in world.journal.since(since)
        if entry.kind == "call" and entry.member in ("Start", "Stop", "Restart")
    ]


def test_switch_to_client_stops_the_access_point_and_starts_the_station(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.expect_logs_in_order(
        [
            TO_CLIENT,
            *heading("[WiFi] Stop Host mode"),
            ("info", "Stoping UDHCP daemon service"),
            loaded_log(DHCP_SERVER),
            ("info", f"[Utils] Stopped '{unit_path(DHCP_SERVER)}' unit with job id:/org/freedesktop/systemd1/job/5"),
            ("info", "Stopping Hostapd daemon service"),
            loaded_log(HOSTAPD),
            ("info", f"[Utils] Stopped '{unit_path(HOSTAPD)}' unit with job id:/org/freedesktop/systemd1/job/6"),
            SEPARATOR,
            *heading("[WiFi] Start Client mode"),
            ("info", "Starting WPA Supplicant daemon service"),
            loaded_log(STATION),
            ("info", f"[Utils] Started '{unit_path(STATION)}' unit with job id:/org/freedesktop/systemd1/job/7"),
            ("info", "[Utils] Flush IP addr of wlan0"),
            ("info", 'utils_do_system_call: trying "ip addr flush dev wlan0"...'),
            ("info", "utils_flush_ip: wlan0 ip address deleted successfully"),
            SEPARATOR,
        ],
        mark,
    )
    world.journal.expect_in_order(
        [
            job_call("Stop", DHCP_SERVER),
            job_call("Stop", HOSTAPD),
            job_call("Start", STATION),
            command("ip addr flush dev wlan0"),
            changed("Mode", "Client"),
        ],
        mark,
    )
    assert len(jobs(world, mark)) == 3  # the DHCP client is not started here


def test_switch_to_host_stops_the_station_and_starts_the_access_point(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    mark = world.journal.mark()
    world.set("Mode", "Host")
    lines = world.journal.logs(mark)
    assert TO_HOST in lines
    world.journal.expect_logs_in_order([*heading("[WiFi] Stop Client mode"), ("info", "Stoping UDHCP client service")], mark)
    world.journal.expect_logs_in_order(
        [SEPARATOR, *heading("[WiFi] Start Host mode"), ("info", "[Utils] Flush IP addr of wlan0")], mark
    )
    world.journal.expect_in_order(
        [
            job_call("Stop", DHCP_CLIENT),
            job_call("Stop", STATION),
            command("ip addr flush dev wlan0"),
            command("ip addr add 192.168.8.1/24 dev wlan0"),
            job_call("Start", HOSTAPD),
            job_call("Start", DHCP_SERVER),
            log(*SEPARATOR),
            changed("Mode", "Host"),
        ],
        mark,
    )
    assert len(jobs(world, mark)) == 4
    assert "192.168.8.1/24" in world.sandbox.sh("ip -4 addr show dev wlan0").stdout


def test_switch_stops_the_other_mode_although_it_does_not_run(world: World) -> None:
    world.up()
    assert jobs(world, 0) == [
        ("Stop", unit_path(DHCP_CLIENT)),
        ("Stop", unit_path(STATION)),
        ("Start", unit_path(HOSTAPD)),
        ("Start", unit_path(DHCP_SERVER)),
    ]


def test_own_address_stays_after_the_stop_until_the_next_start_removes_it(world: World) -> None:
    attached_up(world)
    world.set("WiFiState", 0)
    assert "192.168.8.1/24" in world.sandbox.sh("ip -4 addr show dev wlan0").stdout
    world.settings.set("network", "mode", "Client")
    world.set("WiFiState", 1)
    assert "192.168.8.1" not in world.sandbox.sh("ip -4 addr show dev wlan0").stdout


def test_addresses_that_can_not_be_removed_are_no_reason_to_stop(world: World) -> None:
    world.tools.ip.fail(2, on="addr flush")
    world.up()
    flush = [
        *tries("ip addr flush dev wlan0", 3, status=512),
        ("err", "utils_flush_ip: Unable to flush wlan0 address, error: 512"),
        FLUSH_FAILED,
    ]
    world.journal.expect_logs_in_order(
        [
            *heading("[WiFi] Start Host mode"),
            ("info", "[Utils] Flush IP addr of wlan0"),
            *flush,
            ("info", "[Utils] Add IP addr of wlan0: 192.168.8.1/24"),
        ]
    )
    assert world.get("Mode") == "Host"
    mark = world.journal.mark()
    world.set("Mode", "Client")
    world.journal.expect_logs_in_order([("info", "[Utils] Flush IP addr of wlan0"), *flush, SEPARATOR], mark)
    assert world.get("Mode") == "Client"


def test_address_that_can_not_be_added_ends_the_start_of_the_access_point(world: World) -> None:
    world.tools.ip.fail(2, on="addr add")
    world.up()
    world.journal.expect_logs_in_order(
        [
            ("info", "[Utils] Add IP addr of wlan0: 192.168.8.1/24"),
            *tries("ip addr add 192.168.8.1/24 dev wlan0", 3, status=512),
            ("err", "utils_add_ip: Unable to add wlan0 address, error: 512"),
            ("err", "[WiFi] wifi_host_start: Failed to add IP address"),
            ("err", "[WiFi] wifi_mode_switch: Failed to start Host mode"),
            ("info", "[Main] init_wifi_callback: Failed to change wifi mode, hope for best and continue"),
        ]
    )
    assert [verb for verb, _ in jobs(world, 0)] == ["Stop", "Stop"]
    assert world.journal.count(log("info", "Starting Hostapd daemon service")) == 0


@pytest.mark.parametrize("failures", [1, 2])
def test_address_command_that_fails_at_first_is_retried(world: World, failures: int) -> None:
    world.tools.ip.fail(2, on="addr add", times=failures)
    world.up()
    assert world.journal.count(command("ip addr add 192.168.8.1/24 dev wlan0")) == failures + 1
    assert world.get("Mode") == "Host"
    assert "192.168.8.1/24" in world.sandbox.sh("ip -4 addr show dev wlan0").stdout


def test_commands_that_are_missing_fail_with_status_127(world: World) -> None:
    world.settings.set("network", "mode", "Client")
    world.up({"PATH": "/nonexistent"})
    world.journal.expect_logs_in_order(
        [
            *tries("ip addr flush dev wlan0", 3, status=127 << 8),
            ("err", f"utils_flush_ip: Unable to flush wlan0 address, error: {127 << 8}"),
            FLUSH_FAILED,
            SEPARATOR,
        ]
    )
    world.journal.expect_logs_in_order(
        [
            *tries("rfkill unblock wlan", 3, status=127 << 8),
            ("err", f"[WiFi] wifi_set_enabled: Unable to power on wifi, error: {127 << 8}"),
        ]
    )


@pytest.mark.parametrize(("verb", "unit"), [("Stop", DHCP_SERVER), ("Stop", HOSTAPD), ("Start", STATION)])
def test_refused_job_counts_as_done_on_the_way_to_client(world: World, verb: str, unit: str) -> None:
    attached_up(world)
    world.systemd.refuse(verb, on=unit, name="org.freedesktop.DBus.Error.AccessDenied")
    mark = world.journal.mark()
    world.set("Mode", "Client")
    assert ("err", JOB_FAILED[verb].format(unit_path(unit), "refused (r = -13)")) in world.journal.logs(mark)
    assert [path for _, path in jobs(world, mark)] == [unit_path(DHCP_SERVER), unit_path(HOSTAPD), unit_path(STATION)]


@pytest.mark.parametrize(
    ("verb", "unit"), [("Stop", DHCP_CLIENT), ("Stop", STATION), ("Start", HOSTAPD), ("Start", DHCP_SERVER)]
)
def test_refused_job_counts_as_done_on_the_way_to_host(world: World, verb: str, unit: str) -> None:
    world.settings.set("network", "mode", "Client")
    world.up()
    world.systemd.refuse(verb, on=unit, name="org.freedesktop.DBus.Error.AccessDenied")
    mark = world.journal.mark()
    world.hostapd.start()  # so that nobody waits for its socket when its unit is refused
    world.set("Mode", "Host")
    assert ("err", JOB_FAILED[verb].format(unit_path(unit), "refused (r = -13)")) in world.journal.logs(mark)
    assert [path for _, path in jobs(world, mark)] == [
        unit_path(DHCP_CLIENT),
        unit_path(STATION),
        unit_path(HOSTAPD),
        unit_path(DHCP_SERVER),
    ]
