"""hostapd's events: what each is taken for, how it is cut, and that a flood of them holds nobody up."""

from __future__ import annotations

import signal
import threading

import pytest
from access_point import attached_up, receive
from vantora_sim import DEADLINE, World, changed, command, log

ONE, TWO = "02:00:00:00:00:01", "02:00:00:00:00:02"


def received(text: str) -> tuple[str, str]:
    """The line about an event that has come."""
    return "info", f"ListenTask: Recv {text}"


def settings_reads_hang(world: World) -> int:
    """Have hostapd's next farewell keep the listener's thread waiting for the settings; returns the mark before it.

    The stored mode is "Client", so that the farewell has no other consequence.
    """
    world.settings.set("network", "mode", "Client")
    world.settings.hang("Get", on="network.enabled")
    world.hostapd.before_event = None
    mark = world.journal.mark()
    world.hostapd.event("CTRL-EVENT-TERMINATING ")
    world.journal.wait_for(log("info", "Read settings from Settings Daemon"), mark)
    return mark


@pytest.mark.parametrize("prefix", ["", "<3>", "<2>wlan0:"])
def test_each_event_is_logged_and_has_its_reaction(world: World, prefix: str) -> None:
    attached_up(world)
    world.settings.set("network", "mode", "Client")
    rows = [
        (f"AP-STA-CONNECTED {ONE}", [("info", f"wifi_host_station_connected: {ONE}")], "WiFiConnectedClients", 0),
        (f"AP-STA-DISCONNECTED {ONE}", [("info", f"wifi_host_station_disconnected: {ONE}")], "WiFiConnectedClients", 0),
        ("AP-ENABLED", [("info", "wifi_host_ap_initialised: AP State: READY")], "WiFiAccessPointInitialised", True),
        ("AP-DISABLED ", [("info", "wifi_host_ap_initialised: AP State: NOT READY")], "WiFiAccessPointInitialised", False),
    ]
    for text, reaction, name, value in rows:
        mark = world.journal.mark()
        world.hostapd.datagram((prefix + text).encode())
        world.journal.expect_logs_in_order([received(prefix + text), *reaction], mark)
        world.journal.wait_for(changed(name, value, alone=True), mark)
        world.settle()
        assert len(world.journal.changes(mark)) == 1
    mark = world.journal.mark()
    world.hostapd.datagram((prefix + "CTRL-EVENT-TERMINATING ").encode())
    world.journal.expect_logs_in_order(
        [
            received(prefix + "CTRL-EVENT-TERMINATING "),
            ("err", "wifi_host_terminated: hostapd terminated."),
            ("info", "Read settings from Settings Daemon"),
        ],
        mark,
    )


def test_events_without_a_meaning_are_logged_and_nothing_else(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    texts = [
        "<3>AP-STA-POSSIBLE-PSK-MISMATCH 02:00:00:00:00:01",
        "<3>ap-enabled",
        "<3>CTRL-EVENT-EAP-STARTED 02:00",
        "<3>",
        "%s%n",
    ]
    for text in texts:
        before = world.journal.mark()
        world.hostapd.datagram(text.encode())
        world.journal.wait_for(log(*received(text)), before)
    world.settle()
    assert world.journal.logs(mark) == [received(text) for text in texts]
    assert world.journal.changes(mark) == []


def test_station_text_is_all_behind_the_first_blank_or_the_whole_event(world: World) -> None:
    attached_up(world)
    for text, station in (
        (f"AP-STA-CONNECTED {ONE} keyid=phone x", f"{ONE} keyid=phone x"),
        ("AP-STA-CONNECTED", "<3>AP-STA-CONNECTED"),
        ("AP-STA-CONNECTED ", ""),
        ("AP-STA-DISCONNECTED", "<3>AP-STA-DISCONNECTED"),
    ):
        mark = receive(world, text)
        name = "disconnected" if "DIS" in text else "connected"
        world.journal.wait_for(log("info", f"wifi_host_station_{name}: {station}"), mark)
        world.journal.wait_for(changed("WiFiConnectedClients", 0), mark)


def test_first_text_of_the_table_wins_wherever_it_stands(world: World) -> None:
    attached_up(world)
    for text, line, name in (
        (
            "CTRL-EVENT-T AP-DISABLED AP-ENABLED AP-STA-DISCONNECTED AP-STA-CONNECTED",
            "wifi_host_station_connected: AP-DISABLED AP-ENABLED AP-STA-DISCONNECTED AP-STA-CONNECTED",
            "WiFiConnectedClients",
        ),
        (
            "CTRL-EVENT-T AP-ENABLED AP-STA-DISCONNECTED",
            "wifi_host_station_disconnected: AP-ENABLED AP-STA-DISCONNECTED",
            "WiFiConnectedClients",
        ),
        ("CTRL-EVENT-T AP-DISABLED AP-ENABLED", "wifi_host_ap_initialised: AP State: READY", "WiFiAccessPointInitialised"),
        ("CTRL-EVENT-T AP-DISABLED", "wifi_host_ap_initialised: AP State: NOT READY", "WiFiAccessPointInitialised"),
    ):
        mark = receive(world, text)
        world.journal.expect_logs_in_order([received(f"<3>{text}"), ("info", line)], mark)
        world.journal.wait_for(changed(name), mark)
    assert world.journal.count(log("err", "wifi_host_terminated: hostapd terminated.")) == 0


def test_repeated_events_are_announced_each_time(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    for _ in range(3):
        before = receive(world, "AP-ENABLED ")
        world.journal.wait_for(changed("WiFiAccessPointInitialised", True), before)
    world.settle()
    assert world.journal.changes(mark) == [("WiFiAccessPointInitialised", True)] * 3
    assert world.get("WiFiAccessPointInitialised") is True


def test_later_event_of_one_wake_up_is_cut_to_the_length_of_the_one_before(world: World) -> None:
    attached_up(world)
    spaced = world.hostapd.before_event
    mark = settings_reads_hang(world)
    for text in (f"AP-STA-CONNECTED {ONE}", "AP-ENABLED", f"AP-STA-DISCONNECTED {TWO}", "AP", "AP-DISABLED"):
        world.hostapd.event(text)
    world.settings.clear()
    world.journal.wait_until(lambda: world.journal.count(log(*received("<3>AP")), mark) == 2, "the last event", since=mark)
    assert [line for line in world.journal.logs(mark) if line[1].startswith(("ListenTask: ", "wifi_host_"))] == [
        received("<3>CTRL-EVENT-TERMINATING "),
        ("err", "wifi_host_terminated: hostapd terminated."),
        received(f"<3>AP-STA-CONNECTED {ONE}"[:26]),
        ("info", "wifi_host_station_connected: 02:00:"),
        received("<3>AP-ENABLED"),
        ("info", "wifi_host_ap_initialised: AP State: READY"),
        received("<3>AP-STA-DIS"),
        received("<3>AP"),
        received("<3>AP"),
    ]

    world.hostapd.before_event = spaced  # the next event has a wake-up of its own
    receive(world, f"AP-STA-CONNECTED {ONE}")


def test_events_sent_in_a_row_are_not_cut_however_late_the_listener_wakes(world: World) -> None:
    attached_up(world)
    assert world.daemon
    mark = world.journal.mark()
    world.daemon.send_signal(signal.SIGSTOP)
    waking = threading.Timer(0.3, world.daemon.send_signal, [signal.SIGCONT])
    waking.start()
    try:
        world.hostapd.enable()  # a thread that is held up in select seems to sleep there
        world.hostapd.join(ONE)
        world.journal.wait_for(log(*received(f"<3>AP-STA-CONNECTED {ONE}")), mark)
    finally:
        waking.join()


def test_events_that_wait_while_the_thread_is_blocked_are_not_lost(world: World) -> None:
    attached_up(world)
    mark = settings_reads_hang(world)
    for _ in range(5):
        world.hostapd.event("AP-ENABLED ")
        world.hostapd.event("AP-DISABLED")
    world.settings.clear()
    world.journal.wait_until(
        lambda: world.journal.count(log(text=lambda text: text.startswith("wifi_host_ap_init")), mark) == 10,
        "all ten reactions",
        since=mark,
    )


def test_blocked_listener_thread_does_not_hold_up_the_main_loop(world: World) -> None:
    attached_up(world)
    settings_reads_hang(world)
    assert world.get("Mode") == "Host"
    assert world.get("WiFiConnectedClients") == 0


def test_flood_of_events_while_properties_are_read(world: World) -> None:
    attached_up(world)
    spaced, world.hostapd.before_event = world.hostapd.before_event, None
    mark = world.journal.mark()
    ready = []
    for number in range(5000):
        world.hostapd.event("AP-ENABLED ")
        if number % 500 == 0:
            ready.append(world.get("WiFiAccessPointInitialised"))
    assert len(ready) == 10
    # hostapd drops what does not fit into the socket; what was received was also announced.
    world.hostapd.before_event = spaced
    world.hostapd.disable()
    world.journal.wait_for(changed("WiFiAccessPointInitialised", False), mark)
    world.settle()
    reactions = world.journal.count(log("info", "wifi_host_ap_initialised: AP State: READY"), mark)
    assert reactions >= 10
    announced = [value for _, value in world.journal.changes(mark)]
    assert announced == [True] * reactions + [False]
    assert world.get("WiFiAccessPointInitialised") is False


def test_longest_event_and_bytes_that_are_no_text(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    world.hostapd.datagram(b"AP-STA-CONNECTED " + b"\xff\xfe\x80")
    world.journal.wait_for(changed("WiFiConnectedClients", 0), mark)
    mark = world.journal.mark()
    world.hostapd.datagram(b"<3>AP-ENABLED " + b"x" * 6000)
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)
    assert world.get("WiFiAccessPointInitialised") is True


def test_each_announcement_carries_the_value_of_its_event_however_late_the_main_loop_gets_to_it(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    world.tools.iw.hang()
    read = world.call_async("Get", "ss", ["com.vantora.Network1.WiFi", "Mode"], interface="org.freedesktop.DBus.Properties")
    world.journal.wait_for(command("iw dev wlan0 info"), mark)  # the main loop waits for it
    for text in ("AP-ENABLED ", "AP-DISABLED ", "AP-ENABLED ", "AP-DISABLED "):
        receive(world, text)
    world.tools.iw.release()
    assert read.result(DEADLINE)
    world.journal.wait_until(lambda: world.journal.count(changed(), mark) == 4, "four announcements", since=mark)
    assert world.journal.changes(mark) == [("WiFiAccessPointInitialised", value) for value in (True, False, True, False)]
    assert [(entry.signature, entry.alone) for entry in world.journal.find(changed(), mark)] == [("b", True)] * 4
    assert world.get("WiFiAccessPointInitialised") is False
