"""What `scripts/check-layers` finds: an include or an import that goes up is a finding, wherever it hides."""

from __future__ import annotations

import shutil
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT

SIMULATOR = "simulator/vantora_sim"


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    """The sources as they are, to plant something in."""
    for folder in ("src", "platform", "client", "support", SIMULATOR):
        if (ROOT / folder).exists():
            shutil.copytree(ROOT / folder, tmp_path / folder, ignore=shutil.ignore_patterns("__pycache__"))
    (tmp_path / "scripts").mkdir()
    shutil.copy(ROOT / "scripts/layers.toml", tmp_path / "scripts")
    return tmp_path


def check(tree: Path) -> tuple[int, list[str]]:
    """Exit status and findings."""
    ran = subprocess.run(
        [ROOT / "scripts/check-layers", "--root", tree], capture_output=True, text=True, timeout=60, check=False
    )
    assert ran.stdout == ""
    return ran.returncode, ran.stderr.splitlines()


def plant(tree: Path, file: str, line: str) -> str:
    """Add a line at the end of a file; returns where it stands."""
    path = tree / file
    text = path.read_text() if path.exists() else ""
    path.write_text(f"{text}{line}\n")
    return f"{file}:{len((text + line).splitlines())}"


def test_the_tree_as_it_is_has_no_finding(tree: Path) -> None:
    assert check(tree) == (0, [])


@pytest.mark.parametrize(
    "file, line, finding",
    [
        ("src/utils/pause.hpp", '#include "core/service.hpp"', "src/utils must not know of core"),
        ("src/listeners/hostapd_socket_listener.cpp", '#  include "radio/hostapd.hpp"', "src/listeners must not know of radio"),
        ("src/radio/hostapd.cpp", "#include <core/service.hpp>", "src/radio must not know of core"),
        ("client/main.cpp", '#include "utils/pause.hpp"', "client must not know of utils"),
        (
            "platform/settingsd/src/main.cpp",
            '#include "dbus-helper/DBusHelper.hpp"',
            "platform/settingsd must not know of dbus-helper",
        ),
        (
            "src/config/wifi_config.cpp",
            '#include "../core/service.hpp"',
            '"../core/service.hpp" leaves its folder: name it by its room',
        ),
    ],
)
def test_an_include_that_goes_up_is_named_with_its_line(tree: Path, file: str, line: str, finding: str) -> None:
    where = plant(tree, file, line)
    assert check(tree) == (1, [f"{where}: {finding}"])


@pytest.mark.parametrize(
    "line",
    [
        "from .device import SimulatedDevice",
        "from . import device",
        "import vantora_sim.device",
        "from vantora_sim.device import SimulatedDevice",
        "if False:\n    from .device import SimulatedDevice",
        "def later() -> None:\n    from .device import SimulatedDevice",
    ],
)
def test_an_import_that_goes_up_is_named_however_it_is_written(tree: Path, line: str) -> None:
    where = plant(tree, f"{SIMULATOR}/air.py", line)
    status, findings = check(tree)
    assert status == 1
    assert findings[0] == f'{where}: air (layer "parts") must not know of device (layer "device")'


def test_two_modules_of_one_layer_may_not_import_each_other(tree: Path) -> None:
    plant(tree, f"{SIMULATOR}/state.py", "from typing import TYPE_CHECKING\nif TYPE_CHECKING:\n    from .commands import run")
    status, findings = check(tree)
    assert status == 1 and len(findings) == 1
    assert findings[0].startswith(f"{SIMULATOR}: a circle: ")
    assert "commands imports state" in findings[0] and "state imports commands" in findings[0]


def test_a_new_module_or_room_must_be_given_its_place(tree: Path) -> None:
    plant(tree, f"{SIMULATOR}/novel.py", "")
    (tree / "src/novel").mkdir()
    plant(tree, "src/novel/thing.hpp", "")
    assert check(tree) == (
        1,
        [
            "src/novel/thing.hpp: is in no room of scripts/layers.toml",
            f"{SIMULATOR}/novel.py: is in no layer of scripts/layers.toml",
        ],
    )


def test_lint_runs_it(tree: Path) -> None:
    """The script's own text, with nothing else to do: the other tools are not what this is about."""
    for name in ("lint", "common.sh", "check-layers"):
        shutil.copy(ROOT / "scripts" / name, tree / "scripts")
    for name in ("install-packages", "build"):
        (tree / "scripts" / name).write_text("#!/bin/sh\n")
        (tree / "scripts" / name).chmod(0o755)
    where = plant(tree, "client/main.cpp", '#include "utils/pause.hpp"')
    ran = subprocess.run([tree / "scripts/lint", "client/main.cpp"], capture_output=True, text=True, timeout=60, check=False)
    assert ran.returncode != 0
    assert f"{where}: client must not know of utils" in ran.stderr
