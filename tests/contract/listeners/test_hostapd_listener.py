"""The life of the listener on hostapd's control socket: attaching, losing hostapd, starting again, ending at once."""

from __future__ import annotations

import os
import shutil
import time
from collections.abc import Callable

import pytest
from access_point import attached_up, receive
from vantora_sim import Variant, World, call, changed, hostapd_request, log, units

ONE = "02:00:00:00:00:01"
NOT_CONNECTED = ("err", "ListenTask: Not connected to socket - cannot listen.")
NOT_ATTACHED = ("err", "ListenTask: Cannot attach to socket - cannot listen.")
TERMINATED = ("err", "wifi_host_terminated: hostapd terminated.")
RESTART = ("err", "wifi_host_terminated: We are supposed to be in host mode. Restart hostapd listener")
RESTARTING = ("info", "restart_wifi_host_listener_callback: Restarting...")
READING = ("info", "Read settings from Settings Daemon")


def threads(world: World) -> int:
    """How many threads the daemon has."""
    assert world.daemon is not None
    return len(os.listdir(f"/proc/{world.daemon.pid}/task"))


def test_access_point_without_a_socket_is_up_and_nobody_listens(world: World) -> None:
    world.follow_units = False
    world.radio.interface_type = "AP"
    before = time.monotonic()
    world.up()
    assert time.monotonic() - before >= 2  # three looks, a second apart
    world.journal.wait_for(log(*NOT_CONNECTED))
    world.journal.wait_for(log("info", "Starting UDHCP daemon service"))
    assert world.journal.count(hostapd_request()) == 0

    world.hostapd.start()
    world.set("WiFiFrequency", "5")  # the next restart of the listener tries again
    world.hostapd.wait_attached()
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)


def test_refused_attach_ends_the_listener_until_it_is_started_again(world: World) -> None:
    world.hostapd.refuse("ATTACH", times=1)
    world.up()
    world.journal.wait_for(log(*NOT_ATTACHED))
    assert world.hostapd.attached == 0
    world.follow_units = False
    world.set("WiFiFrequency", "5")
    world.hostapd.wait_attached()
    mark = receive(world, f"AP-STA-CONNECTED {ONE}")
    world.journal.wait_for(changed("WiFiConnectedClients"), mark)


def test_garbled_answer_to_attach_is_no_consent(world: World) -> None:
    world.hostapd.answer("ATTACH", b"OK", times=1)
    world.up()
    world.journal.wait_for(log(*NOT_ATTACHED))
    assert world.journal.count(log("info", lambda text: text.startswith("ListenTask: Recv"))) == 0


def test_farewell_in_host_mode_restarts_the_listener(world: World) -> None:
    attached_up(world)
    mark = receive(world, "CTRL-EVENT-TERMINATING ")
    world.journal.expect_logs_in_order(
        [("info", "ListenTask: Recv <3>CTRL-EVENT-TERMINATING "), TERMINATED, READING, RESTART, RESTARTING], mark
    )
    world.journal.wait_for(hostapd_request("ATTACH"), mark)
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)


def test_farewell_in_client_mode_is_logged_and_nothing_else(world: World) -> None:
    attached_up(world)
    world.settings.set("network", "mode", "Client")
    mark = receive(world, "CTRL-EVENT-TERMINATING ")
    world.journal.wait_for(log(*READING), mark)
    receive(world, "AP-ENABLED ")  # the thread has come back and listens
    world.settle()
    assert world.journal.logs(mark)[:3] == [("info", "ListenTask: Recv <3>CTRL-EVENT-TERMINATING "), TERMINATED, READING]
    assert [line for line in world.journal.logs(mark) if line in (RESTART, RESTARTING)] == []
    assert world.journal.count(hostapd_request("ATTACH"), mark) == 0


def test_hostapd_that_restarts_is_followed_again(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    world.hostapd.before_event = None
    world.hostapd.terminate()
    world.hostapd.start()
    world.journal.wait_for(log(*RESTARTING), mark)
    world.hostapd.wait_attached()
    mark = world.journal.mark()
    world.hostapd.enable()
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)


def test_hostapd_that_ends_for_good_leaves_the_listener_ended(world: World) -> None:
    attached_up(world)
    while_listening = threads(world)
    mark = world.journal.mark()
    world.hostapd.terminate()
    world.journal.expect_in_order([log(*RESTARTING), log(*NOT_CONNECTED)], mark)
    world.journal.wait_until(lambda: threads(world) == while_listening - 1, "the listener's thread to end")
    assert world.get("Mode") == "Host"

    mark = world.journal.mark()
    world.hostapd.start()  # not by the daemon: nobody has told it
    world.settle()
    assert world.journal.count(hostapd_request("ATTACH"), mark) == 0
    assert threads(world) == while_listening - 1


def test_farewell_forgets_the_stations_that_left_and_a_band_change_keeps_them(world: World) -> None:
    attached_up(world)
    world.follow_units = False
    world.hostapd.stations.append(ONE)
    receive(world, f"AP-STA-DISCONNECTED {ONE}")
    world.settle()
    assert world.get("WiFiConnectedClients") == 0

    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")  # restarts the listener
    world.journal.wait_for(hostapd_request("ATTACH"), mark)
    assert world.get("WiFiConnectedClients") == 0

    mark = receive(world, "CTRL-EVENT-TERMINATING ")  # resets it
    world.journal.wait_for(hostapd_request("ATTACH"), mark)
    assert world.get("WiFiConnectedClients") == 1


def test_killed_hostapd_is_followed_again_after_a_band_change(world: World) -> None:
    attached_up(world)
    mark = world.journal.mark()
    world.hostapd.kill()
    world.settle()
    assert world.journal.logs(mark) == []
    world.set("WiFiFrequency", "5")
    world.hostapd.wait_attached()
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)


def test_whether_the_access_point_is_ready_stays_known_after_a_stop(world: World) -> None:
    attached_up(world)
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)
    world.set("Mode", "Client")
    assert world.get("WiFiAccessPointInitialised") is True


def test_mode_change_ends_the_listener_without_waiting_for_its_time_out(world: World) -> None:
    """The listener looks at its socket every second, the first time a second after the last event."""
    attached_up(world)
    took = []
    for _ in range(3):
        mark = receive(world, "AP-ENABLED ")
        world.set("Mode", "Client")
        stopping = world.journal.wait_for(log("info", "Stopping Hostapd daemon service"), mark)
        stopped = world.journal.wait_for(call("LoadUnit", "hostapd.service"), stopping.index)
        took.append(stopped.when - stopping.when)
        world.set("Mode", "Host")
        world.hostapd.wait_attached()
    assert min(took) < 0.3


def test_band_changes_leave_one_connection(world: World) -> None:
    attached_up(world)
    for _ in range(5):
        mark = world.journal.mark()
        world.set("WiFiFrequency", "5")
        world.hostapd.wait_attached()
        world.set("WiFiFrequency", "2.4")
        world.hostapd.wait_attached()
        assert world.journal.count(hostapd_request("ATTACH"), mark) >= 2
    sockets = list((world.work / "tmp").glob("wpa_ctrl_*"))
    assert len(sockets) == 1  # every connection of before was closed


def test_start_while_the_listener_runs_attaches_anew_over_the_same_connection(world: World) -> None:
    attached_up(world)
    world.follow_units = False
    world.radio.interface_type = "monitor"
    mark = world.journal.mark()
    world.set("Mode", "Host")
    world.journal.wait_for(hostapd_request("ATTACH"), mark)
    assert len(list((world.work / "tmp").glob("wpa_ctrl_*"))) == 1
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)


def test_daemon_ends_at_once_while_it_waits_for_hostapds_socket(world: World) -> None:
    attached_up(world)
    world.hostapd.kill()
    shutil.rmtree(world.work / "run/hostapd")
    world.follow_units = False
    mark = world.journal.mark()
    answer = world.call_async(
        "Set",
        "ssv",
        ["com.vantora.Network1.WiFi", "WiFiFrequency", Variant("s", "5")],
        interface="org.freedesktop.DBus.Properties",
    )
    world.journal.wait_for(log("info", lambda text: text.startswith("[Utils] Restarted ")), mark)
    before = time.monotonic()
    assert world.stop_daemon() == 0
    assert time.monotonic() - before < 1.9
    answer.cancel()


def on_restart(world: World, *steps: tuple[float, Callable[[], None]]) -> None:
    """The next restart of hostapd's unit is answered at once and carried out later: each step so many seconds after."""

    async def carry_out(verb: str, unit: str) -> None:
        if (verb, unit) == ("Restart", units.HOSTAPD):
            for seconds, step in steps:
                world.loop.asyncio.call_later(seconds, step)

    world.follow_units = False
    world.systemd.on_job.append(carry_out)


def test_farewell_during_a_change_of_band_is_heard_also_where_no_successor_comes_up(world: World) -> None:
    attached_up(world)
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)
    world.hostapd.stations.append(ONE)
    on_restart(world, (0.3, world.hostapd.terminate))
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", False), mark)
    world.journal.wait_for(log("info", f"wifi_host_station_disconnected: {ONE}"), mark)
    world.journal.wait_for(log(*TERMINATED), mark)
    assert world.get("WiFiAccessPointInitialised") is False


def test_farewell_during_a_change_of_band_does_not_part_the_listener_from_the_successor(world: World) -> None:
    attached_up(world)
    on_restart(world, (0.2, world.hostapd.terminate), (0.3, world.hostapd.start))
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    world.journal.wait_for(log(*RESTARTING), mark)
    world.hostapd.wait_attached()
    world.settle()
    assert world.journal.count(hostapd_request("ATTACH"), mark) == 1
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)


def test_change_of_band_waits_no_longer_than_a_second_for_the_old_hostapd(world: World) -> None:
    attached_up(world)
    world.follow_units = False
    mark = world.journal.mark()
    before = time.monotonic()
    world.set("WiFiFrequency", "5")
    assert 1.0 <= time.monotonic() - before < 5.0
    world.journal.wait_for(hostapd_request("ATTACH"), mark)
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)


@pytest.mark.parametrize("gone", [0.0, 0.5], ids=["at once", "after a while"])
def test_hostapd_that_is_replaced_before_it_answers_is_followed_again(world: World, gone: float) -> None:
    attached_up(world)
    world.hostapd.hang("ATTACH", times=1)
    mark = world.journal.mark()
    before = time.monotonic()
    world.set("SSID", "Attic")
    world.journal.wait_for(hostapd_request("ATTACH"), mark)
    if gone:
        world.hostapd.kill()
        shutil.rmtree(world.work / "run/hostapd")
        time.sleep(gone)  # nobody is there meanwhile
    world.hostapd.start()
    world.hostapd.wait_attached()
    assert time.monotonic() - before < 9.0  # not only when its answer is overdue
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)
    assert world.journal.find(log("err", lambda text: text.endswith("cannot listen."))) == []


def test_events_that_come_before_the_answer_to_an_attachment_are_heard(world: World) -> None:
    attached_up(world)
    world.follow_units = False
    world.radio.interface_type = "monitor"
    world.hostapd.hang("ATTACH", times=1)
    world.hostapd.before_event = None  # the thread does not sleep in select
    mark = world.journal.mark()
    world.set("Mode", "Host")  # attaches anew over the connection that is attached
    world.journal.wait_for(hostapd_request("ATTACH"), mark)
    mark = receive(world, "AP-ENABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", True), mark)
    world.hostapd.release()
    mark = receive(world, "AP-DISABLED ")
    world.journal.wait_for(changed("WiFiAccessPointInitialised", False), mark)


def test_mode_change_does_not_wait_for_an_attachment_that_is_not_answered(world: World) -> None:
    attached_up(world)
    world.hostapd.hang("ATTACH")
    mark = world.journal.mark()
    world.set("WiFiFrequency", "5")
    world.journal.wait_for(hostapd_request("ATTACH"), mark)
    before = time.monotonic()
    world.set("Mode", "Client")
    assert time.monotonic() - before < 8.0  # the answer is waited for 10 s
    assert world.journal.count(log(*NOT_ATTACHED), mark) == 0
