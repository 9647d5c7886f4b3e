"""vantora-doctor as a program: what it shows to people, mends, reports and keeps to itself."""

from __future__ import annotations

import json
import os
import re
import subprocess
from pathlib import Path

import pytest
import zbar
from dbus_next import Variant

from doctor_ground import BROKEN, FAILED, LONGEST, USAGE, WARNS, WORKS, look
from doctor_ground import bare, device  # fixtures; pylint: disable=unused-import
from vantora_sim import World, units
from vantora_sim.sandbox import Completed
from vantora_sim.unit_files import NETWORK, SETTINGS

PASSPHRASE = "/var/lib/vantora-device/passphrase"


def doctor(world: World, *arguments: str, **environment: str | None) -> Completed:
    """Run it in the world's sandbox."""
    return world.sandbox.run([world.build / "vantora-doctor", *arguments], environment, timeout=LONGEST)


def test_people_see_groups_marks_and_a_sum(device: World) -> None:
    ran = doctor(device)
    lines = ran.stdout.splitlines()
    assert ran.status == WORKS
    assert lines[0] == "programs"
    assert "  ok   the radio phy0 can be an access point, on 2.4 and 5 GHz" in lines
    good = sum(line.startswith("  ok ") for line in lines)
    assert lines[-1] == f"{good} things are as they must be, 0 warnings, 0 bad: the device works."

    device.sandbox.path("/dev/rfkill").unlink()
    ran = doctor(device)
    assert ran.status == BROKEN
    assert (
        "  BAD  there is no device /dev/rfkill\n"
        "       why   the radio cannot be switched, and reads as on whatever it is\n"
        "       mend  modprobe rfkill; a kernel without CONFIG_RFKILL has to be built with it\n"
    ) in ran.stdout
    assert ran.stdout.endswith("1 bad: it does not work.\n")


def test_names_from_elsewhere_cannot_move_the_cursor(device: World) -> None:
    device.settings.set("device", "deviceName", "a\x1b[2Jb\r\nBAD c")
    ran = doctor(device)
    assert "  ok   device.deviceName is a\\x1b[2Jb\\x0d\\nBAD c\n" in ran.stdout
    assert "\x1b" not in ran.stdout
    assert json.loads(doctor(device, "--json").stdout)["status"] == WORKS


def test_what_needs_no_question_is_mended(device: World) -> None:
    device.systemd.described[units.DHCP_SERVER] |= {
        "LoadState": Variant("s", "masked"),
        "UnitFileState": Variant("s", "masked"),
    }
    assert look(device).status == BROKEN
    seen = look(device, "--fix")
    assert seen.mended == [{"done": True, "text": "unmasked udhcpd.service"}]
    assert (seen.complaints, seen.status) == ([], WORKS)
    calls = [entry for entry in device.journal.since(0) if entry.kind == "call"]
    assert [entry.args for entry in calls if entry.member == "UnmaskUnitFiles"] == [[["udhcpd.service"], False]]
    assert [entry.member for entry in calls].count("Reload") == 1


def test_what_is_not_started_is_started(bare: World) -> None:
    for unit in (NETWORK, SETTINGS):
        bare.systemd.described[unit] |= {
            "ActiveState": Variant("s", "inactive"),
            "ActiveEnterTimestampMonotonic": Variant("t", 0),
        }
    bare.settings.go()
    ran = doctor(bare, "--fix")
    assert ran.stdout.startswith("mended: started vantora-settingsd.service\nmended: started vantora-network.service\n")


def test_what_cannot_be_mended_is_said(device: World) -> None:
    device.systemd.described[units.DHCP_SERVER]["LoadState"] = Variant("s", "masked")
    device.systemd.refuse("UnmaskUnitFiles", name="org.freedesktop.DBus.Error.AccessDenied", text="Permission denied")
    ran = doctor(device, "--fix")
    assert ran.stdout.startswith("not mended: unmasking udhcpd.service failed: Permission denied\n")
    assert ran.status == BROKEN


def test_files_that_people_edit_are_never_touched(device: World) -> None:
    template = device.sandbox.path("/etc/hostapd.conf")
    template.write_text("nonsense\n")
    device.sandbox.path("/etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf").write_text("psk=secret-of-home\n")
    seen = look(device, "--fix")
    assert seen.status == BROKEN
    assert seen.mended == []
    assert template.read_text() == "nonsense\n"


def test_a_report_holds_no_secret(device: World) -> None:
    device.sandbox.path("/etc/wpa_supplicant/home.conf").write_text(
        'network={\n\tssid="home"\n\t#psk="secret-of-home"\n\tpsk="secret-of-home"\n}\ncred={ password="secret-of-cred" }\n'
    )
    device.tools.iw.output("Interface wlan0\n\ttype AP\n\tssid secret-of-home\n\twiphy 0\n", on="dev wlan0 info")
    path = device.sandbox.path("/run/report.txt")
    assert doctor(device, "--report", "/run/report.txt").status == WORKS
    text = path.read_text()
    assert path.stat().st_mode & 0o777 == 0o600
    for secret in ("korrin-secret", "secret-of-home", "secret-of-cred"):
        assert secret not in text
    assert "===== /etc/hostapd.conf =====" in text
    assert "wpa_passphrase=***\n" in text
    assert 'ssid="home"' in text
    assert "things are as they must be" in text
    assert "===== $ ip address =====" in text

    again = doctor(device, "--report", "/run/report.txt")
    assert again.status == FAILED
    assert again.stderr == "vantora-doctor: /run/report.txt: File exists\n"
    assert path.read_text() == text


def test_an_ordinary_user_hears_what_was_not_looked_at(device: World) -> None:
    """By user id 65534, which is nobody: root's bus and its files are closed to it."""
    if os.geteuid() != 0:
        pytest.skip("an ordinary user cannot become another one")
    device.sandbox.path("/run/user/0").chmod(0o700)
    as_nobody = ["/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    ran = device.sandbox.run([*as_nobody, device.build / "vantora-doctor"], timeout=LONGEST)
    assert ran.status == WARNS
    assert "  ?    root's user bus lets in nobody but root\n       mend  sudo vantora-doctor\n" in ran.stdout
    assert "  ?    /etc/hostapd.conf can be read by root only\n       mend  sudo vantora-doctor\n" in ran.stdout
    assert ran.stdout.endswith("Some of it is for root only: sudo vantora-doctor sees all.\n")
    key = device.sandbox.run([*as_nobody, device.build / "vantora-doctor", "key"], timeout=LONGEST)
    assert (key.status, key.stdout) == (FAILED, "")
    assert key.stderr == "vantora-doctor: only root may see the passphrase: use 'sudo vantora-doctor key'\n"


def decoded(drawn: str) -> str:
    """What a camera reads from a code that is drawn with half blocks, white ones being the bright squares."""
    rows: list[list[bool]] = []
    for line in drawn.splitlines():
        rows.append([letter in "█▀" for letter in line])
        rows.append([letter in "█▄" for letter in line])
    scale = 4
    pixels = b"".join(bytes(255 if bright else 0 for bright in row for _ in range(scale)) for row in rows for _ in range(scale))
    seen = zbar.Image(len(rows[0]) * scale, len(rows) * scale, "Y800", pixels)
    assert zbar.ImageScanner().scan(seen) == 1
    return str(next(iter(seen)).data)


@pytest.mark.parametrize(
    ("ssid", "passphrase", "code"),
    [
        ("Korrin One", "abcde-fghjk-mnpqr", "WIFI:T:WPA;S:Korrin One;P:abcde-fghjk-mnpqr;;"),
        ('a;b:c,d"e\\f', ';:,"\\x y', r"WIFI:T:WPA;S:a\;b\:c\,d\"e\\f;P:\;\:\,\"\\x y;;"),
    ],
)
def test_the_key_is_shown_and_a_camera_reads_it(device: World, ssid: str, passphrase: str, code: str) -> None:
    device.set("SSID", ssid)
    template = device.sandbox.path("/etc/hostapd.conf")
    template.write_text(re.sub("wpa_passphrase=.*", lambda _: f"wpa_passphrase={passphrase}", template.read_text()))
    ran = doctor(device, "key")
    assert ran.status == WORKS, ran.stderr
    text, drawn = ran.stdout.split("\n\n", 1)
    shown = [part.replace("\\", "\\\\") for part in (ssid, passphrase)]
    assert text == f"Network     {shown[0]}\nPassphrase  {shown[1]}"
    assert decoded(drawn) == code


def test_a_key_that_is_not_there_is_said_to_be_missing(device: World) -> None:
    template = device.sandbox.path("/etc/hostapd.conf")
    template.write_text(re.sub("wpa_passphrase=.*", "wpa_psk_file=/run/x", template.read_text()))
    ran = doctor(device, "key")
    assert ran.status == FAILED
    assert ran.stderr == f"vantora-doctor: {PASSPHRASE}: No such file or directory\n"


@pytest.mark.parametrize("arguments", [["--nonsense"], ["nonsense"], ["--report"], ["key", "--json"]])
def test_wrong_usage_has_a_status_of_its_own(device: World, arguments: list[str]) -> None:
    ran = doctor(device, *arguments)
    assert (ran.status, ran.stdout) == (USAGE, "")
    assert ran.stderr.startswith("vantora-doctor: ")
    assert ran.stderr.endswith("\nTry 'vantora-doctor --help'.\n")


def test_output_that_cannot_be_written_is_a_failure(device: World) -> None:
    ran = device.sandbox.sh(f"{device.build}/vantora-doctor >/dev/full", timeout=LONGEST)
    assert ran.status == FAILED
    assert ran.stderr == "vantora-doctor: standard output cannot be written\n"


def test_it_looks_at_the_simulated_device_from_within(build_dir: Path) -> None:
    program = Path(__file__).resolve().parents[3] / "simulator/vantora-sim"
    ran = subprocess.run(
        [program, "--build-dir", build_dir, "--", "vantora-doctor"], capture_output=True, text=True, timeout=110, check=False
    )
    assert ran.returncode == WORKS, ran.stdout + ran.stderr
    assert "  ok   the daemon answers: Mode is Host, wlan0 has 192.168.8.1\n" in ran.stdout
