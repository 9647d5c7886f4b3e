"""hostapd's runtime configuration: what becomes of the template, byte for byte, and what happens when a file is in the way."""

from __future__ import annotations

import stat
from collections.abc import Callable
from pathlib import Path

import pytest
from access_point import HOSTAPD, USUAL, as_file, attached_up, configuration, dump_logs, override_logs
from unit_control import job_call, loaded_log
from vantora_sim import World, log

READ_FAILED = ("err", "[Hostapd] Failed to open '/etc/hostapd.conf' config file for read")
PARSE_FAILED = ("err", "[Hostapd] Failed to parse default hostapd config file")
WRITE_FAILED = [
    ("err", "[Hostapd] Failed to open '/run/hostapd.conf' config file for write"),
    ("err", "[Hostapd] Failed to write runtime hostapd config file"),
]
NOT_SET = ("warning", "[WiFi] Failed to set hostapd configuration")
PAGE = 4096
NO_5_GHZ = ("warning", "[Hostapd] hostapd_set_conf: This device do not support 5GHz, ovverride and set to 2.4ghz")


def test_usual_template_is_written_in_key_order_with_ssid_band_and_channels_and_logged(world: World) -> None:
    world.up()
    entries = configuration(USUAL)
    assert (
        world.hostapd_conf.read_bytes()
        == as_file(entries)
        == (
            b"acs_blacklist=52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 144\nchannel=0\ncountry_code=NL\n"
            b"ctrl_interface=/var/run/hostapd\ndriver=nl80211\nhw_mode=g\ninterface=wlan0\nrsn_pairwise=CCMP\nssid=Korrin One\n"
            b"wpa=2\nwpa_key_mgmt=WPA-PSK\nwpa_passphrase=korrin-secret\n"
        )
    )
    assert stat.S_IMODE(world.hostapd_conf.stat().st_mode) == 0o600
    world.journal.expect_logs_in_order(
        [("info", "Starting Hostapd daemon service"), *override_logs(), *dump_logs(entries), loaded_log(HOSTAPD)]
    )


def test_odd_lines_of_the_template_are_kept_as_they_are(make_world: Callable[..., World]) -> None:
    world = make_world(
        hostapd_template=(
            "# comment\n\n#ssid=comment\nssid=my=net\nwpa_passphrase=a=b==\nfoo\n  # note\nwpa=1\nZeta=upper\nwpa=2\n"
            "crlf=yes\r\n\r\n blank = kept \n=no key\nno value=\nhw_mode=b\nlast"
        )
    )
    world.up()
    entries = configuration(
        {
            "wpa_passphrase": "a=b==",
            "foo": "foo",
            "  # note": "  # note",
            "wpa": "2",
            "Zeta": "upper",
            "crlf": "yes\r",
            "\r": "\r",
            " blank ": " kept ",
            "": "no key",
            "no value": "",
            "last": "last",
        }
    )
    assert world.hostapd_conf.read_bytes() == as_file(entries)
    text = world.hostapd_conf.read_bytes()
    for kept in (
        b"\n  # note=  # note\n",
        b"foo=foo\n",
        b"wpa_passphrase=a=b==\n",
        b"\ncrlf=yes\r\n",
        b"\r=\r\n",
        b" blank = kept \n",
    ):
        assert kept in text
    assert text.index(b"Zeta=") < text.index(b"acs_blacklist=") < text.index(b"hw_mode=") < text.index(b"ssid=")
    assert text.count(b"wpa=") == 1


def test_template_without_hw_mode_gets_the_one_of_the_band(make_world: Callable[..., World]) -> None:
    world = make_world(hostapd_template="interface=wlan0\n")
    world.settings.set("network", "frequency", "5")
    world.up()
    assert world.hostapd_conf.read_bytes() == as_file(configuration({"interface": "wlan0"}, hw_mode="a"))


def test_empty_template_leaves_what_the_daemon_sets(make_world: Callable[..., World]) -> None:
    world = make_world(hostapd_template="")
    world.up()
    assert world.hostapd_conf.read_bytes() == as_file(configuration({}))


def test_bytes_of_the_template_that_are_no_text_are_kept(make_world: Callable[..., World]) -> None:
    world = make_world(hostapd_template="interface=wlan0\n")
    world.sandbox.path("/etc/hostapd.conf").write_bytes(b"key=\xff\xfe\n\x80=1\n")
    world.up()
    text = world.hostapd_conf.read_bytes()
    assert text.startswith(b"acs_blacklist=") and text.endswith(b"ssid=Korrin One\n\x80=1\n")
    assert b"\nkey=\xff\xfe\n" in text


def test_without_a_template_nothing_is_written_and_the_unit_started_all_the_same(make_world: Callable[..., World]) -> None:
    world = make_world(hostapd_template=None)
    world.up()
    world.journal.expect_logs_in_order(
        [("info", "Starting Hostapd daemon service"), READ_FAILED, PARSE_FAILED, NOT_SET, loaded_log(HOSTAPD)]
    )
    assert world.journal.count(job_call("Start", HOSTAPD)) == 1
    assert not world.hostapd_conf.exists()
    assert world.get("Mode") == "Host"
    assert (world.get("SSID"), world.get("WiFiFrequency")) == ("Korrin One", "2.4")


def test_without_a_template_the_runtime_file_of_before_stays(make_world: Callable[..., World]) -> None:
    world = make_world(hostapd_template=None)
    world.hostapd_conf.write_text("ssid=before\n")
    world.up()
    assert world.hostapd_conf.read_text() == "ssid=before\n"


def test_runtime_file_that_can_not_be_written_does_not_hold_up_the_start(world: World) -> None:
    world.hostapd_conf.mkdir()
    world.follow_units = False  # the radio of the simulator would read the file, too
    world.radio.interface_type = "AP"
    world.hostapd.start()
    world.up()
    entries = configuration(USUAL)
    world.journal.expect_logs_in_order([*override_logs(), *dump_logs(entries), *WRITE_FAILED, NOT_SET, loaded_log(HOSTAPD)])
    assert world.journal.count(job_call("Start", HOSTAPD)) == 1
    assert (world.get("SSID"), world.get("WiFiFrequency")) == ("Korrin One", "2.4")


def test_change_of_ssid_and_band_goes_on_when_the_runtime_file_can_not_be_written(world: World) -> None:
    attached_up(world)
    world.follow_units = False
    world.hostapd_conf.unlink()
    world.hostapd_conf.mkdir()
    mark = world.journal.mark()
    world.set("SSID", "Garden")
    world.set("WiFiFrequency", "5")
    assert (world.get("SSID"), world.get("WiFiFrequency")) == ("Garden", "5")
    assert world.journal.count(job_call("Restart", HOSTAPD), mark) == 2
    logs = world.journal.logs(mark)
    assert [line for line in logs if line in WRITE_FAILED] == WRITE_FAILED * 2
    assert NOT_SET not in logs


@pytest.mark.parametrize("radio_type", ["0", "2"])
def test_radio_without_5_ghz_has_hw_mode_g_written_while_the_band_is_remembered(
    make_world: Callable[..., World], radio_type: str
) -> None:
    world = make_world(device={"radio_type": radio_type})
    world.settings.set("network", "frequency", "5")
    world.up()
    entries = configuration(USUAL)
    world.journal.expect_logs_in_order([*override_logs(hw_mode="a"), NO_5_GHZ, *dump_logs(entries)])
    assert world.hostapd_conf.read_bytes() == as_file(entries)
    assert world.get("WiFiFrequency") == "5"


def test_radio_with_5_ghz_has_hw_mode_a_written_without_a_warning(world: World) -> None:
    world.settings.set("network", "frequency", "5")
    world.up()
    entries = configuration(USUAL, hw_mode="a")
    world.journal.expect_logs_in_order([*override_logs(hw_mode="a"), *dump_logs(entries)])
    assert world.hostapd_conf.read_bytes() == as_file(entries)
    assert world.journal.count(log(text=NO_5_GHZ[1])) == 0


def test_line_break_in_the_ssid_cuts_the_written_value_and_nothing_else(world: World) -> None:
    name = "net\nwpa=0\nx"
    world.settings.set("device", "deviceName", name)
    world.up()
    assert world.hostapd_conf.read_bytes() == as_file(configuration(USUAL, ssid="net"))
    shown = dump_logs(configuration(USUAL, ssid=name))
    world.journal.expect_logs_in_order(
        [
            *override_logs(ssid=name),
            *shown,
            ("warning", "[Hostapd] Value of 'ssid' holds a line break and is cut there"),
            loaded_log(HOSTAPD),
        ]
    )
    assert world.get("SSID") == "net"
    assert world.journal.count(log("warning")) == 1


def test_the_name_that_is_published_and_compared_is_the_one_that_hostapd_was_given(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    world.set("SSID", "net\nwpa=0")
    assert world.hostapd_conf.read_bytes() == as_file(configuration(USUAL, ssid="net"))
    assert world.get("SSID") == "net"
    world.settle()
    assert [value for name, value in world.journal.changes(mark) if name == "SSID"] == ["net"]
    assert (
        world.journal.count(job_call("Restart", HOSTAPD), mark) == 1
    ), "what the settings daemon tells of the write is no news"
    for same in ("net", "net\nwpa=2"):
        world.set("SSID", same)
    world.settle()
    assert world.journal.count(job_call("Restart", HOSTAPD), mark) == 1
    world.set("SSID", "other\n")
    assert world.journal.count(job_call("Restart", HOSTAPD), mark) == 2
    assert world.get("SSID") == "other"


@pytest.mark.parametrize("stored", [True, False], ids=["stored", "default"])
def test_a_name_of_over_32_bytes_is_used_as_it_is_with_one_warning(make_world: Callable[..., World], stored: bool) -> None:
    name = "é" * 16 + "x" if stored else "A name that is too long for a radio-3456"
    world = make_world(device={"model": "Korrin One" if stored else "A name that is too long for a radio"})
    if stored:
        world.settings.set("device", "deviceName", name)
    else:
        world.settings.remove("device", "deviceName")
    world.follow_units = False  # hostapd of the simulator refuses it, as the real one
    world.radio.interface_type = "AP"
    world.hostapd.start()
    world.up()
    entries = configuration(USUAL, ssid=name)
    assert world.hostapd_conf.read_bytes() == as_file(entries)
    refused = ("warning", f"[Hostapd] SSID of {len(name.encode())} bytes is longer than 32, hostapd will refuse it")
    world.journal.expect_logs_in_order([*override_logs(ssid=name), *dump_logs(entries), refused, loaded_log(HOSTAPD)])
    assert world.journal.count(log(*refused)) == 1
    assert world.get("SSID") == name


def test_a_name_of_32_bytes_is_used_without_a_warning(world: World) -> None:
    world.settings.set("device", "deviceName", "é" * 16)
    world.up()
    assert world.hostapd_conf.read_bytes() == as_file(configuration(USUAL, ssid="é" * 16))
    assert world.journal.count(log("warning")) == 0


FULL_RUN = """#!/bin/sh
set -e
[ "$1" = prepared ] || exec unshare --mount "$0" prepared "$@"
shift
mkdir /tmp/run && mount --rbind /run /tmp/run
mount -t tmpfs -o {options},mode=755 full /run
for path in /tmp/run/*; do
    [ "$path" != /tmp/run/hostapd.conf ] || continue
    if [ -d "$path" ]; then mkdir -p "/run/${{path##*/}}"; else : >"/run/${{path##*/}}"; fi
    mount --rbind "$path" "/run/${{path##*/}}"
done
[ ! -e /tmp/run/hostapd.conf ] || cp -p /tmp/run/hostapd.conf /run
: >/run/filler
{fill}
exec {program} "$@"
"""
"""Becomes the daemon, which finds a /run with no room left; all that was there is there."""


def up_with_a_full_run(world: World, pages: int, fill: str = "") -> Path:
    """Start the daemon where /run has room for so many pages; returns where that folder is reached from outside."""
    script = world.work / "run/sim/full-run"
    script.write_text(
        FULL_RUN.format(options=f"size={pages * PAGE},nr_inodes=64", fill=fill, program=world.build / "vantora-network")
    )
    script.chmod(0o755)
    world.follow_units = False  # the radio of the simulator would look for the file elsewhere
    world.radio.interface_type = "AP"
    world.hostapd.start()
    daemon = world.start_daemon(Path("/run/sim/full-run"))
    world.wait_up()
    return Path(f"/proc/{daemon.pid}/root/run")


@pytest.mark.parametrize(
    ("pages", "fill"),
    [
        (2, f"head -c {PAGE} /dev/zero >/run/filler"),
        (2, ""),
        (4, "i=0; while touch /run/filler-$i 2>/dev/null; do i=$((i + 1)); done"),
    ],
    ids=["no room", "room for a part", "no name"],
)
def test_a_full_run_keeps_the_configuration_of_before(make_world: Callable[..., World], pages: int, fill: str) -> None:
    template = "interface=wlan0\nwpa=2\n" + "".join(f"a{number}={'x' * 80}\n" for number in range(60))
    assert len(template) > PAGE
    world = make_world(hostapd_template=template)
    before = "ssid=before\nwpa=2\nwpa_passphrase=kept-secret\n"
    world.hostapd_conf.write_text(before)
    world.hostapd_conf.chmod(0o600)
    run = up_with_a_full_run(world, pages, fill)

    logs = world.journal.logs()
    assert [line for line in logs if line in [*WRITE_FAILED, NOT_SET]] == [*WRITE_FAILED, NOT_SET]
    assert logs.index(NOT_SET) < logs.index(loaded_log(HOSTAPD))
    assert world.journal.count(job_call("Start", HOSTAPD)) == 1
    mark = world.journal.mark()
    world.set("SSID", "Garden")
    world.set("WiFiFrequency", "5")
    assert [line for line in world.journal.logs(mark) if line in WRITE_FAILED] == WRITE_FAILED * 2
    assert (run / "hostapd.conf").read_text() == before
    assert stat.S_IMODE((run / "hostapd.conf").stat().st_mode) == 0o600
    assert not (run / "hostapd.conf.tmp").exists()


def test_unreadable_name_and_band_fall_back_to_the_defaults(world: World) -> None:
    world.settings.remove("device", "deviceName")
    world.settings.remove("network", "frequency")
    world.up()
    lines = [line for line in world.journal.logs() if not line[1].startswith("static ")]  # those are the settings client's
    start = lines.index(("info", "Starting Hostapd daemon service")) + 1
    expected = [
        ("warning", "Failed to get 'deviceName' setting"),
        ("warning", "[WiFi] Failed to get AP ssid, use default"),
        ("info", "model name: Korrin One"),
        ("info", "serial number : 12-3456"),
        ("info", "default ssid: Korrin One-3456"),
        ("warning", "Failed to get 'frequency' setting"),
        ("warning", "[WiFi] Failed to get AP freq, use default (2.4)"),
        *override_logs(ssid="Korrin One-3456"),
    ]
    assert lines[start : start + len(expected)] == expected
    assert world.hostapd_conf.read_bytes() == as_file(configuration(USUAL, ssid="Korrin One-3456"))
    assert (world.get("SSID"), world.get("WiFiFrequency")) == ("Korrin One-3456", "2.4")


def test_file_is_rewritten_at_each_change_and_stays_after_a_stop(world: World) -> None:
    attached_up(world)
    world.set("SSID", "a name that is much longer, once")
    assert world.hostapd_conf.read_bytes() == as_file(configuration(USUAL, ssid="a name that is much longer, once"))
    world.set("SSID", "b")
    world.set("WiFiFrequency", "5")
    text = as_file(configuration(USUAL, ssid="b", hw_mode="a"))
    assert world.hostapd_conf.read_bytes() == text
    world.set("Mode", "Client")
    assert world.hostapd_conf.read_bytes() == text
