"""The daemon with a wpa_supplicant that has only its newer name, through the program: nothing is different."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from older_name import NEWER, OLDER, PROGRAM, RenumberedSupplicant
from vantora_sim import CallRefused, Variant, World, call, changed, log, notify, signal


class Newer(RenumberedSupplicant):
    """With `wlan0` as the first object, as the daemon takes it for."""

    object = "/fi/w1/wpa_supplicant1/Interfaces/1"

    async def answer(self, call: "object") -> "object":  # type: ignore[override]
        return await super(RenumberedSupplicant, self).answer(call)  # type: ignore[arg-type]


@pytest.fixture(params=["first_object", "another_object"])
def device(request: pytest.FixtureRequest, make_world: Callable[..., World], build_dir: Path) -> Iterator[World]:
    """A world whose wpa_supplicant has only its newer name, with the program and the daemon; in Client mode."""
    world = make_world()
    kind = RenumberedSupplicant if request.param == "another_object" else Newer
    world.wpa = kind(world.loop, world.journal, world._catch_up)
    world.wpa.address = world.system_bus.address
    process = world.sandbox.start([build_dir / PROGRAM], {"NOTIFY_SOCKET": "/run/sim/notify"})
    world.journal.wait_for(notify("READY=1"))
    world.settings.set("network", "mode", "Client")
    world.up()
    world.journal.wait_for(log("info", f"[Names] Standing in for {OLDER}"))
    yield world
    assert process.stop() == 0


def test_a_list_of_access_points_is_read(device: World) -> None:
    for number in range(40):
        device.wpa.add_bss(f"net {number}", signal=-30 - number)
    assert device.get("AccessPoints") == [[f"net {number}", 1, -30 - number, True] for number in range(40)]
    mark = device.journal.mark()
    device.wpa.report_bsss()
    device.journal.wait_for(signal("AccessPointsChanged"), mark)


def test_a_network_is_joined_and_left(device: World) -> None:
    path = device.wpa.add_bss("net", signal=-40)
    device.call("Scan")
    assert device.call("Connect", "ss", ["net", "secret12"]) == []
    (network,) = device.wpa.networks
    assert device.wpa.networks[network] == {
        "ssid": Variant("s", "net"),
        "key_mgmt": Variant("s", "WPA-PSK"),
        "psk": Variant("s", "secret12"),
    }
    device.wpa.report_state("completed", bss=path)
    device.journal.wait_for(changed("WiFiClientState", "completed"))
    assert device.call("Disconnect") == []
    members = [
        entry.member
        for entry in device.journal.since()
        if entry.kind == "call" and entry.destination.startswith(":") and entry.interface == f"{NEWER}.Interface"
    ]
    assert members[:3] == ["Scan", "AddNetwork", "SelectNetwork"] and members[-1] == "Disconnect"


def test_a_network_of_a_wpa_supplicant_that_has_gone_is_not_removed_from_the_next_one(device: World) -> None:
    device.call("Connect", "ss", ["net", "secret12"])
    mark = device.journal.mark()
    device.wpa.go()
    device.wpa.start_anew()
    device.journal.wait_for(log("info", f"[Names] Standing in for {OLDER}"), mark)
    device.call("Connect", "ss", ["other", "secret12"])
    assert device.journal.count(call("RemoveNetwork"), mark) == 0
    device.call("Connect", "ss", ["third", "secret12"])
    assert device.journal.count(call("RemoveNetwork"), mark) == 1


def test_errors_of_wpa_supplicant_reach_the_daemon(device: World) -> None:
    with pytest.raises(CallRefused):
        device.call("Connect", "ss", ["net", "short"])
    assert device.journal.count(log("err", "[WPA] wpa_supplicant_add_network: Method call failed")) == 1
    assert device.journal.count(call("AddNetwork")) == 1
