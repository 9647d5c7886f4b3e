"""vantora-doctor on a device on which all is well but one thing: what it says of that, and that it says nothing else."""

from __future__ import annotations

import os
import re
import signal
import socket
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import pytest
from dbus_next import Variant

from doctor_ground import BROKEN, LONGEST, WARNS, WORKS, look, silent_bus
from doctor_ground import bare, device  # fixtures; pylint: disable=unused-import
from vantora_sim import World, units
from vantora_sim.dbus_fake import PROPERTIES, Call, DBusFake
from vantora_sim.unit_files import NETWORK, SUPPLICANT_NAMES

TEMPLATE = "/etc/hostapd.conf"


def edit(world: World, pattern: str, replacement: str) -> None:
    """Change the access point's template as a person would."""
    path = world.sandbox.path(TEMPLATE)
    text, count = re.subn(pattern, replacement, path.read_text(), flags=re.MULTILINE)
    assert count == 1
    path.write_text(text)


def say_of(world: World, unit: str, name: str, value: Variant) -> None:
    """Have systemd say something else of a unit."""
    world.systemd.described[unit][name] = value


def ip(world: World, *arguments: str) -> None:
    """Change an interface, in the kernel."""
    assert world.try_ip(*arguments)


def forget(world: World, unit: str) -> None:
    """Have systemd know nothing of a unit."""
    del world.systemd.described[unit]


def with_debians_unit(world: World) -> None:
    """hostapd.service as Debian brings it."""
    command = ["/usr/sbin/hostapd", ["/usr/sbin/hostapd", "-B", "${DAEMON_CONF}"], False, *[0] * 7]
    del world.systemd.described[units.HOSTAPD]["ExecStartPre"]
    say_of(world, units.HOSTAPD, "ExecStart", Variant("a(sasbttttuii)", [command]))


def with_a_pipe_for_a_template(world: World) -> None:
    """A file that nobody would ever finish reading."""
    world.sandbox.path(TEMPLATE).unlink()
    os.mkfifo(world.sandbox.path(TEMPLATE))


def test_nothing_is_found_where_all_is_well(device: World) -> None:
    seen = look(device)
    assert seen.complaints == []
    assert seen.status == WORKS
    assert seen.text("radio.access-point") == "the radio phy0 can be an access point, on 2.4 and 5 GHz"
    assert seen.text("hostapd.accepted") == "hostapd itself accepts the template"
    assert seen.text("daemon.answers") == "the daemon answers: Mode is Host, wlan0 has 192.168.8.1"
    assert re.fullmatch(r"the daemon has been running for (a moment|\d+ (second|minute)s?)", seen.text("daemon.running"))
    assert re.fullmatch(r"hostapd \d+\.\d+", seen.text("programs.hostapd"))


def test_nothing_is_changed_by_looking(device: World) -> None:
    before = {name: device.get(name) for name in ("Mode", "SSID", "WiFiState", "WiFiFrequency")}
    device.settle()
    mark = device.journal.mark()
    look(device)
    device.settle()
    assert {name: device.get(name) for name in before} == before
    calls = [entry.member for entry in device.journal.since(mark) if entry.kind == "call"]
    assert set(calls) <= {"LoadUnit", "Get", "GetAll"}
    assert set(device.journal.logs(since=mark)) <= {("info", "utils_get_ip_address: addr_found: 1")}


@dataclass(frozen=True)
class Broken:
    """One thing that is broken in a device, and what the doctor says of it."""

    act: Callable[[World], None]
    complaint: str
    mend: str
    status: int = BROKEN


BROKEN_THINGS = {
    "no radio": Broken(
        lambda world: setattr(world.radio, "present", False), "bad radio.present: the kernel knows no radio", "dmesg"
    ),
    "a radio for stations only": Broken(
        lambda world: setattr(world.radio, "can_be_access_point", False),
        "bad radio.access-point: the radio phy0 cannot be an access point",
        "iw list",
    ),
    "no rfkill": Broken(
        lambda world: world.sandbox.path("/dev/rfkill").unlink(),
        "bad radio.rfkill: there is no device /dev/rfkill",
        "modprobe rfkill",
    ),
    "a switch": Broken(
        lambda world: setattr(world.radio, "hard_blocked", True),
        "warning radio.rfkill: a switch of the device keeps the radio off",
        "switch",
        WARNS,
    ),
    "another eth0": Broken(
        lambda world: ip(world, "link", "set", "eth0", "name", "enp1s0"),
        "warning interfaces.eth0: there is no interface eth0",
        "10-eth0.link",
        WARNS,
    ),
    "a masked unit": Broken(
        lambda world: say_of(world, units.DHCP_SERVER, "LoadState", Variant("s", "masked")),
        "bad units.udhcpd.service: udhcpd.service is masked",
        "systemctl unmask udhcpd.service",
    ),
    "no wired unit": Broken(
        lambda world: world.sandbox.path("/etc/korrin/udhcpd_eth0.service").unlink(),
        "warning units.udhcpd_eth0.service: there is no file /etc/korrin/udhcpd_eth0.service",
        "vantora-device",
        WARNS,
    ),
    "no template": Broken(
        lambda world: world.sandbox.path(TEMPLATE).unlink(),
        "bad hostapd.template: /etc/hostapd.conf cannot be read: No such file or directory",
        "vantora-device",
    ),
    "a pipe for a template": Broken(
        with_a_pipe_for_a_template, "bad hostapd.template: /etc/hostapd.conf cannot be read: Invalid argument", "vantora-device"
    ),
    "no control socket": Broken(
        lambda world: edit(world, r"^ctrl_interface=.*\n", ""),
        "bad hostapd.ctrl_interface: /etc/hostapd.conf has no ctrl_interface",
        "ctrl_interface=/var/run/hostapd",
    ),
    "a key that hostapd does not know": Broken(
        lambda world: edit(world, r"^channel=0$", "chanel=0"),
        "bad hostapd.accepted: hostapd refuses line 8 (chanel): unknown configuration item 'chanel'",
        "edit line 8 of /etc/hostapd.conf",
    ),
    "a template for all to read": Broken(
        lambda world: world.sandbox.path(TEMPLATE).chmod(0o644),
        "warning hostapd.mode: others than root may read /etc/hostapd.conf",
        "chmod 600",
        WARNS,
    ),
    "no file of the station's": Broken(
        lambda world: world.sandbox.path("/etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf").unlink(),
        "bad supplicant.file: there is no /etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf",
        "ctrl_interface=",
    ),
    "nobody for the older name": Broken(
        lambda world: forget(world, SUPPLICANT_NAMES),
        "warning supplicant.stand-in: vantora-supplicant-names is not installed",
        "apt install vantora-supplicant-names",
        WARNS,
    ),
    "another wpa_supplicant": Broken(
        lambda world: world.wpa.come_back(),
        "bad supplicant.newer-name: fi.w1.wpa_supplicant1 is owned by another wpa_supplicant than that of "
        "wpa_supplicant-nl80211@wlan0.service",
        "systemctl mask --now wpa_supplicant.service",
    ),
    "no activation": Broken(
        lambda world: world.sandbox.path("/run/user/0/dbus-1/services/com.vantora.Network1.service").unlink(),
        "warning files.com.vantora.Network1: there is no activation file of com.vantora.Network1",
        "--reinstall vantora-network",
        WARNS,
    ),
    "no policy": Broken(
        lambda world: world.sandbox.path("/etc/dbus-1/system.d/vantora-supplicant-names.conf").unlink(),
        "bad files.policy: the bus policy of vantora-supplicant-names is missing",
        "systemctl reload dbus",
    ),
    "no settings daemon": Broken(
        lambda world: world.settings.go(),
        "warning settings.daemon: no settings daemon runs",
        "systemctl start vantora-settingsd",
        WARNS,
    ),
    "a setting that is none": Broken(
        lambda world: world.settings.set("network", "mode", "Hots"),
        "warning settings.network.mode: the setting network.mode is Hots, not Host or Client",
        "busctl --user set-property",
        WARNS,
    ),
    "a daemon that is restarted again and again": Broken(
        lambda world: say_of(world, NETWORK, "NRestarts", Variant("u", 12)),
        r"warning daemon.running: the daemon has been running for .+, and was restarted 12 times before",
        "journalctl",
        WARNS,
    ),
}


@pytest.mark.parametrize("name", BROKEN_THINGS)
def test_one_thing_that_is_broken_is_named_and_nothing_else(device: World, name: str) -> None:
    broken = BROKEN_THINGS[name]
    broken.act(device)
    seen = look(device)
    assert len(seen.complaints) == 1, seen.complaints
    assert seen.complaints[0] == broken.complaint or re.fullmatch(broken.complaint, seen.complaints[0])
    assert seen.status == broken.status
    assert broken.mend in seen.mend(broken.complaint.split()[1].rstrip(":"))


def test_a_country_that_is_none_is_named(device: World) -> None:
    """With what may be its cause: whether this machine has a regulatory database is its own business."""
    device.radio.country = "00"
    seen = look(device)
    assert seen.complaints[0] == "warning radio.country: the regulatory domain is 00, that of no country"
    assert seen.complaints[1:] in ([], ["warning radio.database: there is no regulatory database in /lib/firmware"])
    assert seen.status == WARNS


def test_hostapd_of_debian_is_named_with_what_follows(device: World) -> None:
    with_debians_unit(device)
    seen = look(device)
    assert seen.complaints == [
        "bad units.hostapd.service: hostapd.service runs hostapd on another file than /run/hostapd.conf, which the daemon "
        "writes",
        "bad hostapd.dialect: hostapd does not know acs_blacklist, which the daemon always writes",
    ]
    assert "systemctl edit --full hostapd.service" in seen.mend("units.hostapd.service")


def test_a_passphrase_that_hostapd_refuses_is_named_by_its_line_and_not_shown(device: World) -> None:
    edit(device, r"^wpa_passphrase=.*$", "wpa_passphrase=shorty")
    ran = device.sandbox.run([device.build / "vantora-doctor"], timeout=LONGEST)
    assert ran.status == BROKEN
    assert "hostapd refuses line 12 (wpa_passphrase): invalid WPA passphrase length 6 (expected 8..63)\n" in ran.stdout
    assert "mend  edit line 12 of /etc/hostapd.conf\n" in ran.stdout
    assert "shorty" not in ran.stdout


def test_a_radio_with_another_name_is_found(device: World) -> None:
    ip(device, "link", "set", "wlan0", "down")
    ip(device, "link", "set", "wlan0", "name", "wlp1s0")
    device.tools.iw.output("phy#0\n\tInterface wlp1s0\n", on="dev")
    seen = look(device)
    assert seen.text("interfaces.wlan0") == "there is no interface wlan0; the radio's is called wlp1s0"
    assert seen.status == BROKEN


class Manager(DBusFake):
    """Another manager of networks on the system bus."""

    def __init__(self, world: World, name: str, answers: dict[str, tuple[str, list[Any]]]) -> None:
        super().__init__(world.loop, world.journal, world._catch_up)  # noqa: SLF001
        self.names = (name,)
        self._answers = answers
        self.address = world.system_bus.address
        self.come_back()

    async def answer(self, call: Call) -> tuple[str, list[Any]]:
        """By the property's name, or the method's."""
        return self._answers[str(call.args[1]) if call.interface == PROPERTIES else call.member]


@pytest.mark.parametrize(
    ("name", "answers", "complaint"),
    [
        (
            "org.freedesktop.NetworkManager",
            {"GetDeviceByIpIface": ("o", ["/device/1"]), "Managed": ("v", [Variant("b", True)])},
            "bad managers.NetworkManager: NetworkManager manages wlan0",
        ),
        (
            "org.freedesktop.network1",
            {"GetLinkByName": ("io", [3, "/link/_33"]), "AdministrativeState": ("v", [Variant("s", "configuring")])},
            "bad managers.systemd-networkd: systemd-networkd manages wlan0 (it is configuring)",
        ),
        (
            "net.connman.iwd",
            {
                "GetManagedObjects": (
                    "a{oa{sa{sv}}}",
                    [{"/net/connman/iwd/0/3": {"net.connman.iwd.Device": {"Name": Variant("s", "wlan0")}}}],
                )
            },
            "bad managers.iwd: iwd has wlan0",
        ),
        ("net.connman", {}, "bad managers.connman: connman runs and is not told to leave wlan0 alone"),
    ],
)
def test_a_manager_that_holds_wlan0_is_named(
    device: World, name: str, answers: dict[str, tuple[str, list[Any]]], complaint: str
) -> None:
    manager = Manager(device, name, answers)
    try:
        seen = look(device)
        assert seen.complaints == [complaint]
        assert seen.status == BROKEN
    finally:
        manager.go()


@pytest.mark.parametrize(
    ("name", "answers"),
    [
        (
            "org.freedesktop.NetworkManager",
            {"GetDeviceByIpIface": ("o", ["/device/1"]), "Managed": ("v", [Variant("b", False)])},
        ),
        (
            "org.freedesktop.network1",
            {"GetLinkByName": ("io", [3, "/link/_33"]), "AdministrativeState": ("v", [Variant("s", "unmanaged")])},
        ),
        ("net.connman.iwd", {"GetManagedObjects": ("a{oa{sa{sv}}}", [{}])}),
    ],
)
def test_a_manager_that_leaves_wlan0_alone_is_not_named(
    device: World, name: str, answers: dict[str, tuple[str, list[Any]]]
) -> None:
    manager = Manager(device, name, answers)
    try:
        seen = look(device)
        assert seen.complaints == []
        assert seen.text("managers.none") == "no other manager holds wlan0"
    finally:
        manager.go()


def test_both_names_of_a_running_station_are_looked_at(device: World) -> None:
    device.set("Mode", "Client")
    assert look(device).text("supplicant.older-name") == "fi.epitest.hostap.WPASupplicant is owned, too"
    device.wpa.go()
    device.wpa.names = ("fi.w1.wpa_supplicant1",)
    device.wpa.come_back()
    seen = look(device)
    assert seen.status == BROKEN
    assert "bad supplicant.older-name: nobody owns fi.epitest.hostap.WPASupplicant" in seen.complaints
    assert seen.mend("supplicant.older-name") == f"systemctl restart {SUPPLICANT_NAMES}"


def test_a_device_on_which_the_daemon_was_never_started_is_told_how_to(bare: World) -> None:
    for name, value in (("ActiveState", Variant("s", "inactive")), ("ActiveEnterTimestampMonotonic", Variant("t", 0))):
        say_of(bare, NETWORK, name, value)
    seen = look(bare)
    assert seen.complaints == ["warning daemon.running: the daemon has not been started since the device was"]
    assert seen.mend("daemon.running") == "systemctl start vantora-network.service"
    assert seen.status == WARNS


def test_an_installation_that_waits_for_the_next_boot_is_no_fault(bare: World) -> None:
    bare.sandbox.path("/run/vantora-network.wait-for-boot").touch()
    for name, value in (("ActiveState", Variant("s", "inactive")), ("ActiveEnterTimestampMonotonic", Variant("t", 0))):
        say_of(bare, NETWORK, name, value)
    say_of(bare, units.HOSTAPD, "LoadState", Variant("s", "masked"))
    seen = look(bare)
    assert seen.complaints == ["warning daemon.running: the daemon was installed since the device was started"]
    assert seen.mend("daemon.running") == "systemctl reboot"


def test_a_stopped_daemon_does_not_hang_it(device: World) -> None:
    assert device.daemon
    device.daemon.send_signal(signal.SIGSTOP)
    try:
        seen = look(device)
        assert seen.complaints == ["bad daemon.answers: the daemon does not answer: Connection timed out"]
        assert seen.status == BROKEN
    finally:
        device.daemon.send_signal(signal.SIGCONT)


@pytest.mark.parametrize(("which", "check"), [("SYSTEM", "bus.system"), ("SESSION", "bus.user")])
def test_a_silent_bus_does_not_hang_it(device: World, which: str, check: str) -> None:
    with silent_bus(device) as address:
        seen = look(device, **{f"DBUS_{which}_BUS_ADDRESS": address})
    assert seen.status == BROKEN
    assert [one for one in seen.complaints if one.startswith(f"bad {check}: ") and one.endswith(": Connection timed out")]


def test_a_silent_systemd_does_not_hang_it(device: World) -> None:
    device.systemd.hang()
    seen = look(device)
    assert seen.status == BROKEN
    assert "bad units.systemd: systemd cannot be asked for its units: Connection timed out" in seen.complaints


def test_settings_without_an_answer_do_not_hang_it(device: World) -> None:
    device.settings.hang()
    seen = look(device)
    assert seen.status == WARNS
    assert {complaint.split(":")[0] for complaint in seen.complaints} == {
        f"warning settings.{name}"
        for name in ("network.enabled", "network.mode", "network.frequency", "device.deviceName", "development.killWifiOnBoot")
    }


@pytest.mark.parametrize(
    ("tool", "words", "complaint"),
    [
        ("iw", "list", 'bad radio.present: "iw list" does not end'),
        ("rfkill", "list", 'bad radio.rfkill: "rfkill list wlan" does not end'),
    ],
)
def test_a_command_that_hangs_does_not_hang_it(device: World, tool: str, words: str, complaint: str) -> None:
    device.tools[tool].hang(on=words)
    seen = look(device)
    # The daemon runs rfkill, too, and has no time-out for it.
    hangs = ["bad daemon.answers: the daemon does not answer: Connection timed out"] if tool == "rfkill" else []
    assert seen.complaints == [complaint, *hangs]
    assert seen.status == BROKEN


def test_everything_that_hangs_at_once_ends_in_time(device: World) -> None:
    """Buses, commands and a file: the time for all waits together holds."""
    for name in ("iw", "rfkill", "wpa_cli"):
        device.tools[name].hang()
    device.sandbox.path(TEMPLATE).unlink()
    os.mkfifo(device.sandbox.path(TEMPLATE))
    with silent_bus(device) as address:
        seen = look(device, DBUS_SYSTEM_BUS_ADDRESS=address, DBUS_SESSION_BUS_ADDRESS=address)
    assert seen.status == BROKEN
    assert {one.split()[1] for one in seen.complaints} >= {"radio.present:", "radio.rfkill:", "bus.system:", "bus.user:"}


def test_an_abandoned_socket_is_found_and_removed(device: World) -> None:
    device.hostapd.kill()
    path = device.sandbox.path("/run/hostapd/wlan0")
    assert path.exists()
    assert look(device).complaints == ["warning hostapd.socket: an ended hostapd has left its socket /run/hostapd/wlan0 behind"]
    seen = look(device, "--fix")
    assert seen.mended == [{"done": True, "text": "removed /run/hostapd/wlan0"}]
    assert seen.complaints == []
    assert not path.exists()


def test_a_socket_that_somebody_listens_on_stays(device: World) -> None:
    assert device.sandbox.path("/run/hostapd/wlan0").is_socket()
    assert look(device, "--fix").mended == []
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as client:
        client.connect(str(device.work / "run/hostapd/wlan0"))
