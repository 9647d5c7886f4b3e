"""Shell commands that change the system: three runs and no more, and what is logged of them."""

from __future__ import annotations

import signal

import pytest
from vantora_sim import CallRefused, World, command

BLOCK = "rfkill block wlan"
FLUSH = "ip addr flush dev wlan0"
ADD = "ip addr add 192.168.8.1/24 dev wlan0"

Line = tuple[str, str]


def trying(line: str) -> Line:
    """The line before the first run."""
    return "info", f'utils_do_system_call: trying "{line}"...'


def failed(line: str, status: int) -> list[Line]:
    """The lines after a run that failed, the last included."""
    return [
        ("err", f"utils_do_system_call: system call failed: {status}"),
        ("err", f'utils_do_system_call: retrying "{line}"...'),
    ]


def power_off(world: World) -> int:
    """Switch Wi-Fi off; returns the mark before it."""
    mark = world.journal.mark()
    world.set("WiFiState", 0)
    return mark


def test_command_that_succeeds_runs_once(world: World) -> None:
    world.up()
    mark = power_off(world)
    world.journal.expect_logs_in_order([("info", "[WiFi] Enable wifi: False"), trying(BLOCK)], mark)
    assert world.journal.count(command(BLOCK), mark) == 1
    assert ("err", f'utils_do_system_call: retrying "{BLOCK}"...') not in world.journal.logs(mark)


def test_command_that_succeeds_in_the_third_run_succeeds(world: World) -> None:
    world.up()
    world.tools.rfkill.fail(status=3, on="block wlan", times=2)
    mark = power_off(world)
    world.journal.expect_logs_in_order(
        [("info", "[WiFi] Enable wifi: False"), trying(BLOCK), *failed(BLOCK, 768), *failed(BLOCK, 768)], mark
    )
    assert world.journal.count(command(BLOCK), mark) == 3
    assert ("err", "wifi_set_enabled: Unable to power off wifi, error: 768") not in world.journal.logs(mark)
    assert world.get("WiFiState") == 0


@pytest.mark.parametrize(("status", "raw"), [(1, 256), (255, 65280)])
def test_command_that_fails_runs_three_times_and_its_raw_status_is_reported(world: World, status: int, raw: int) -> None:
    world.up()
    world.tools.rfkill.fail(status=status, on="block wlan")
    mark = world.journal.mark()
    with pytest.raises(CallRefused):
        world.set("WiFiState", 0)
    world.journal.expect_logs_in_order(
        [
            ("info", "[WiFi] Enable wifi: False"),
            trying(BLOCK),
            *failed(BLOCK, raw) * 3,
            ("err", f"wifi_set_enabled: Unable to power off wifi, error: {raw}"),
        ],
        mark,
    )
    assert world.journal.count(command(BLOCK), mark) == 3


def test_last_of_different_statuses_is_reported_and_a_signal_is_one(world: World) -> None:
    world.up()
    world.tools.rfkill.fail(status=4, on="block wlan")
    world.tools.rfkill.die(signal.SIGKILL, on="block wlan", times=1)
    world.tools.rfkill.fail(status=2, on="block wlan", times=1)
    mark = world.journal.mark()
    with pytest.raises(CallRefused):
        world.set("WiFiState", 0)
    logs = [text for _, text in world.journal.logs(mark) if text.startswith("utils_do_system_call: system call failed")]
    assert logs[0] == "utils_do_system_call: system call failed: 512"
    assert logs[1] in ("utils_do_system_call: system call failed: 9", "utils_do_system_call: system call failed: 35072")
    assert logs[2] == "utils_do_system_call: system call failed: 1024"
    world.journal.expect_logs_in_order([("err", "wifi_set_enabled: Unable to power off wifi, error: 1024")], mark)


def test_address_is_flushed_then_added_for_an_access_point(world: World) -> None:
    world.add_address("10.1.1.1/8")
    world.up()
    world.journal.expect_logs_in_order(
        [
            ("info", "[Utils] Flush IP addr of wlan0"),
            trying(FLUSH),
            ("info", "utils_flush_ip: wlan0 ip address deleted successfully"),
            ("info", "[Utils] Add IP addr of wlan0: 192.168.8.1/24"),
            trying(ADD),
            ("info", "utils_add_ip: wlan0 ip address added successfully"),
        ]
    )
    assert world.sandbox.sh("ip -4 -br addr show dev wlan0").stdout.split()[2:] == ["192.168.8.1/24"]


def test_address_that_can_not_be_flushed_is_reported(world: World) -> None:
    world.tools.ip.fail(status=2, on="addr flush dev wlan0")
    world.up()
    world.journal.expect_logs_in_order(
        [
            ("info", "[Utils] Flush IP addr of wlan0"),
            trying(FLUSH),
            *failed(FLUSH, 512) * 3,
            ("err", "utils_flush_ip: Unable to flush wlan0 address, error: 512"),
        ]
    )
    assert world.journal.count(command(FLUSH)) == 3


def test_address_that_is_there_already_can_not_be_added(world: World) -> None:
    world.add_address("192.168.8.1/24")
    world.tools.ip.output("", on="addr flush dev wlan0")
    world.up()
    world.journal.expect_logs_in_order(
        [
            ("info", "[Utils] Add IP addr of wlan0: 192.168.8.1/24"),
            trying(ADD),
            *failed(ADD, 512) * 3,
            ("err", "utils_add_ip: Unable to add wlan0 address, error: 512"),
        ]
    )
    assert world.journal.count(command(ADD)) == 3
