"""Each rule of the model catches a device that breaks it: something changes behind the daemon's back, and nothing else."""

from __future__ import annotations

import os
import time
from collections.abc import Callable

import pytest
from model.acts import Act, Run
from model.finding import Finding
from model.search import Search
from model.shorten import shorten
from model.stage import Stage
from vantora_sim import Variant
from vantora_sim.tools import Output


def _switch_reads_as_off(stage: Stage) -> None:
    stage.world.tools.rfkill._truth = lambda arguments: Output(b"0: phy0: Wireless LAN\n\tSoft blocked: yes\n")


def _start_on_half_a_file(stage: Stage) -> None:
    whole = stage.world.hostapd_conf.read_text()
    stage.world.hostapd_conf.write_text(whole[: whole.index("wpa")])
    stage.open_access_point()
    stage.world.hostapd_conf.write_text(whole)


def _lose_a_descriptor(stage: Stage) -> None:
    """The daemon is taken to have had one less at first."""
    assert stage._at_rest is not None
    stage._at_rest = type(stage._at_rest)(**{**vars(stage._at_rest), "descriptors": stage._at_rest.descriptors - 1})


def _quiet_and_hasty(stage: Stage) -> None:
    """At rest; what is wrong from now on is broken on purpose, and does not get better by waiting for it."""
    stage.quiet()
    stage.rest = 1.0


BREAKS: dict[str, Callable[[Stage], object]] = {
    "power": _switch_reads_as_off,
    "mode": lambda stage: stage.world.settings.set("network", "mode", "Client"),
    "access_point": lambda stage: stage.world.settings.set("device", "deviceName", "another"),
    "protection": lambda stage: stage.world.loop.call(_start_on_half_a_file, stage),
    "listener": lambda stage: stage.world.loop.call(stage.world.hostapd._attached.clear),
    "announcements": lambda stage: stage.world.journal.add("changed", name="SSID", value="another"),
    "storage": lambda stage: stage.history.stored.update(WiFiFrequency="5"),
    "log": lambda stage: stage.world.journal.add("log", priority="err", text="[Utils] no", ident="vantora-network", pid=1),
    "flat": _lose_a_descriptor,
    "alive": lambda stage: stage.kill_daemon(),
}


@pytest.mark.parametrize("rule", BREAKS)
def test_a_device_that_breaks_a_rule_is_found(stage: Stage, rule: str) -> None:
    stage.begin()
    _quiet_and_hasty(stage)
    BREAKS[rule](stage)
    with pytest.raises(Finding) as raised:
        stage.finish()
    assert raised.value.rule == rule


def test_stations_that_the_daemon_does_not_count_are_found(stage: Stage) -> None:
    stage.begin()
    _quiet_and_hasty(stage)
    stage.world.hostapd.answer("STA-FIRST", b"")
    stage.world.loop.call(stage.world.hostapd.stations.append, "02:00:00:00:50:00")
    stage.release_everything = lambda: None  # type: ignore[method-assign]
    with pytest.raises(Finding, match="1 stations are there, WiFiConnectedClients is 0"):
        stage.quiet()


def test_a_state_that_the_daemon_did_not_hear_is_found(stage: Stage) -> None:
    stage.begin(mode="Client")
    _quiet_and_hasty(stage)
    stage.history.station_said("completed")
    with pytest.raises(Finding, match="the last word of wpa_supplicant is 'completed'"):
        stage.quiet()


def test_a_request_that_is_answered_too_late_is_found(stage: Stage) -> None:
    stage.begin()
    stage.world.tools.rfkill.slow(13.0, times=1)
    with pytest.raises(Finding, match="read WiFiState is not answered within 10.0 s"):
        stage.read("WiFiState")


def test_an_answer_that_is_not_the_documented_one_is_found(stage: Stage) -> None:
    stage.begin()
    stage._expected = lambda request: ("org.freedesktop.DBus.Error.AccessDenied",)  # type: ignore[method-assign]
    with pytest.raises(Finding, match="read Mode is answered with 'success'"):
        stage.read("Mode")


def test_settings_that_are_others_after_a_kill_are_found(stage: Stage) -> None:
    stage.begin(real_settings=True)
    stage.setting_changes("network", "frequency", "5")
    stage.stored = lambda section, key: time.monotonic()  # type: ignore[method-assign]
    with pytest.raises(Finding, match="after a kill they are"):
        stage.settings_daemon_restarts()


def test_a_call_on_the_settings_file_fails_when_it_is_told_to(stage: Stage) -> None:
    stage.begin(real_settings=True)
    stage.settings_cannot_be_written("fsync", 0, os.EX_IOERR)
    stage.setting_changes("network", "frequency", "5")
    assert (stage.settings_files.failed, stage.stored("network", "frequency")) == (1, "2.4")
    stage.finish()


def test_a_call_on_hostapds_file_fails_when_it_is_told_to(stage: Stage) -> None:
    stage.begin()
    stage.configuration_cannot_be_written("open", 0, os.EX_IOERR)
    stage.write("SSID", "another")
    assert stage.daemon_files.failed == 1
    stage.finish()


# Runs

ALL_WELL = Run("Client", True, False, True, (Act("write", ("SSID", "one")), Act("together", ((("read", "Mode", None),),))))


def test_a_run_is_written_down_as_a_test_that_does_the_same(stage: Stage) -> None:
    text = ALL_WELL.as_test("of_two_acts")
    assert text == (
        "def test_of_two_acts(stage: Stage) -> None:\n"
        "    stage.begin(mode='Client', echo=True)\n"
        "    stage.write('SSID', 'one')\n"
        "    stage.together((('read', 'Mode', None),))\n"
        "    stage.finish(addresses=True)"
    )
    names: dict[str, object] = {"Stage": Stage, "Variant": Variant}
    exec(text, names)
    test = names["test_of_two_acts"]
    assert callable(test)
    test(stage)


def test_a_run_is_shortened_to_the_acts_that_matter_though_it_shows_something_only_every_third_time() -> None:
    needed = {Act("read", ("Mode",)), Act("scan")}
    acts = [Act("write", ("SSID", str(number))) for number in range(20)]
    acts[5:5], acts[17:17] = [Act("read", ("Mode",))], [Act("scan")]
    tries = 0

    def shows(run: Run) -> bool:
        nonlocal tries
        tries += 1
        return needed <= set(run.acts) and tries % 3 == 0

    assert set(shorten(Run("Host", False, False, False, tuple(acts)), shows, 30).acts) == needed


def test_the_same_seed_makes_the_same_runs(stage: Stage, monkeypatch: pytest.MonkeyPatch) -> None:
    done: list[list[Run]] = [[], []]
    for runs in done:
        search = Search(stage.build, seed=7)
        monkeypatch.setattr(
            search,
            "_try",
            lambda stage, run, counts, runs=runs, search=search: (
                runs.append(run),
                setattr(search, "steps", search.steps + len(run)),
            )[2:]
            or None,
        )
        search.search(steps=300)
    assert done[0] == done[1]
    assert len(done[0]) > 3


@pytest.mark.parametrize("real_settings", [False, True])
def test_a_name_that_the_settings_daemon_refuses_is_in_use_until_the_next_start(real_settings: bool, stage: Stage) -> None:
    stage.begin(real_settings=real_settings)
    stage.write("SSID", "")
    stage.finish()
