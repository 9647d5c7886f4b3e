"""Whoever holds a binary or a unit in their hands can tell which version it is."""

import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[3]


def project_version() -> str:
    found = re.search(r"^  VERSION (\d+\.\d+\.\d+)$", (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
    assert found is not None
    return found[1]


def test_the_daemon_carries_the_projects_version(build_dir: Path) -> None:
    assert b"\0vantora-network %s\0" % project_version().encode() in (build_dir / "vantora-network").read_bytes()


@pytest.mark.parametrize("unit", ["vantora-network.service", "vantora-settingsd.service"])
def test_the_units_carry_the_projects_version(build_dir: Path, unit: str) -> None:
    (configured,) = build_dir.rglob(unit)
    assert f"X-Version={project_version()}" in configured.read_text().splitlines()
