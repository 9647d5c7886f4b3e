"""vantora-doctor on the booted device: clean where all is well, and a guide where a person has broken something."""

from __future__ import annotations

import json
from typing import Any

from bench import Device

DOCTOR = "vantora-doctor"
TEMPLATE = "/etc/hostapd.conf"
DHCP_CLIENT = "udhcpc@wlan0.service"


def look(device: Device, options: str = "") -> tuple[int, dict[str, Any]]:
    """What it finds, and its exit status."""
    status, output = device.guest.try_run(f"{DOCTOR} --json {options}", seconds=120)
    return status, json.loads(output)


def complaints(found: dict[str, Any]) -> list[str]:
    """All that is neither good nor worth a note."""
    return [
        f"{one['level']} {one['check']}: {one['text']}" for one in found["findings"] if one["level"] not in ("good", "note")
    ]


def text(found: dict[str, Any], check: str) -> str:
    """What is said of one matter."""
    return next(str(one["text"]) for one in found["findings"] if one["check"] == check)


def test_a_template_that_a_person_broke_is_mended_by_what_the_doctor_says(device: Device) -> None:
    """Clean at first; a mistyped key is named with its line; mended as told, hostapd takes it and all is clean again."""
    status, found = look(device)
    assert (status, complaints(found)) == (0, [])
    assert text(found, "radio.access-point").endswith("can be an access point, on 2.4 and 5 GHz")
    assert text(found, "hostapd.accepted") == "hostapd itself accepts the template"

    number = int(device.see(f"grep -n '^acs_num_scans=' {TEMPLATE} | cut -d: -f1"))
    device.see(f"sed -i 's/^acs_num_scans=/acs_num_scanz=/' {TEMPLATE}")
    status, found = look(device)
    assert status == 2
    assert complaints(found) == [
        f"bad hostapd.accepted: hostapd refuses line {number} (acs_num_scanz): unknown configuration item 'acs_num_scanz'"
    ]
    told = next(one for one in found["findings"] if one["check"] == "hostapd.accepted")
    assert told["mend"] == f"edit line {number} of {TEMPLATE}"

    device.see(f"sed -i '{number}s/acs_num_scanz/acs_num_scans/' {TEMPLATE}")
    device.set("SSID", "s", "Mended")
    device.wait_for_access_point()
    assert "ssid[0]=Mended" in device.see("hostapd_cli -i wlan0 status")
    status, found = look(device)
    assert (status, complaints(found)) == (0, [])


def test_a_masked_unit_is_unmasked_without_a_question(device: Device) -> None:
    """The DHCP client's unit is masked by hand; --fix unmasks it, and systemd knows it again."""
    device.see(f"systemctl mask {DHCP_CLIENT}")
    status, found = look(device)
    assert (status, complaints(found)) == (2, [f"bad units.{DHCP_CLIENT}: {DHCP_CLIENT} is masked"])
    status, found = look(device, "--fix")
    assert found["mended"] == [{"done": True, "text": f"unmasked {DHCP_CLIENT}"}]
    assert device.see(f"systemctl show --property=LoadState --value {DHCP_CLIENT}").strip() == "loaded"


def test_a_report_of_a_booted_device_has_no_passphrase_in_it(device: Device) -> None:
    """Files, programs and log of a running device, and not one passphrase."""
    assert device.guest.try_run(f"{DOCTOR} --report /run/report.txt", seconds=120)[0] == 0
    report = device.see("cat /run/report.txt")
    assert device.passphrase() not in report
    assert "===== /etc/hostapd.conf =====" in report
    assert "===== $ journalctl" in report
