"""Files and sockets are created with the mode they should have, whatever the umask, and traps laid in /tmp catch nothing."""

from __future__ import annotations

import os
import re
import stat
from collections.abc import Iterator
from pathlib import Path

import pytest
from vantora_sim import World, call

STATE = "/run/state/vantora-settingsd/settings.json"


def mode_of(path: Path) -> int:
    return stat.S_IMODE(path.lstat().st_mode)


def with_umask(world: World, umask: str, program: Path) -> Path:
    """A program in the sandbox that sets the umask and becomes the given one."""
    script = world.work / f"run/sim/umask-{umask}"
    script.write_text(f'#!/bin/sh\numask {umask}\nexec {program} "$@"\n')
    script.chmod(0o755)
    return Path("/run/sim") / script.name


def control_sockets(world: World) -> list[Path]:
    """The reply sockets of the daemon's connections to hostapd that are open now."""
    return sorted((world.work / "tmp").glob("wpa_ctrl_*"))


def files_of(world: World) -> Iterator[Path]:
    """Everything that can be written in the sandbox, /etc among it, but for what the world itself keeps there."""
    run = world.work / "run"
    for folder in (*(path for path in run.iterdir() if path.name != "sim"), run / "sim/etc/upper", world.work / "tmp"):
        yield folder
        yield from folder.rglob("*")


@pytest.mark.parametrize("umask", ["0", "022", "077"])
def test_what_the_daemon_creates_is_its_own_alone_whatever_the_umask(world: World, umask: str) -> None:
    before = set(files_of(world))
    world.start_daemon(with_umask(world, umask, world.build / "vantora-network"))
    world.wait_up()
    world.hostapd.wait_attached()
    new = {path for path in files_of(world) if not path.is_relative_to(world.work / "run/hostapd")} - before
    sockets = control_sockets(world)
    assert len(sockets) == 1
    assert new == {world.hostapd_conf, *sockets}
    assert (mode_of(world.hostapd_conf), mode_of(sockets[0])) == (0o600, 0o700)


def test_a_configuration_that_others_could_read_is_closed_before_anything_is_written(world: World) -> None:
    world.hostapd_conf.write_text("of an earlier version")
    world.hostapd_conf.chmod(0o666)
    world.up()
    assert mode_of(world.hostapd_conf) == 0o600
    assert "wpa_passphrase=korrin-secret" in world.hostapd_conf.read_text()


@pytest.mark.parametrize(("umask", "file_mode"), [("0", 0o640), ("077", 0o600)])
def test_the_settings_file_is_not_for_everybody(world: World, build_dir: Path, umask: str, file_mode: int) -> None:
    world.settings.go()
    settingsd = world.sandbox.start([with_umask(world, umask, build_dir / "vantora-settingsd"), "--state", STATE])
    mark = world.journal.mark()
    world.up()
    world.set("SSID", "Kitchen")
    world.journal.wait_for(call("Restart"), mark)
    folder = world.sandbox.path(STATE).parent
    # No temporary file is left behind; who has the file holds a lock beside it.
    assert sorted(path.name for path in folder.iterdir()) == ["settings.json", "settings.json.lock"]
    assert "Kitchen" in (folder / "settings.json").read_text()
    assert mode_of(folder / "settings.json") == file_mode
    assert mode_of(folder / "settings.json.lock") & 0o077 == 0
    assert settingsd.running


def lay_traps(world: World, kind: str, victim: Path) -> list[Path]:
    """Put something under the names that the control-socket library will take next; the last number in use is known."""
    match = re.fullmatch(r"wpa_ctrl_(\d+)-(\d+)", control_sockets(world)[-1].name)
    assert match
    traps = [world.work / f"tmp/wpa_ctrl_{match[1]}-{number}" for number in range(int(match[2]) + 1, int(match[2]) + 21)]
    for trap in traps:
        if kind == "symlink":
            trap.symlink_to("/run/victim")
        elif kind == "dangling symlink":
            trap.symlink_to("/run/nobody")
        elif kind == "hard link":
            trap.hardlink_to(victim)
        elif kind == "file":
            trap.write_text("trap")
        else:
            trap.mkdir()
        if os.geteuid() == 0 and kind != "hard link":
            os.chown(trap, 65534, 65534, follow_symlinks=False)
    return traps


@pytest.mark.parametrize("kind", ["symlink", "dangling symlink", "hard link", "file"])
def test_links_and_files_under_the_reply_sockets_names_are_removed_and_not_followed(world: World, kind: str) -> None:
    world.up()
    world.hostapd.wait_attached()
    world.hostapd.stations.append("02:00:00:00:00:01")
    victim = world.work / "run/victim"
    victim.write_text("untouched")
    victim.chmod(0o640)
    lay_traps(world, kind, victim)
    for _ in range(3):
        assert world.get("WiFiConnectedClients") == 1
    assert (victim.read_text(), mode_of(victim)) == ("untouched", 0o640)
    assert not (world.work / "run/nobody").exists()


def test_folders_under_those_names_cost_the_number_of_stations_and_nothing_else(world: World) -> None:
    world.up()
    world.hostapd.wait_attached()
    world.hostapd.stations.append("02:00:00:00:00:01")
    traps = lay_traps(world, "folder", world.work)
    assert world.get("WiFiConnectedClients") == 0
    assert world.get("Mode") == "Host"
    for trap in traps:
        trap.rmdir()
    assert world.get("WiFiConnectedClients") == 1
