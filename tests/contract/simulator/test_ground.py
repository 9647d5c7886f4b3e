"""The test ground itself: the sandbox, the journal and the tools. No daemon takes part."""

from __future__ import annotations

import asyncio
import os
import shutil
import signal as signals
import socket
import struct
import subprocess
import threading
import time
from collections.abc import Callable
from pathlib import Path

import pytest
from dbus_next import Message
from ground import MANAGER, NETWORK, wait_for_text
from vantora_sim import DEADLINE, World, call, changed, command, exited, log, notify, signal
from vantora_sim.bus_probe import BusProbe
from vantora_sim.client import INTERFACE, PATH, Client
from vantora_sim.dbus_fake import connect, disconnect

# The sandbox


def test_host_is_read_only_and_own_paths_are_private(world: World) -> None:
    outside = Path(f"/usr/vantora-sim-{os.getpid()}")
    try:
        assert "Read-only" in world.sandbox.sh(f"touch {outside}").stderr
    finally:
        outside.unlink(missing_ok=True)  # where it is not read-only, the next run is to see so, too
    paths = ("/etc/vantora-sim-x", "/run/vantora-sim-x", "/tmp/vantora-sim-x", "/dev/shm/vantora-sim-x")
    assert world.sandbox.sh("touch " + " ".join(paths)).status == 0
    for path in paths:
        assert world.sandbox.path(path).exists()
        assert not Path(path).exists()


def test_interfaces_are_up_and_addresses_are_real(world: World) -> None:
    assert "02:00:00:00:10:01" in world.sandbox.sh("ip -br link show dev wlan0").stdout
    world.add_address("10.9.8.7/24")
    world.add_address("10.9.7.7/24", "eth0")
    assert world.sandbox.sh("ip -4 -br addr show dev wlan0").stdout.split()[1:] == ["UP", "10.9.8.7/24"]
    world.remove_address("10.9.8.7/24")
    assert world.sandbox.sh("ip -br addr show dev wlan0").stdout.split()[1:] == ["UP"]
    assert world.sandbox.sh("ip -br addr show dev eth0").stdout.split()[1:] == ["UP", "10.9.7.7/24"]


def test_kernel_command_line_can_be_changed_and_hidden(world: World) -> None:
    world.set_kernel_command_line("root=/dev/nfs\n")
    assert world.sandbox.sh("cat /proc/cmdline").stdout == "root=/dev/nfs\n"
    world.hide_kernel_command_line()
    assert world.sandbox.sh("cat /proc/cmdline").status == 1


def test_device_files_are_as_given_and_can_be_replaced(make_world: Callable[..., World]) -> None:
    world = make_world(device={"serial": "AB-12-34"}, hostapd_template="ssid=my=net\n")
    assert world.sandbox.sh("cat /etc/hostapd.conf").stdout == "ssid=my=net\n"
    assert world.sandbox.sh("cat /etc/korrin/device.conf").stdout == "model=Korrin One\nserial=AB-12-34\nradio_type=1\n"
    world.sandbox.path("/etc/hostapd.conf").unlink()
    assert world.sandbox.sh("test -e /etc/hostapd.conf").status == 1


def test_template_can_be_missing(make_world: Callable[..., World]) -> None:
    assert make_world(hostapd_template=None).sandbox.sh("test -e /etc/hostapd.conf").status == 1


def test_process_reports_output_signals_and_status(world: World) -> None:
    asked = world.sandbox.start(["/bin/sh", "-c", "trap 'echo asked; exit 3' TERM; echo up >&2; while :; do sleep 0.01; done"])
    wait_for_text(lambda: asked.stderr, "up")
    assert asked.stop() == 3
    assert asked.stdout == "asked\n"
    killed = world.sandbox.start(["/bin/sleep", "1000"])
    assert killed.running
    assert killed.stop(signals.SIGKILL) == -signals.SIGKILL
    world.journal.wait_for(exited("sleep", -signals.SIGKILL))


def test_worlds_stand_side_by_side_and_leave_nothing(make_world: Callable[..., World]) -> None:
    first, second = make_world(), make_world()
    first.settings.set("network", "mode", "Client")
    first.sandbox.start(["/bin/sleep", "1000"])
    assert first.sandbox.sh(f"busctl --user get-property {NETWORK} mode").stdout == 's "Client"\n'
    assert second.sandbox.sh(f"busctl --user get-property {NETWORK} mode").stdout == 's "Host"\n'
    assert second.journal.count(call("Get", path="/com/vantora/common/Settings1/network")) == 1
    init = first.sandbox.init
    first.close()
    assert not Path(f"/proc/{init}").exists()
    assert not first.work.exists()
    assert str(first.work) not in Path("/proc/self/mountinfo").read_text(encoding="utf-8")


def test_everything_ends_with_the_process_that_made_it(build_dir: Path) -> None:
    script = (
        "import sys, time; from pathlib import Path; from vantora_sim import World\n"
        "with World(Path(sys.argv[1])) as world:\n"
        "    sleeper = world.sandbox.start(['/bin/sleep', '1000'])\n"
        "    print(sleeper.pid, world.sandbox.init, world.work, flush=True)\n"
        "    time.sleep(1000)\n"
    )
    simulator = Path(__file__).resolve().parents[3] / "simulator"
    environment = {**os.environ, "PYTHONPATH": str(simulator), "TMPDIR": "/tmp"}
    owner = subprocess.Popen(
        ["/usr/bin/python3", "-c", script, str(build_dir)], env=environment, stdout=subprocess.PIPE, text=True
    )
    assert owner.stdout
    sleeper, init, work = owner.stdout.readline().split()
    owner.kill()
    owner.wait()
    owner.stdout.close()
    deadline = time.monotonic() + DEADLINE
    while any(Path(f"/proc/{pid}").exists() for pid in (sleeper, init)) or _processes_naming(work):
        assert time.monotonic() < deadline, _processes_naming(work)
        time.sleep(0.01)
    shutil.rmtree(work, ignore_errors=True)  # files are all that stays


def _processes_naming(text: str) -> list[str]:
    found = []
    for folder in Path("/proc").glob("[0-9]*"):
        try:
            line = (folder / "cmdline").read_bytes().decode(errors="replace")
        except OSError:
            continue
        if text in line:
            found.append(line.replace("\0", " "))
    return found


# The journal


def test_log_lines_are_recorded_whole(world: World) -> None:
    world.sandbox.sh("logger -t vantora-network -p user.warning 'Failed: [x] a  b'; logger -t other -i -p daemon.err text")
    assert world.journal.wait_for(log("warning", "Failed: [x] a  b")).ident == "vantora-network"
    assert world.journal.wait_for(log("err", "text", ident="other")).pid > 0
    assert world.journal.logs(ident="other") == [("err", "text")]


def test_order_is_that_of_the_program(world: World) -> None:
    world.sandbox.sh(
        "for i in 0 1 2 3 4 5 6 7 8 9; do "
        "logger -p user.info log$i; rfkill list wlan | tail -n +2; "
        "NOTIFY_SOCKET=/run/sim/notify systemd-notify STATUS=$i; logger after$i; "
        f"{MANAGER} LoadUnit s hostapd.service; "
        "busctl --user emit /com/vantora/Network1 org.freedesktop.DBus.Properties PropertiesChanged 'sa{sv}as' "
        "com.vantora.Network1.WiFi 1 WiFiState u $i 0; iw dev wlan0 info; done"
    )
    world.journal.wait_for(exited("sh", 0))
    seen = [
        str(
            entry.text
            if entry.kind in ("log", "notify")
            else entry.line
            if entry.kind == "command"
            else entry.member
            if entry.kind == "call"
            else entry.value
        )
        for entry in world.journal.since()
        if entry.kind != "exit" and getattr(entry, "text", "") != "BARRIER=1"
    ]
    assert seen == [
        text
        for i in range(10)
        for text in (f"log{i}", "rfkill list wlan", f"STATUS={i}", f"after{i}", "LoadUnit", str(i), "iw dev wlan0 info")
    ]


def test_flood_of_log_lines_is_kept_and_ordered_before_the_next_call(world: World) -> None:
    script = "import syslog\nfor i in range(5000): syslog.syslog(str(i))\nimport os; os.system('rfkill list wlan')"
    assert world.sandbox.run(["/usr/bin/python3", "-c", script]).status == 0
    before = world.journal.since()[: world.journal.wait_for(command("rfkill list wlan")).index]
    assert [entry.text for entry in before] == [str(i) for i in range(5000)]


@pytest.mark.parametrize("attempt", range(5))
def test_flood_of_announcements_is_kept_and_ordered_before_the_next_command(world: World, attempt: int) -> None:
    """More than a socket holds at once, while nobody reads: what the bus has not yet passed on came before the command, too.

    Every other time the bus is quick enough to have passed on all of it.
    """

    async def flood() -> None:
        bus = await connect(world.user_bus.address)
        for i in range(2000):
            await bus.send(Message.new_signal(PATH, INTERFACE, "Said", "uus", [attempt, i, "x" * 4000]))
        await Client(bus).ask_bus("GetId")
        await disconnect(bus)

    reading = threading.Event()
    world.loop.asyncio.call_soon_threadsafe(reading.wait)
    try:
        asyncio.run(flood())
        # As the command itself asks; nobody has to wait until it has done so.
        asked = b"".join(word + b"\0" for word in (b"rfkill", b"list", b"wlan"))
        with socket.socket(socket.AF_UNIX) as tool:
            tool.connect(str(world.work / "run/sim/tool"))
            tool.sendall(struct.pack("=I", len(asked)) + asked)
            reading.set()
            assert tool.recv(1)
    finally:
        reading.set()
    before = world.journal.since()[: world.journal.wait_for(command("rfkill list wlan")).index]
    assert [entry.body[:2] for entry in before if entry.kind == "signal"] == [[attempt, i] for i in range(2000)]


def test_whoever_asks_a_bus_that_hangs_is_let_go_when_the_connection_is_closed(world: World) -> None:
    probe = world.loop.run(BusProbe.open(world.user_bus.address))
    world.user_bus.freeze()
    try:
        asked = world.loop.submit(probe.ping())
        world.loop.run(probe.close())
        with pytest.raises(EOFError):
            asked.result(DEADLINE)
    finally:
        world.user_bus.thaw()
    another = world.loop.run(BusProbe.open(world.user_bus.address))  # most likely with the same number of a descriptor
    world.loop.run(another.ping())
    world.loop.run(another.close())


def test_signals_of_the_daemon_are_recorded_one_entry_per_property(world: World) -> None:
    emit = "busctl --user emit -- /com/vantora/Network1"
    world.sandbox.sh(
        f"{emit} org.freedesktop.DBus.Properties PropertiesChanged 'sa{{sv}}as' com.vantora.Network1.WiFi 2 "
        "Mode s Host WiFiState u 1 0; "
        f"{emit} com.vantora.Network1.WiFi AccessPointsChanged 'a(siib)' 1 net 1 -40 true"
    )
    world.journal.expect_in_order(
        [
            changed("Mode", "Host", alone=False),
            changed("WiFiState", 1, signature="u"),
            signal("AccessPointsChanged", [["net", 1, -40, True]], signature="a(siib)"),
        ]
    )


def test_wait_fails_with_the_tail_of_the_journal(world: World) -> None:
    world.sandbox.sh("rfkill list wlan")
    with pytest.raises(AssertionError) as failure:
        world.journal.wait_for(log("err", "never"), timeout=0.05)
    assert "log(priority='err', text='never')" in str(failure.value)
    assert "rfkill list wlan" in str(failure.value)


def test_expectations_do_not_hold_by_accident(world: World) -> None:
    world.sandbox.sh("logger -p user.info one; logger -p user.info two; logger -p user.err three")
    journal = world.journal
    journal.wait_for(log("err", "three"))
    journal.expect_in_order([log("info", "one"), log("err", "three")])
    journal.expect_logs_in_order([("info", "one"), ("info", "two")])
    for wrong in ([("info", "one"), ("err", "three")], [("info", "two"), ("info", "one")], [("err", "one")]):
        with pytest.raises(AssertionError):
            journal.expect_logs_in_order(wrong, timeout=0.05)
    with pytest.raises(AssertionError):
        journal.expect_in_order([log("err", "three"), log("info", "one")], timeout=0.05)


# The tools


def test_rfkill_follows_the_radio(world: World) -> None:
    assert world.sandbox.sh("rfkill list wlan").stdout == "0: phy0: Wireless LAN\n\tSoft blocked: no\n\tHard blocked: no\n"
    assert world.sandbox.sh("rfkill block wlan").status == 0
    assert world.radio.soft_blocked
    assert world.sandbox.sh("rfkill list wlan | tail -n +2 ").stdout == "\tSoft blocked: yes\n\tHard blocked: no\n"
    world.sandbox.sh("rfkill unblock wlan")
    world.radio.hard_blocked = True
    assert world.sandbox.sh("rfkill list wlan | tail -n +2 ").stdout == "\tSoft blocked: no\n\tHard blocked: yes\n"
    world.radio.present = False
    assert world.sandbox.sh("rfkill list wlan | tail -n +2 ").stdout == ""


def test_iw_follows_the_radio(world: World) -> None:
    assert world.sandbox.sh("iw dev wlan0 info | grep type").stdout == "\ttype managed\n"
    world.radio.interface_type = "AP"
    assert world.sandbox.sh("iw dev wlan0 info | grep type").stdout == "\ttype AP\n"
    assert world.sandbox.sh("iw wlan0 info | egrep txpower").stdout == "\ttxpower 20.00 dBm\n"
    world.radio.tx_power = None
    assert world.sandbox.sh("iw wlan0 info | egrep txpower").stdout == ""


def test_wpa_cli_follows_the_radio(world: World) -> None:
    line = "wpa_cli status | grep -w ssid=* | cut -d'=' -f2 | tr -d '\\n'"
    assert world.sandbox.sh(line).stdout == ""
    world.radio.station_running = True
    assert world.sandbox.sh(line).stdout == ""
    world.radio.station_ssid = b"caf\xc3\xa9 1"
    assert world.sandbox.sh(line).stdout == "caf\\xc3\\xa9 1"


def test_wpa_passphrase_derives_the_key(world: World) -> None:
    out = world.sandbox.sh("wpa_passphrase IEEE password").stdout
    assert "\tpsk=f42c6fc52df0ebef9ebb4b90b38a5f902e83fe1b135a70e23aed762e9710a12e\n" in out
    assert world.sandbox.sh("wpa_passphrase IEEE short").status == 1


def test_ip_is_the_real_one_and_is_recorded(world: World) -> None:
    assert world.sandbox.sh("ip addr add 192.168.8.1/24 dev wlan0").status == 0
    assert world.sandbox.sh("ip addr add 192.168.8.1/24 dev wlan0").status == 2
    assert "192.168.8.1/24" in world.sandbox.run(["/usr/sbin/ip", "-4", "addr"]).stdout
    assert world.journal.commands() == ["ip addr add 192.168.8.1/24 dev wlan0"] * 2


def test_tool_fails_so_many_times_and_only_for_its_arguments(world: World) -> None:
    world.tools.rfkill.fail(3, on="unblock wlan", times=2)
    statuses = [world.sandbox.sh(f"rfkill {verb} wlan").status for verb in ("block", "unblock", "unblock", "unblock")]
    assert statuses == [0, 3, 3, 0]


def test_tool_prints_what_it_is_told(world: World) -> None:
    world.tools.iw.output("\ttype monitor\n", times=1)
    assert world.sandbox.sh("iw dev wlan0 info").stdout == "\ttype monitor\n"
    assert "type managed" in world.sandbox.sh("iw dev wlan0 info").stdout
    assert world.sandbox.sh("killall udhcpc").status == 1


def test_tool_hangs_until_released_and_can_be_killed(world: World) -> None:
    world.tools.rfkill.hang(times=2)
    first = world.sandbox.start(["/run/sim/bin/rfkill", "block", "wlan"])
    world.journal.wait_for(command("rfkill block wlan"))
    assert first.running and not world.radio.soft_blocked
    world.tools.release()
    assert first.wait() == 0
    assert world.radio.soft_blocked
    second = world.sandbox.start(["/run/sim/bin/rfkill", "unblock", "wlan"])
    world.journal.wait_for(command("rfkill unblock wlan"))
    assert second.stop(signals.SIGKILL) == -signals.SIGKILL
    world.tools.rfkill.die(signals.SIGSEGV, times=1)
    assert world.sandbox.run(["/run/sim/bin/rfkill", "list"]).status == -signals.SIGSEGV


# The user bus


def test_user_bus_has_the_real_policy_and_can_be_lost(world: World) -> None:
    if os.geteuid() == 0:
        other = world.sandbox.sh(f"setpriv --reuid 65534 --clear-groups busctl --user get-property {NETWORK} mode")
        assert other.status == 1
    assert world.sandbox.sh(f"busctl --user get-property {NETWORK} mode").status == 0
    world.user_bus.stop()
    assert world.sandbox.sh(f"busctl --user get-property {NETWORK} mode").status == 1
    assert world.sandbox.sh("rfkill block wlan").status == 0
    assert world.radio.soft_blocked


def test_readiness_of_a_stand_in_daemon_and_its_early_end(world: World) -> None:
    world.start_daemon(Path("/usr/bin/systemd-notify"))
    with pytest.raises(AssertionError, match="ended with status"):
        world.wait_ready()
    script = world.sandbox.path("/run/daemon")
    script.write_text("#!/bin/sh\ntrap 'exit 0' TERM\nsystemd-notify READY=1\nwhile :; do sleep 0.01; done\n")
    script.chmod(0o755)
    world.start_daemon(Path("/run/daemon"))
    world.wait_ready()
    assert world.journal.count(notify("READY=1")) == 1


def test_calls_over_a_bus_that_has_gone_fail_and_do_not_wait(world: World) -> None:
    world.user_bus.stop()
    for _ in range(3):  # also those made when the loss is known already
        with pytest.raises((OSError, EOFError)):
            world.call("Scan")
