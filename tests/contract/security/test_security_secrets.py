"""Passphrases are in the log where docs/security.md says so, and nowhere else; what it says to take them out with does."""

from __future__ import annotations

import re
import subprocess

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
    assert holding == {("info", f"[WPA] Add network 'Casa Marisol', passphrase '{GIVEN}'"), ("info", f"wpa_passphrase:{STORED}")}
    assert world.journal.count(log("info", f"wpa_passphrase:{STORED}")) == 3  # start, new name, new band
    for form in ("`[WPA] Add network '%s', passphrase '%s'`", "`wpa_passphrase:%s`"):
        assert form in PAGE
    assert not any(STORED in line or GIVEN in line for line in world.journal.commands())
    everything = world.sandbox.sh("busctl --user call com.vantora.Network1 /com/vantora/Network1 org.freedesktop.DBus.Properties "
                                  "GetAll s com.vantora.Network1.WiFi").stdout
    assert '"Kitchen"' in everything and STORED not in everything and GIVEN not in everything


def test_the_filter_that_the_page_offers_takes_the_passphrases_out_and_leaves_the_rest(world: World) -> None:
    logs = [text for _, text in live_with_secrets(world)]
    script = re.search(r"```sh\n\s*(sed .*)\n", PAGE)
    assert script
    cleaned = subprocess.run(["/bin/sh", "-c", script[1]], input="\n".join(logs), stdout=subprocess.PIPE, text=True,
                             check=True).stdout
    assert STORED not in cleaned and GIVEN not in cleaned
    assert "[WPA] Add network 'Casa Marisol', passphrase '***'" in cleaned
    same = [line for line in logs if "passphrase" not in line]
    assert [line for line in cleaned.split("\n") if "passphrase" not in line] == same
