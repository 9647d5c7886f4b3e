"""The test ground itself: the sandbox, the journal, the neighbours and their misbehaviour. No daemon takes part."""

from __future__ import annotations

import ast
import json
import os
import shutil
import signal as signals
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

import pytest
from vantora_sim import DEADLINE, Process, Variant, World, call, changed, command, exited, hostapd_request, log, notify, signal
from vantora_sim import unit_name, unit_path

SYSTEMD = "org.freedesktop.systemd1"
MANAGER = f"busctl --system call {SYSTEMD} /org/freedesktop/systemd1 {SYSTEMD}.Manager"
SETTINGS = "com.vantora.common.Settings1"
NETWORK = f"{SETTINGS} /com/vantora/common/Settings1/network {SETTINGS}"
STATION = "fi.epitest.hostap.WPASupplicant /fi/w1/wpa_supplicant1/Interfaces/1 fi.w1.wpa_supplicant1.Interface"
SCAN = f"busctl --system call {STATION} Scan 'a{{sv}}' 1 Type s active"

CONTROL_CLIENT = """
import os, socket, sys
client = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
client.bind(f"/tmp/client-{os.getpid()}")
client.settimeout(20)
try:
    client.connect("/var/run/hostapd/wlan0")
    for request in sys.argv[1:]:
        if request != "-":
            client.send(request.encode())
        print(client.recv(65536), flush=True)
except OSError as error:
    print(type(error).__name__, flush=True)
"""


def unit_job(verb: str, unit: str) -> str:
    """The shell command that asks systemd for a job."""
    return f"busctl --system call {SYSTEMD} {unit_path(unit)} {SYSTEMD}.Unit {verb} s replace"


def control(world: World, *requests: str) -> Process:
    """A client of hostapd that sends each request and prints what it receives; "-" only receives."""
    return world.sandbox.start(["/usr/bin/python3", "-c", CONTROL_CLIENT, *requests])


def wait_for_text(read: Callable[[], str], text: str) -> None:
    """Wait until a program has printed a text."""
    deadline = time.monotonic() + DEADLINE
    while text not in read():
        assert time.monotonic() < deadline, f"{text!r} did not come, but {read()!r}"
        time.sleep(0.002)


def start_monitor(world: World, bus: str, rule: str) -> Process:
    """A program in the sandbox that prints the signals of a bus that fit the rule, one JSON object a line."""
    monitor = world.sandbox.start(["/usr/bin/busctl", bus, "monitor", "--json=short", f"--match=type='signal',{rule}"])
    wait_for_text(lambda: monitor.stderr, "Monitoring bus message stream")
    return monitor


def seen_signals(monitor: Process) -> list[tuple[str, str, list[object]]]:
    """Path, member and body of the signals printed so far."""
    messages = [json.loads(line) for line in monitor.stdout.splitlines()]
    return [(message["path"], message["member"], message["payload"]["data"]) for message in messages
            if message.get("path") not in (None, "/org/freedesktop/DBus")]


# The sandbox


def test_host_is_read_only_and_own_paths_are_private(world: World) -> None:
    assert "Read-only" in world.sandbox.sh("touch /usr/vantora-sim-x").stderr
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
    assert str(first.work) not in Path("/proc/self/mountinfo").read_text()


def test_everything_ends_with_the_process_that_made_it(build_dir: Path) -> None:
    script = ("import sys, time; from pathlib import Path; from vantora_sim import World\n"
              "with World(Path(sys.argv[1])) as world:\n"
              "    sleeper = world.sandbox.start(['/bin/sleep', '1000'])\n"
              "    print(sleeper.pid, world.sandbox.init, world.work, flush=True)\n"
              "    time.sleep(1000)\n")
    simulator = Path(__file__).resolve().parents[2] / "simulator"
    environment = {**os.environ, "PYTHONPATH": str(simulator), "TMPDIR": "/tmp"}
    owner = subprocess.Popen(["/usr/bin/python3", "-c", script, str(build_dir)], env=environment, stdout=subprocess.PIPE, text=True)
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
    world.sandbox.sh("for i in 0 1 2 3 4 5 6 7 8 9; do "
                     "logger -p user.info log$i; rfkill list wlan | tail -n +2; "
                     "NOTIFY_SOCKET=/run/sim/notify systemd-notify STATUS=$i; logger after$i; "
                     f"{MANAGER} LoadUnit s hostapd.service; "
                     "busctl --user emit /com/vantora/Network1 org.freedesktop.DBus.Properties PropertiesChanged 'sa{sv}as' "
                     "com.vantora.Network1.WiFi 1 WiFiState u $i 0; iw dev wlan0 info; done")
    world.journal.wait_for(exited("sh", 0))
    seen = [str(entry.text if entry.kind in ("log", "notify") else entry.line if entry.kind == "command" else
                entry.member if entry.kind == "call" else entry.value)
            for entry in world.journal.since() if entry.kind != "exit" and getattr(entry, "text", "") != "BARRIER=1"]
    assert seen == [text for i in range(10) for text in (
        f"log{i}", "rfkill list wlan", f"STATUS={i}", f"after{i}", "LoadUnit", str(i), "iw dev wlan0 info")]


def test_flood_of_log_lines_is_kept_and_ordered_before_the_next_call(world: World) -> None:
    script = "import syslog\nfor i in range(5000): syslog.syslog(str(i))\nimport os; os.system('rfkill list wlan')"
    assert world.sandbox.run(["/usr/bin/python3", "-c", script]).status == 0
    before = world.journal.since()[:world.journal.wait_for(command("rfkill list wlan")).index]
    assert [entry.text for entry in before] == [str(i) for i in range(5000)]


def test_signals_of_the_daemon_are_recorded_one_entry_per_property(world: World) -> None:
    emit = "busctl --user emit -- /com/vantora/Network1"
    world.sandbox.sh(f"{emit} org.freedesktop.DBus.Properties PropertiesChanged 'sa{{sv}}as' com.vantora.Network1.WiFi 2 "
                     "Mode s Host WiFiState u 1 0; "
                     f"{emit} com.vantora.Network1.WiFi AccessPointsChanged 'a(siib)' 1 net 1 -40 true")
    world.journal.expect_in_order([
        changed("Mode", "Host", alone=False), changed("WiFiState", 1, signature="u"),
        signal("AccessPointsChanged", [["net", 1, -40, True]], signature="a(siib)"),
    ])


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


# systemd


def test_unit_names_and_paths() -> None:
    name = "wpa_supplicant-nl80211@wlan0.service"
    assert unit_path(name) == "/org/freedesktop/systemd1/unit/wpa_5fsupplicant_2dnl80211_40wlan0_2eservice"
    assert unit_name(unit_path(name)) == name
    assert unit_path("0.service") == "/org/freedesktop/systemd1/unit/_30_2eservice"


def test_unit_jobs_are_answered_and_recorded(world: World) -> None:
    shown = world.sandbox.sh(f"{MANAGER} LoadUnit s udhcpd.service && {unit_job('Start', 'udhcpd.service')}")
    assert shown.stdout == f'o "{unit_path("udhcpd.service")}"\no "/org/freedesktop/systemd1/job/1"\n'
    assert world.systemd.active["udhcpd.service"]
    entry = world.journal.wait_for(call("Start", "replace", path=unit_path("udhcpd.service")))
    assert (entry.bus, entry.destination, entry.interface, entry.signature) == ("system", SYSTEMD, f"{SYSTEMD}.Unit", "s")
    world.sandbox.sh(unit_job("Stop", "udhcpd.service"))
    assert not world.systemd.active["udhcpd.service"]


def test_unknown_units_load_but_do_not_start(world: World) -> None:
    assert world.sandbox.sh(f"{MANAGER} LoadUnit s none.service").status == 0
    assert "Unit none.service not found." in world.sandbox.sh(unit_job("Start", "none.service")).stderr
    assert world.sandbox.sh(f"{MANAGER} LoadUnit s none").status == 1
    assert "not loaded" in world.sandbox.sh(f"{MANAGER} GetUnit s none.service").stderr


def test_unit_files_are_enabled_by_path_and_disabled_by_name(world: World) -> None:
    file = "/etc/korrin/udhcpd_eth0.service"
    assert world.sandbox.sh(f"{MANAGER} EnableUnitFiles asbb 1 {file} false false").stdout == "ba(sss) false 0\n"
    assert world.systemd.enabled == {"udhcpd_eth0.service"}
    assert world.sandbox.sh(f"{MANAGER} DisableUnitFiles asb 1 {file} false").status == 1
    assert world.sandbox.sh(f"{MANAGER} DisableUnitFiles asb 1 udhcpd_eth0.service false").status == 0
    assert world.systemd.enabled == set()
    assert world.sandbox.sh(f"{MANAGER} EnableUnitFiles asbb 1 /etc/none.service false false").status == 1


def test_calls_are_refused_garbled_and_emptied_per_member_and_unit(world: World) -> None:
    world.systemd.refuse("Start", on="udhcpd.service", name="org.example.Error", text="not today", times=1)
    assert world.sandbox.sh(unit_job("Start", "udhcpc@wlan0.service")).status == 0
    assert "not today" in world.sandbox.sh(unit_job("Start", "udhcpd.service")).stderr
    assert world.sandbox.sh(unit_job("Start", "udhcpd.service")).status == 0
    world.systemd.reply("LoadUnit", "s", ["garbage"], on="hostapd.service", times=1)
    assert world.sandbox.sh(f"{MANAGER} LoadUnit s hostapd.service").stdout == 's "garbage"\n'
    world.systemd.reply("LoadUnit", "", [])
    assert world.sandbox.sh(f"{MANAGER} LoadUnit s hostapd.service").stdout == ""
    world.systemd.clear()
    assert world.sandbox.sh(f"{MANAGER} LoadUnit s hostapd.service").stdout == f'o "{unit_path("hostapd.service")}"\n'


def test_call_hangs_until_released(world: World) -> None:
    world.systemd.hang("Stop")
    caller = world.sandbox.start(["/bin/sh", "-c", unit_job("Stop", "hostapd.service")])
    world.journal.wait_for(call("Stop"))
    assert caller.running
    world.systemd.clear()
    assert caller.wait() == 0


def test_service_vanishes_in_the_middle_of_a_call_and_comes_back(world: World) -> None:
    world.systemd.vanish("Stop")
    broken = world.sandbox.sh(unit_job("Stop", "hostapd.service"))
    assert (broken.status, "disconnected" in broken.stderr) == (1, True)
    assert not world.systemd.present
    assert world.sandbox.sh(unit_job("Stop", "hostapd.service")).status == 1
    world.systemd.come_back()
    assert world.sandbox.sh(unit_job("Stop", "hostapd.service")).status == 0


# The settings daemon


def test_settings_are_read_written_and_typed(world: World) -> None:
    assert world.sandbox.sh(f"busctl --user get-property {NETWORK} enabled mode frequency").stdout == \
        'b true\ns "Host"\ns "2.4"\n'
    assert world.sandbox.sh(f"busctl --user set-property {NETWORK} mode s Client").status == 0
    assert world.settings.get("network", "mode") == "Client"
    assert world.sandbox.sh(f"busctl --user set-property {NETWORK} mode b true").status == 1
    assert world.sandbox.sh(f"busctl --user get-property {NETWORK} none").status == 1
    world.settings.set("network", "mode", Variant("u", 7))
    assert world.sandbox.sh(f"busctl --user get-property {NETWORK} mode").stdout == "u 7\n"
    world.settings.remove("network", "mode")
    assert world.sandbox.sh(f"busctl --user get-property {NETWORK} mode").status == 1


def test_settings_are_reset(world: World) -> None:
    root = f"busctl --user call {SETTINGS} /com/vantora/common/Settings1 {SETTINGS}"
    for reset in ("ResetSetting ss network mode", "ResetSection s network", "ResetToDefaults b true"):
        world.settings.set("network", "mode", "Client")
        assert world.sandbox.sh(f"{root} {reset}").status == 0
        assert world.settings.get("network", "mode") == "Host"


def test_setting_can_fail_alone_and_the_daemon_can_be_away(world: World) -> None:
    world.settings.refuse("Get", on="network.frequency", text="no such luck")
    assert "no such luck" in world.sandbox.sh(f"busctl --user get-property {NETWORK} frequency").stderr
    assert world.sandbox.sh(f"busctl --user get-property {NETWORK} mode").status == 0
    world.settings.go()
    assert not world.name_owned(SETTINGS)
    assert world.sandbox.sh(f"busctl --user get-property {NETWORK} mode").status == 1
    world.settings.come_back()
    assert world.sandbox.sh(f"busctl --user get-property {NETWORK} mode").status == 0


def test_change_by_another_client_is_notified_and_echo_is_off_unless_wanted(world: World) -> None:
    monitor = start_monitor(world, "--user", f"sender='{SETTINGS}'")
    world.sandbox.sh(f"busctl --user set-property {NETWORK} mode s Client")
    world.settings.change("network", enabled=False)
    world.settings.notify_raw("/", "s", ["odd"])
    wait_for_text(lambda: monitor.stdout, "odd")
    world.settings.echo = True
    world.sandbox.sh(f"busctl --user set-property {NETWORK} frequency s 5")
    wait_for_text(lambda: monitor.stdout, "frequency")
    path = "/com/vantora/common/Settings1/network"
    assert seen_signals(monitor) == [
        (path, "PropertiesChanged", [SETTINGS, {"enabled": {"type": "b", "data": False}}, []]),
        ("/", "PropertiesChanged", ["odd"]),
        (path, "PropertiesChanged", [SETTINGS, {"frequency": {"type": "s", "data": "5"}}, []]),
    ]
    assert world.settings.get("network", "enabled") is False


# hostapd


def test_hostapd_comes_and_goes_with_its_unit(world: World) -> None:
    (world.work / "run/hostapd.conf").write_text("a=b\nssid=Living room\n")
    world.sandbox.sh(unit_job("Start", "hostapd.service"))
    assert world.sandbox.sh("test -S /var/run/hostapd/wlan0").status == 0
    shown = world.sandbox.sh("iw dev wlan0 info").stdout
    assert "\ttype AP\n" in shown and "\tssid Living room\n" in shown
    assert control(world, "PING").wait() == 0
    world.sandbox.sh(unit_job("Stop", "hostapd.service"))
    assert world.sandbox.sh("test -e /var/run/hostapd").status == 1
    assert "\ttype managed\n" in world.sandbox.sh("iw dev wlan0 info").stdout


def test_hostapd_lists_its_stations(world: World) -> None:
    world.hostapd.start()
    first, second = "02:00:00:00:30:01", "02:00:00:00:30:02"
    client = control(world, "STA-FIRST")
    client.wait()
    assert client.stdout == "b''\n"
    world.hostapd.join(first)
    world.hostapd.join(second)
    world.hostapd.leave(second)
    client = control(world, "STA-FIRST", f"STA-NEXT {first}\nflags=[A", f"STA-NEXT {second}", "STA-NEXT", "STA-NEXT 1", "HELLO")
    client.wait()
    replies = [ast.literal_eval(line) for line in client.stdout.splitlines()]
    assert [reply[:24] for reply in replies] == [
        first.encode() + b"\nflags=", second.encode() + b"\nflags=", b"", b"UNKNOWN COMMAND\n", b"FAIL\n", b"UNKNOWN COMMAND\n"]
    assert world.journal.count(hostapd_request("STA-FIRST")) == 2


def test_hostapd_sends_events_to_the_attached(world: World) -> None:
    world.hostapd.start()
    client = control(world, "ATTACH", "-", "-", "-", "DETACH")
    world.hostapd.wait_attached()
    world.hostapd.join("02:00:00:00:30:01")
    world.hostapd.disable()
    world.hostapd.datagram(b"odd \xff")
    client.wait()
    assert client.stdout.splitlines() == [
        "b'OK\\n'", "b'<3>AP-STA-CONNECTED 02:00:00:00:30:01'", "b'<3>AP-DISABLED '", "b'odd \\xff'", "b'OK\\n'"]
    assert world.hostapd.attached == 0


def test_hostapd_says_farewell_when_terminated_and_nothing_when_killed(world: World) -> None:
    world.hostapd.start()
    client = control(world, "ATTACH", "-", "-")
    world.hostapd.wait_attached()
    world.hostapd.terminate()
    client.wait()
    assert client.stdout.splitlines()[1:3] == ["b'<3>AP-DISABLED '", "b'<3>CTRL-EVENT-TERMINATING '"]
    assert not (world.work / "run/hostapd").exists()
    world.hostapd.start()
    world.hostapd.kill()
    assert world.sandbox.sh("test -S /var/run/hostapd/wlan0").status == 0
    client = control(world, "PING")
    client.wait()
    assert client.stdout == "ConnectionRefusedError\n"


def test_hostapd_refuses_answers_oddly_and_hangs(world: World) -> None:
    world.hostapd.start()
    world.hostapd.refuse("ATTACH", times=1)
    world.hostapd.answer("PING", b"\0odd", times=1)
    world.hostapd.hang("STA-FIRST", times=1)
    client = control(world, "ATTACH", "PING", "PING", "STA-FIRST")
    world.journal.wait_for(hostapd_request("STA-FIRST"))
    assert client.running
    world.hostapd.release()
    client.wait()
    assert client.stdout.splitlines() == ["b'FAIL\\n'", "b'\\x00odd'", "b'PONG\\n'", "b''"]
    assert world.hostapd.attached == 0


# wpa_supplicant


def test_station_daemon_comes_and_goes_with_its_unit_under_both_names(world: World) -> None:
    unit = "wpa_supplicant-nl80211@wlan0.service"
    assert world.sandbox.sh(SCAN).status == 1
    world.sandbox.sh(unit_job("Start", unit))
    assert world.sandbox.sh(SCAN).status == 0
    assert world.sandbox.sh(SCAN.replace("fi.epitest.hostap.WPASupplicant", "fi.w1.wpa_supplicant1")).status == 0
    assert world.sandbox.sh("wpa_cli status").status == 0
    world.sandbox.sh(unit_job("Stop", unit))
    assert world.sandbox.sh(SCAN).status == 1
    assert world.sandbox.sh("wpa_cli status").status == 255


def test_networks_are_added_selected_and_removed_as_sent(world: World) -> None:
    world.wpa.come_back()
    add = f"busctl --system call {STATION} AddNetwork 'a{{sv}}'"
    added = world.sandbox.sh(f"{add} 3 ssid s net key_mgmt s WPA-PSK psk s secret12").stdout
    path = "/fi/w1/wpa_supplicant1/Interfaces/1/Networks/0"
    assert added == f'o "{path}"\n'
    sent = world.journal.wait_for(call("AddNetwork")).args[0]
    assert list(sent.items()) == [("ssid", Variant("s", "net")), ("key_mgmt", Variant("s", "WPA-PSK")),
                                  ("psk", Variant("s", "secret12"))]
    assert "invalid message format" in world.sandbox.sh(f"{add} 3 ssid s net key_mgmt s WPA-PSK psk s short").stderr
    for member, status in (("SelectNetwork", 0), ("RemoveNetwork", 0), ("RemoveNetwork", 1)):
        assert world.sandbox.sh(f"busctl --system call {STATION} {member} o {path}").status == status
    assert "not connected" in world.sandbox.sh(f"busctl --system call {STATION} Disconnect").stderr
    assert world.sandbox.sh(f"busctl --system call {STATION} Scan 'a{{sv}}' 0").status == 1


def test_networks_around_are_objects_that_can_vanish(world: World) -> None:
    world.wpa.come_back()
    path = world.wpa.add_bss(b"caf\xc3\xa9", signal=-71, privacy=False, key_mgmt=())
    other = world.wpa.add_bss("other", extra={"Signal": Variant("s", "strong")}, missing=("RSN",))
    get = "busctl --system get-property fi.w1.wpa_supplicant1"
    assert world.sandbox.sh(f"{get} /fi/w1/wpa_supplicant1/Interfaces/1 fi.w1.wpa_supplicant1.Interface BSSs").stdout == \
        f'ao 2 "{path}" "{other}"\n'
    bss = "fi.w1.wpa_supplicant1.BSS"
    assert world.sandbox.sh(f"{get} {path} {bss} SSID Signal Privacy RSN").stdout == \
        "ay 5 99 97 102 195 169\nn -71\nb false\na{sv} 0\n"
    assert world.sandbox.sh(f"{get} {other} {bss} Signal").stdout == 's "strong"\n'
    assert world.sandbox.sh(f"{get} {other} {bss} RSN").status == 1
    world.wpa.remove_bss(path)
    assert world.sandbox.sh(f"{get} {path} {bss} SSID").status == 1


def test_state_changes_are_notified_twice(world: World) -> None:
    world.wpa.come_back()
    path = world.wpa.add_bss("net")
    monitor = start_monitor(world, "--system", "member='PropertiesChanged'")
    world.wpa.report_state("completed", bss=path)
    wait_for_text(lambda: monitor.stdout, "org.freedesktop.DBus.Properties")
    values = {"State": {"type": "s", "data": "completed"}, "CurrentBSS": {"type": "o", "data": path}}
    interface = "fi.w1.wpa_supplicant1.Interface"
    assert [body for _, _, body in seen_signals(monitor)] == [[values], [interface, values, []]]


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
