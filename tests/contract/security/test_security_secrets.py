"""Passphrases are in the log where docs/security.md says so, and nowhere else; what it says to take them out with does."""

from __future__ import annotations

import re
import subprocess
from collections.abc import Callable

import pytest
from conftest import ROOT
from station import bring_up_station
from vantora_sim import World, log

STORED, GIVEN = "korrin-secret", "quiet-'harbour'-42"
PAGE = (ROOT / "docs/security.md").read_text()


def live_with_secrets(world: World) -> list[tuple[str, str]]:
    """Connect as a station, then become an access point with another name and band; returns the log."""
    bring_up_station(world)
    world.call("Connect", "ss", ["Casa Marisol", GIVEN])
    world.set("Mode", "Host")
    world.set("SSID", "Kitchen")
    world.set("WiFiFrequency", "5")
    world.settle()
    return world.journal.logs()


def test_only_the_lines_that_the_page_names_hold_a_passphrase(world: World) -> None:
    logs = live_with_secrets(world)
    holding = {line for line in logs if STORED in line[1] or GIVEN in line[1]}
    assert holding == {
        ("info", f"[WPA] Add network 'Casa Marisol', passphrase '{GIVEN}'"),
        ("info", f"wpa_passphrase:{STORED}"),
    }
    assert world.journal.count(log("info", f"wpa_passphrase:{STORED}")) == 3  # start, new name, new band
    for form in ("`[WPA] Add network '%s', passphrase '%s'`", "each line of the access point's configuration, as `%s:%s`"):
        assert form in PAGE
    assert not any(STORED in line or GIVEN in line for line in world.journal.commands())
    everything = world.sandbox.sh(
        "busctl --user call com.vantora.Network1 /com/vantora/Network1 org.freedesktop.DBus.Properties "
        "GetAll s com.vantora.Network1.WiFi"
    ).stdout
    assert '"Kitchen"' in everything and STORED not in everything and GIVEN not in everything


TEMPLATE = """interface=wlan0
ctrl_interface=/var/run/hostapd
wpa=2
wpa_key_mgmt=WPA-PSK
wpa_psk_file=/etc/hostapd.psk
nas_identifier=kitchen
wpa_passphrase=secret: 1 of many
wpa_psk=secret-2
sae_password=secret-3|mac=ff:ff:ff:ff:ff:ff
auth_server_shared_secret=secret-4
acct_server_shared_secret=secret-5
wep_key0=secret-6
ap_pin=secret-7
private_key_passwd=secret-8
r0kh=02:00:00:00:00:01 r0kh-1 secret-9
multi_ap_backhaul_wpa_psk=secret-10
pac_opaque_encr_key=secret-11
  # wpa_passphrase=secret-12
"""
PASSPHRASES = ("secret-13", "it's 'secret-14'", "secret-15\nsecret-16'\n\nNov 22 secret-17: '\n'secret-18")
HEADER = "Nov 22 01:00:00 device vantora-network[312]: "


def as_journalctl_prints(logs: list[tuple[str, str]]) -> str:
    """The log in journalctl's usual form: further lines of a message are indented as far as its first begins."""
    return "".join(HEADER + text.replace("\n", "\n" + " " * len(HEADER)) + "\n" for _, text in logs)


@pytest.mark.parametrize("awk", ["mawk", "busybox awk"])
def test_the_recipe_of_the_page_takes_all_secrets_out_and_leaves_the_rest(make_world: Callable[..., World], awk: str) -> None:
    world = make_world(hostapd_template=TEMPLATE)
    bring_up_station(world)
    for number, passphrase in enumerate(PASSPHRASES):
        world.call("Connect", "ss", [f"net\n{number}", passphrase])
    world.set("Mode", "Host")
    world.settle()
    text = as_journalctl_prints(world.journal.logs())
    assert set(re.findall(r"secret[-: ]+(\d+)", text)) == {str(number) for number in range(1, 19)}

    script = re.search(r"```sh\n(.*?)```", PAGE, re.DOTALL)
    assert script
    recipe = f'journalctl() {{ [ "$*" = "-u vantora-network" ] && cat; }}\nawk() {{ {awk} "$@"; }}\n' + script[1]
    cleaned = subprocess.run(["/bin/sh", "-c", recipe], input=text, stdout=subprocess.PIPE, text=True, check=True).stdout
    assert re.findall(r"secret[-: ]+\d+", cleaned) == []
    expected = text
    for key in ("wpa_psk_file", *re.findall(r"(?m)^(.+?)=.*secret.*$", TEMPLATE)):
        expected = re.sub(rf"(?m)^{re.escape(HEADER + key)}:.*$", f"{HEADER}{key}:***", expected)
    indent = " " * len(HEADER)
    for passphrase in PASSPHRASES:
        expected = expected.replace("passphrase '" + passphrase.replace("\n", "\n" + indent) + "'", "passphrase '***'")
    assert cleaned == expected
