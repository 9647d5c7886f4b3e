"""World files: what is wrong with one is said with its field and line, and the shipped ones keep what they promise."""

from __future__ import annotations

import json
from collections import Counter
from pathlib import Path

import pytest
from vantora_sim import places
from vantora_sim.json_lines import loads, plain
from vantora_sim.plan import Network
from vantora_sim.world_file import WorldFileError, read_world


def complaint(folder: Path, text: str) -> str:
    """What is said about a world file, without its name."""
    path = folder / "world.json"
    path.write_text(text)
    with pytest.raises(WorldFileError) as error:
        read_world(str(path))
    return str(error.value).replace(str(path) + ":", "")


def in_network(fields: str) -> str:
    """A world whose only network, on line 3, has these fields."""
    return '{ "name": "x",\n  "networks": [\n    { ' + fields + " } ] }"


@pytest.mark.parametrize(
    ("fields", "expected"),
    [
        ('"ssid": "a", "sinal": -50', '3: networks[0].sinal: there is no such field; is "signal" meant?'),
        ('"ssid": "a", "qqq": 1', "3: networks[0].qqq: there is no such field"),
        ('"ssid": "a", "signal": "loud"', '3: networks[0].signal: must be an integer from -110 to 0, not "loud"'),
        ('"ssid": "a", "signal": 1', "3: networks[0].signal: must be an integer from -110 to 0, not 1"),
        ('"ssid": "a", "signal": -50.5', "3: networks[0].signal: must be an integer from -110 to 0, not -50.5"),
        ('"ssid": "a", "hidden": 1', "3: networks[0].hidden: must be a boolean, not 1"),
        ('"ssid": ""', '3: networks[0].ssid: must be a string that is not empty, not ""'),
        ('"ssid": "a", "band": "6"', '3: networks[0].band: must be one of "2.4", "5", not "6"'),
        ('"ssid": "a", "channel": true', "3: networks[0].channel: must be an integer from 1 to 177, not true"),
        ('"ssid": "a", "channel": 36', "3: networks[0].channel: there is no channel 36 in the 2.4 GHz band"),
        ('"ssid": "a", "band": "5", "channel": 6', "3: networks[0].channel: there is no channel 6 in the 5 GHz band"),
        ('"ssid": "a", "security": "wpa2"', '3: networks[0].security: "wpa2" needs a "passphrase"'),
        (
            '"ssid": "a", "security": "open", "passphrase": "12345678"',
            '3: networks[0].passphrase: a network with security "open" has none',
        ),
        (
            '"ssid": "a", "passphrase": "1234567"',
            '3: networks[0].passphrase: must be a string (8 to 63 printable ASCII characters), not "1234567"',
        ),
        (
            '"ssid": "a", "bssid": "01:00:00:00:00:00"',
            "3: networks[0].bssid: must be a string (a unicast address like 02:00:00:00:30:01; made up when not given), "
            'not "01:00:00:00:00:00"',
        ),
        ('"ssid": "a", "address": "10.0.0.300/24"', "3: networks[0].address: is no IPv4 address with a prefix length"),
        ('"ssid": "a", "ssid_hex": "61"', '3: networks[0]: needs "ssid" or "ssid_hex", and not both'),
        ('"signal": -50', '3: networks[0]: needs "ssid" or "ssid_hex", and not both'),
        ('"ssid": "' + "é" * 17 + '"', "3: networks[0].ssid: is longer than 32 bytes"),
    ],
)
def test_wrong_network_is_named_with_field_and_line(tmp_path: Path, fields: str, expected: str) -> None:
    assert complaint(tmp_path, in_network(fields)) == expected


@pytest.mark.parametrize(
    ("text", "expected"),
    [
        ("{}", '1: "name" is missing'),
        ("[]", "1: must be an object, not an array"),
        ('{ "name": "x",\n\n "stations": [ {} ] }', '3: stations[0]: "name" is missing'),
        (
            '{ "name": "x",\n "stations": [ {"name": "a"},\n {"name": "a"} ] }',
            "3: stations[1].name: is that of stations[0], too",
        ),
        (
            '{ "name": "x", "networks": [ {"ssid": "a", "bssid": "02:00:00:00:00:0A"},\n {"ssid": "b", "bssid": "02:00:00:00:00:0a"} ] }',
            "2: networks[1].bssid: is that of networks[0], too",
        ),
        (
            '{ "name": "x",\n "settings": { "network": {\n "mode": "host" } } }',
            '3: settings.network.mode: must be one of "Host", "Client", not "host"',
        ),
        (
            '{ "name": "x",\n "settings": { "display": {\n "brightness": null } } }',
            "3: settings.display.brightness: must be a string or a boolean or an integer, not null",
        ),
        ('{ "name": "x",\n "device": { "radio_type": 2 } }', "2: device.radio_type: must be one of 0, 1, not 2"),
        ('{ "name": "x",\n\n "name": "y" }', "3: name: stands here twice"),
        ('{ "name": "x",\n "networks": [ }', "2: not JSON: Expecting value"),
        ('{ "name": "x" }\n\n trailing', "3: not JSON: Extra data"),
        (
            '{ "name": "x", "stations": [ { "name": "s", "joins_after": 1e999 } ] }',
            "1: stations[0].joins_after: must be a number of at least 0, not Infinity",
        ),
        (
            '{ "name": "x", "stations": [ { "name": "s\\n" } ] }',
            "1: stations[0].name: must be a string (letters, digits, '.', '_' and '-'), not \"s\\n\"",
        ),
        ('{ "name": "\\ud800" }', " half of a character: a surrogate without its other half"),
        ('{ "name": "x", "\\udfff": 1 }', " half of a character: a surrogate without its other half"),
        ('"\\ud800"', " half of a character: a surrogate without its other half"),
        ("[" * 3000, " nested too deep"),
    ],
)
def test_wrong_document_is_named_with_field_and_line(tmp_path: Path, text: str, expected: str) -> None:
    assert complaint(tmp_path, text) == expected


def test_all_findings_are_reported_but_not_without_end(tmp_path: Path) -> None:
    networks = ",\n".join('{ "ssid": "a", "signal": 5 }' for _ in range(13))
    lines = complaint(tmp_path, '{ "name": "x", "networks": [\n' + networks + "] }").splitlines()
    assert [line.split(":")[0] for line in lines[:10]] == [str(number) for number in range(2, 12)]
    assert lines[10].endswith("and 3 more") and len(lines) == 11


def test_missing_and_unreadable_files_are_named(tmp_path: Path) -> None:
    with pytest.raises(WorldFileError, match="absent.json: No such file or directory"):
        read_world(str(tmp_path / "absent.json"))
    (tmp_path / "latin.json").write_bytes(b'{"name": "\xe9"}')
    with pytest.raises(WorldFileError, match="latin.json: not UTF-8"):
        read_world(str(tmp_path / "latin.json"))


def test_what_is_not_said_has_a_default(tmp_path: Path) -> None:
    (tmp_path / "w.json").write_text(
        '{ "name": "x", "networks": [ {"ssid": "a"}, {"ssid_hex": "C328", "band": "5", '
        '"passphrase": "12345678"} ], "stations": [ {"name": "s"} ] }'
    )
    plan = read_world(str(tmp_path / "w.json"))
    assert plan.networks == [
        Network(b"a", "02:00:00:01:00:00", "2.4", 6, -60, "open"),
        Network(b"\xc3\x28", "02:00:00:01:00:01", "5", 36, -60, "wpa2", "12345678"),
    ]
    assert [network.frequency for network in plan.networks] == [2437, 5180]
    assert (plan.visitors[0].mac, plan.visitors[0].joins_after) == ("02:00:00:00:40:01", None)
    assert (plan.device, plan.settings) == ({}, {})


def test_addresses_that_are_made_up_are_nobody_elses(tmp_path: Path) -> None:
    stations = ", ".join(f'{{"name": "s{number}"}}' for number in range(300))
    (tmp_path / "w.json").write_text(
        '{ "name": "x", "networks": [ {"ssid": "a", "bssid": "02:00:00:01:00:01"}, {"ssid": "b"} ], '
        f'"stations": [ {stations} ] }}'
    )
    plan = read_world(str(tmp_path / "w.json"))
    assert [network.bssid for network in plan.networks] == ["02:00:00:01:00:01", "02:00:00:01:01:01"]
    assert len({visitor.mac for visitor in plan.visitors}) == 300
    assert all(len(visitor.mac) == 17 for visitor in plan.visitors) and plan.visitors[299].mac == "02:00:00:00:41:2c"


def test_every_value_knows_its_line() -> None:
    text = '\n{ "a": [1,\n 2, { "b":\n "c" }], "d": {} }'
    located = loads(text)
    inner = located.value["a"].value
    assert [located.line, inner[0].line, inner[1].line, inner[2].line, inner[2].value["b"].line] == [2, 2, 3, 3, 4]
    assert plain(located) == json.loads(text)


def test_shipped_worlds_are_the_three_that_are_promised() -> None:
    assert sorted(path.stem for path in places.worlds().iterdir()) == ["home", "office", "single-band"]
    home, single = read_world("home"), read_world("single-band")
    assert home.name == "home" and home.joinable is not None and len(home.visitors) >= 2
    assert single.device["radio_type"] == "0" and any(network.band == "5" for network in single.networks)


def test_office_is_crowded_with_everything_that_is_awkward() -> None:
    networks = read_world("office").networks
    assert len(networks) == 200 == len({network.bssid for network in networks})
    assert max(Counter(network.ssid for network in networks).values()) >= 40
    assert sum(network.hidden for network in networks) >= 10
    assert {network.security for network in networks} == {"open", "wep", "wpa2", "wpa2-wpa3", "wpa3", "enterprise"}
    odd = [network.ssid for network in networks if "\ufffd" in network.ssid.decode(errors="replace")]
    assert len(odd) >= 5 and any(b"\0" in network.ssid for network in networks)
    assert {len(network.ssid) for network in networks} >= {32}
