"""The test ground's neighbours: what they answer, and how they misbehave. No daemon takes part."""

from __future__ import annotations

import ast

from ground import MANAGER, NETWORK, SCAN, SETTINGS, STATION
from ground import SYSTEMD, Monitor, control, unit_job
from vantora_sim import Variant, World, call, hostapd_request, unit_name, unit_path

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
    assert (
        world.sandbox.sh(f"busctl --user get-property {NETWORK} enabled mode frequency").stdout == 'b true\ns "Host"\ns "2.4"\n'
    )
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
    monitor = Monitor(world, world.user_bus.address, f"sender='{SETTINGS}'")
    world.sandbox.sh(f"busctl --user set-property {NETWORK} mode s Client")
    world.settings.change("network", enabled=False)
    world.settings.notify_raw("/", "s", ["odd"])
    monitor.wait_for(2)
    world.settings.echo = True
    world.sandbox.sh(f"busctl --user set-property {NETWORK} frequency s 5")
    monitor.wait_for(3)
    path = "/com/vantora/common/Settings1/network"
    assert monitor.signals() == [
        (path, "PropertiesChanged", [SETTINGS, {"enabled": Variant("b", False)}, []]),
        ("/", "PropertiesChanged", ["odd"]),
        (path, "PropertiesChanged", [SETTINGS, {"frequency": Variant("s", "5")}, []]),
    ]
    monitor.close()
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
    world.hostapd.join(second)
    world.hostapd.join(first)
    world.hostapd.leave(second)
    client = control(world, "STA-FIRST", f"STA-NEXT {first}\nflags=[A", f"STA-NEXT {second}", "STA-NEXT", "STA-NEXT 1", "HELLO")
    client.wait()
    replies = [ast.literal_eval(line) for line in client.stdout.splitlines()]
    assert [reply[:24] for reply in replies] == [
        first.encode() + b"\nflags=",
        second.encode() + b"\nflags=",
        b"",
        b"UNKNOWN COMMAND\n",
        b"FAIL\n",
        b"UNKNOWN COMMAND\n",
    ]
    assert world.journal.count(hostapd_request("STA-FIRST")) == 2


def test_hostapd_sends_events_to_the_attached(world: World) -> None:
    world.hostapd.start()
    client = control(world, "ATTACH", "-", "-", "-", "-", "DETACH", "DETACH")
    world.hostapd.wait_attached()
    world.hostapd.join("02:00:00:00:30:01")
    world.hostapd.disable()
    world.hostapd.datagram(b"odd \xff")
    client.wait()
    assert client.stdout.splitlines() == [
        "b'OK\\n'",
        "b'<3>AP-STA-CONNECTED 02:00:00:00:30:01'",
        "b'<3>AP-DISABLED '",
        "b'<3>AP-STA-DISCONNECTED 02:00:00:00:30:01'",
        "b'odd \\xff'",
        "b'OK\\n'",
        "b'FAIL\\n'",
    ]
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


def test_station_daemon_that_starts_knows_nothing_and_says_that_it_is_disconnected(world: World) -> None:
    path, interface = "/fi/w1/wpa_supplicant1/Interfaces/1", "fi.w1.wpa_supplicant1.Interface"
    state = {"State": Variant("s", "disconnected")}
    for verb in ("Start", "Restart"):
        monitor = Monitor(world, world.system_bus.address, "member='PropertiesChanged'")
        world.sandbox.sh(unit_job(verb, "wpa_supplicant-nl80211@wlan0.service"))
        monitor.wait_for(2)
        monitor.close()
        assert monitor.signals() == [(path, "PropertiesChanged", [interface, state, []]), (path, "PropertiesChanged", [state])]
        assert world.wpa.networks == {}
        assert world.sandbox.sh(f"busctl --system call {STATION} AddNetwork 'a{{sv}}' 1 ssid s net").status == 0


def test_networks_are_added_selected_and_removed_as_sent(world: World) -> None:
    world.wpa.come_back()
    add = f"busctl --system call {STATION} AddNetwork 'a{{sv}}'"
    added = world.sandbox.sh(f"{add} 3 ssid s net key_mgmt s WPA-PSK psk s secret12").stdout
    path = "/fi/w1/wpa_supplicant1/Interfaces/1/Networks/0"
    assert added == f'o "{path}"\n'
    sent = world.journal.wait_for(call("AddNetwork")).args[0]
    assert list(sent.items()) == [
        ("ssid", Variant("s", "net")),
        ("key_mgmt", Variant("s", "WPA-PSK")),
        ("psk", Variant("s", "secret12")),
    ]
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
    assert (
        world.sandbox.sh(f"{get} /fi/w1/wpa_supplicant1/Interfaces/1 fi.w1.wpa_supplicant1.Interface BSSs").stdout
        == f'ao 2 "{path}" "{other}"\n'
    )
    bss = "fi.w1.wpa_supplicant1.BSS"
    assert (
        world.sandbox.sh(f"{get} {path} {bss} SSID Signal Privacy RSN").stdout
        == "ay 5 99 97 102 195 169\nn -71\nb false\na{sv} 0\n"
    )
    assert world.sandbox.sh(f"{get} {other} {bss} Signal").stdout == 's "strong"\n'
    assert world.sandbox.sh(f"{get} {other} {bss} RSN").status == 1
    world.wpa.remove_bss(path)
    assert world.sandbox.sh(f"{get} {path} {bss} SSID").status == 1


def test_state_changes_are_notified_twice(world: World) -> None:
    world.wpa.come_back()
    path = world.wpa.add_bss("net")
    monitor = Monitor(world, world.system_bus.address, "member='PropertiesChanged'")
    world.wpa.report_state("completed", bss=path)
    monitor.wait_for(2)
    values = {"State": Variant("s", "completed"), "CurrentBSS": Variant("o", path)}
    interface = "fi.w1.wpa_supplicant1.Interface"
    assert [body for _, _, body in monitor.signals()] == [[interface, values, []], [values]]
    monitor.close()
