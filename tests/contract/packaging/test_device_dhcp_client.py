"""What the DHCP client of a device calls: leases become address, routes and name servers, and nothing else of what a server sends does."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest
from conftest import ROOT

SCRIPT = ROOT / "packaging/device/libexec/dhcp-client"

LEASE = {
    "interface": "wlan0",
    "ip": "192.168.1.50",
    "mask": "24",
    "broadcast": "192.168.1.255",
    "router": "192.168.1.1",
    "dns": "192.168.1.1 9.9.9.9",
    "domain": "home.example",
}


class Machine:
    """A root with a resolv.conf, and tools that only tell how they were called."""

    def __init__(self, folder: Path) -> None:
        self.root = folder / "root"
        self.tools = folder / "tools"
        self.calls_file = folder / "calls"
        (self.root / "etc").mkdir(parents=True)
        self.tools.mkdir()
        self.resolv = self.root / "etc/resolv.conf"
        self.add(
            "ip",
            'case "$*" in *"address show"*) cat "$ADDRESSES" 2>/dev/null;; *"via 10.9.9.9"*onlink) ;; *"via 10.9.9.9"*) exit 2;; esac',
        )

    def add(self, tool: str, then: str = "") -> None:
        """Puts a tool on the path that notes its arguments and what it is given to read."""
        given = "sed 's/^/  < /' >>\"$CALLS\";" if tool == "resolvconf" else ""
        path = self.tools / tool
        path.write_text(f'#!/bin/sh\necho "{tool} $*" >>"$CALLS"\n[ "$1" = -d ] || {{ {given} :; }}\n{then}\n')
        path.chmod(0o755)

    def call(self, what: str, *, addresses: str = "", **lease: str) -> list[str]:
        """Calls the script; what it had other programs do."""
        self.calls_file.write_text("")
        held = self.root / "addresses"
        held.write_text(addresses)
        ran = subprocess.run(
            ["/bin/sh", SCRIPT, what],
            env={
                "PATH": f"{self.tools}:/usr/bin:/bin",
                "CALLS": str(self.calls_file),
                "ADDRESSES": str(held),
                "VANTORA_DEVICE_ROOT": str(self.root),
                **lease,
            },
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
        )
        assert (ran.returncode, ran.stderr) == (0, ""), ran
        return self.calls_file.read_text().splitlines()


@pytest.fixture
def machine(tmp_path: Path) -> Machine:
    return Machine(tmp_path)


def test_a_lease_gives_address_route_and_name_servers(machine: Machine) -> None:
    assert machine.call("bound", **LEASE) == [
        "ip -4 address replace 192.168.1.50/24 broadcast 192.168.1.255 dev wlan0",
        "ip -4 -oneline address show dev wlan0",
        "ip -4 route flush dev wlan0 metric 600",
        "ip -4 route replace default via 192.168.1.1 dev wlan0 metric 600",
    ]
    assert machine.resolv.read_text().splitlines()[1:] == [
        "search home.example",
        "nameserver 192.168.1.1",
        "nameserver 9.9.9.9",
    ]
    assert machine.resolv.stat().st_mode & 0o777 == 0o644


def test_a_renewed_lease_leaves_its_route_in_place(machine: Machine) -> None:
    calls = machine.call("renew", **LEASE)
    assert not any("flush" in call for call in calls)
    assert "ip -4 route replace default via 192.168.1.1 dev wlan0 metric 600" in calls


def test_the_address_of_an_earlier_lease_goes(machine: Machine) -> None:
    held = "3: wlan0    inet 192.168.1.50/24 brd x\n3: wlan0    inet 192.168.1.77/24 brd x\n"
    calls = machine.call("renew", addresses=held, **LEASE)
    assert [call for call in calls if "delete" in call] == ["ip -4 address delete 192.168.1.77/24 dev wlan0"]


def test_only_the_first_router_counts_and_one_outside_of_the_network_is_reached_directly(machine: Machine) -> None:
    calls = machine.call("bound", **{**LEASE, "ip": "10.0.0.5", "mask": "32", "router": "10.9.9.9 10.9.9.8"})
    assert calls[-2:] == [
        "ip -4 route replace default via 10.9.9.9 dev wlan0 metric 600",
        "ip -4 route replace default via 10.9.9.9 dev wlan0 metric 600 onlink",
    ]


def test_routes_that_the_server_lists_take_the_place_of_its_routers(machine: Machine) -> None:
    calls = machine.call("bound", **LEASE, staticroutes="0.0.0.0/0 192.168.1.2 10.1.0.0/16 192.168.1.3 10.2.0.0/16 0.0.0.0")
    assert [call for call in calls if "route replace" in call] == [
        "ip -4 route replace 0.0.0.0/0 via 192.168.1.2 dev wlan0 metric 600",
        "ip -4 route replace 10.1.0.0/16 via 192.168.1.3 dev wlan0 metric 600",
        "ip -4 route replace 10.2.0.0/16 dev wlan0 metric 600",
    ]


def test_a_lease_without_router_and_name_servers_changes_neither(machine: Machine) -> None:
    machine.resolv.write_text("nameserver 1.2.3.4\n")
    calls = machine.call("bound", interface="wlan0", ip="192.168.1.50", mask="24")
    assert not any("route replace" in call for call in calls)
    assert machine.resolv.read_text() == "nameserver 1.2.3.4\n"


@pytest.mark.parametrize("what", ["deconfig", "stopped"])
def test_a_lost_lease_puts_the_name_servers_of_before_back(machine: Machine, what: str) -> None:
    machine.resolv.write_text("nameserver 1.2.3.4\n")
    machine.call("bound", **LEASE)
    machine.call("renew", **LEASE)
    calls = machine.call(what, interface="wlan0")
    assert machine.resolv.read_text() == "nameserver 1.2.3.4\n"
    flush = ["ip link set dev wlan0 up", "ip -4 address flush dev wlan0"]
    assert calls == (flush if what == "deconfig" else [])
    assert list((machine.root / "var/lib/vantora-device").iterdir()) == []


def test_where_there_was_no_file_none_is_left_and_a_link_is_a_link_again(machine: Machine) -> None:
    machine.call("bound", **LEASE)
    machine.call("stopped", interface="wlan0")
    assert not machine.resolv.exists()

    machine.resolv.symlink_to("../run/elsewhere")
    machine.call("bound", **LEASE)
    assert not machine.resolv.is_symlink()
    machine.call("stopped", interface="wlan0")
    assert machine.resolv.readlink() == Path("../run/elsewhere")


def test_what_somebody_else_has_written_meanwhile_stays(machine: Machine) -> None:
    machine.resolv.write_text("nameserver 1.2.3.4\n")
    machine.call("bound", **LEASE)
    machine.resolv.write_text("nameserver 5.6.7.8\n")
    machine.call("stopped", interface="wlan0")
    assert machine.resolv.read_text() == "nameserver 5.6.7.8\n"


def test_resolvconf_is_told_where_there_is_one(machine: Machine) -> None:
    machine.add("resolvconf")
    assert machine.call("bound", **LEASE)[-4:] == [
        "resolvconf -a wlan0.udhcpc",
        "  < search home.example",
        "  < nameserver 192.168.1.1",
        "  < nameserver 9.9.9.9",
    ]
    assert not machine.resolv.exists()
    assert machine.call("stopped", interface="wlan0") == ["resolvconf -d wlan0.udhcpc"]


def test_systemd_resolved_is_told_where_it_runs(machine: Machine) -> None:
    machine.add("resolvectl")
    machine.add("resolvconf")
    (machine.root / "run/systemd/resolve").mkdir(parents=True)
    assert machine.call("bound", **LEASE)[-2:] == [
        "resolvectl dns wlan0 192.168.1.1 9.9.9.9",
        "resolvectl domain wlan0 home.example",
    ]
    assert machine.call("stopped", interface="wlan0") == ["resolvectl revert wlan0"]


def test_texts_of_a_hostile_server_reach_neither_file_nor_command(machine: Machine) -> None:
    hostile = "$(reboot) ;reboot `reboot` -x 1.2.3.4;reboot ../../x .. a..b"
    calls = machine.call(
        "bound",
        interface="wlan0",
        ip="192.168.1.50",
        mask="24",
        router=hostile,
        dns=f"{hostile} 1.1.1.1",
        domain=f"{hostile} -n fine.example",
        staticroutes="10.0.0.0/8;x 192.168.1.1 10.0.0.0/8 -x",
    )
    assert not any("route replace" in call for call in calls), calls
    assert machine.resolv.read_text().splitlines()[1:] == ["search a..b fine.example", "nameserver 1.1.1.1"]
