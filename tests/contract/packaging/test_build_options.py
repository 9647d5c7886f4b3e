"""What the build can be told: a platform that the device brings along, and a settings daemon of the device's own."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT

HEADERS = {"libKorrinInfo": "korrin-info/korrin_info.hpp", "libdbus-helper": "dbus-helper/dbus_listener.hpp"}


def configure(folder: Path, *options: str) -> subprocess.CompletedProcess[str]:
    """Configure a build of this tree in a folder."""
    return subprocess.run(
        ["/usr/bin/cmake", "-G", "Ninja", "-S", ROOT, "-B", folder, "-DCMAKE_BUILD_TYPE=Release", *options],
        env={"PATH": "/usr/bin:/bin"},
        capture_output=True,
        text=True,
        timeout=110,
        check=False,
    )


def installed_by(folder: Path) -> str:
    """Everything that installing this build would do."""
    return "".join(path.read_text() for path in folder.rglob("cmake_install.cmake"))


@pytest.fixture
def platform(tmp_path: Path) -> Path:
    """A prefix with the device's own libraries, as far as configuring looks at them."""
    prefix = tmp_path / "platform"
    (prefix / "lib").mkdir(parents=True)
    for library, header in HEADERS.items():
        (prefix / "lib" / f"{library}.so").touch()
        (prefix / "include" / header).parent.mkdir(parents=True)
        (prefix / "include" / header).touch()
    return prefix


def test_an_installed_platform_takes_the_place_of_the_bundled_one(tmp_path: Path, platform: Path) -> None:
    build = tmp_path / "build"
    done = configure(build, "-DVANTORA_PLATFORM=installed", f"-DCMAKE_PREFIX_PATH={platform}", "-DVANTORA_BUILD_TESTS=OFF")
    assert done.returncode == 0, done.stderr
    plan = (build / "build.ninja").read_text()
    (link,) = re.findall(r"(?m)^build vantora-network: .*(?:\n  .*)*", plan)
    for library in HEADERS:
        assert f"{platform}/lib/{library}.so" in link
    assert f"-isystem {platform}/include" in plan
    assert "platform/korrin-info/src" not in plan and "platform/dbus-helper/src" not in plan


@pytest.mark.parametrize("library", HEADERS)
@pytest.mark.parametrize("lost", ["library", "header"])
def test_a_platform_that_is_not_there_is_said_with_what_to_do(tmp_path: Path, platform: Path, library: str, lost: str) -> None:
    (platform / "lib" / f"{library}.so" if lost == "library" else platform / "include" / HEADERS[library]).unlink()
    done = configure(tmp_path / "build", "-DVANTORA_PLATFORM=installed", f"-DCMAKE_PREFIX_PATH={platform}")
    variable = {"libKorrinInfo": "VANTORA_KORRIN_INFO", "libdbus-helper": "VANTORA_DBUS_HELPER"}[library]
    variable += "_LIBRARY" if lost == "library" else "_INCLUDE_DIR"
    assert done.returncode == 1
    assert (
        f"VANTORA_PLATFORM=installed, but {library} (header <{HEADERS[library]}>) was not found: {variable} is empty. Set it, "
        "or CMAKE_PREFIX_PATH, to where the device's libraries are, or build with VANTORA_PLATFORM=bundled."
    ) in " ".join(done.stderr.split())


def test_a_platform_of_another_kind_is_refused(tmp_path: Path) -> None:
    done = configure(tmp_path / "build", "-DVANTORA_PLATFORM=borrowed")
    assert done.returncode == 1
    assert "VANTORA_PLATFORM must be 'bundled' or 'installed', not 'borrowed'" in " ".join(done.stderr.split())


@pytest.mark.parametrize("wanted", [True, False], ids=["with", "without"])
def test_the_settings_daemon_can_be_left_out(tmp_path: Path, wanted: bool) -> None:
    build = tmp_path / "build"
    done = configure(build, *([] if wanted else ["-DVANTORA_SETTINGSD=OFF"]))
    assert done.returncode == 0, done.stderr
    plan = (build / "build.ninja").read_text()
    found = (
        "build vantora-settingsd: " in plan,
        "settingsd_test" in plan,
        "vantora-settingsd" in installed_by(build),
        "com.vantora.common.Settings1.service" in installed_by(build),
    )
    assert found == (wanted,) * 4
    assert "build vantora-network: " in plan and "settings_store_test" in plan
