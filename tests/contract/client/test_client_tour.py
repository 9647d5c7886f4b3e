"""The client on the simulated device, where everything takes its time: from access point to a network and back."""

from __future__ import annotations

from collections.abc import Callable

from simulated import KEY, small_plan
from vantora_sim.device import SimulatedDevice
from wifi_client import DONE, REFUSED, run


def test_a_person_gets_from_access_point_to_a_network_and_back(
    make_device: Callable[..., SimulatedDevice]
) -> None:  # noqa: F811
    world = make_device(small_plan()).world
    assert run(world, "--json", "status").objects[0]["mode"] == "Host"
    assert run(world, "band", "5").status == DONE
    assert run(world, "ssid", "Kitchen").status == DONE
    assert run(world, "mode", "client").status == DONE

    found = {network["ssid"]: network for network in run(world, "scan", "--json").objects}
    assert {"secured", "open", "fast", "no dhcp"} <= set(found)
    assert "concealed" not in found
    assert (found["secured"]["wpa_psk"], found["open"]["encrypted"]) == (True, False)

    wrong = run(world, "connect", "secured", "--passphrase-stdin", stdin="not the right one\n")
    assert (wrong.status, wrong.stderr) == (REFUSED, 'vantora-wifi: "secured" refused the passphrase\n')
    right = run(world, "connect", "secured", "--passphrase-stdin", stdin=KEY + "\n")
    assert (right.status, right.stderr) == (DONE, "")
    assert right.stdout.endswith('  completed         connected\nConnected to "secured", address 10.7.0.2\n')
    status = run(world, "--json", "status").objects[0]
    assert (status["client_ssid"], status["client_state"], status["address"]) == ("secured", "completed", "10.7.0.2")

    moved = run(world, "--json", "connect", "open", "--open")
    assert (moved.status, moved.objects[-1]) == (DONE, {"type": "connected", "ssid": "open", "address": "10.8.0.2"})
    assert run(world, "disconnect").status == DONE
    assert run(world, "off").status == DONE
    assert run(world, "--json", "status").objects[0]["radio"] == "off"
