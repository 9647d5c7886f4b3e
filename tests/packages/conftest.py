"""Fixtures of the package tests: the packages that scripts/package has built for one architecture."""

from __future__ import annotations

import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/support"))

LONGEST_BUILD = 3600
"""Seconds that packages may be in the making when they are asked for."""


def printed(*command: str | Path) -> str:
    """What a command prints, in no language but its own; it succeeds."""
    return subprocess.run(
        command, check=True, capture_output=True, text=True, timeout=60, env={"PATH": "/usr/bin:/bin", "LC_ALL": "C"}
    ).stdout


@dataclass(frozen=True)
class Member:
    """One entry of a package: what `ls -l` would show of it."""

    mode: str
    owner: str
    link: str


@dataclass(frozen=True)
class Package:
    """One package file."""

    path: Path

    def field(self, name: str) -> str:
        """A field of its control file; empty without one."""
        return self._dpkg_deb("--field", name).strip()

    def members(self) -> dict[str, Member]:
        """What it installs, by absolute path."""
        found: dict[str, Member] = {}
        for line in self._dpkg_deb("--contents").splitlines():
            mode, owner, _size, _date, _time, name = line.split(None, 5)
            path, _, link = name.partition(" -> ")
            found["/" + path.removeprefix("./").rstrip("/")] = Member(mode, owner, link)
        return found

    def unpack(self, folder: Path) -> Path:
        """Unpack it, with its control files in DEBIAN, and return the folder."""
        subprocess.run(["dpkg-deb", "--raw-extract", self.path, folder], check=True, timeout=60)
        return folder

    def _dpkg_deb(self, action: str, *arguments: str) -> str:
        return printed("dpkg-deb", action, self.path, *arguments)


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption(
        "--architecture",
        default="amd64",
        choices=["amd64", "arm64", "armhf"],
        help="whose packages to test: those in build/packages/ARCHITECTURE",
    )


@pytest.fixture(scope="session")
def architecture(request: pytest.FixtureRequest) -> str:
    """The architecture under test."""
    return str(request.config.getoption("--architecture"))


@pytest.fixture(scope="session")
def built(architecture: str, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A copy of what scripts/package has built, since it may build anew while these tests run."""
    folder = tmp_path_factory.mktemp("built") / architecture
    copied = subprocess.run(
        [
            "bash",
            "-c",
            "source scripts/common.sh; source scripts/built-packages.sh;"
            'with_packages "$0" cp -r -- "build/packages/$0" "$1"',
            architecture,
            folder,
        ],
        cwd=ROOT,
        capture_output=True,
        text=True,
        timeout=LONGEST_BUILD,
        check=False,
    )
    if copied.returncode != 0:
        pytest.exit(f"no packages for {architecture}; scripts/package builds them: {copied.stderr}", 2)
    return folder


@pytest.fixture(scope="session")
def packages(built: Path) -> dict[str, Package]:
    """The packages by name."""
    return {package.field("Package"): package for package in map(Package, sorted(built.glob("*.deb")))}


@pytest.fixture(scope="session")
def unpacked(packages: dict[str, Package], tmp_path_factory: pytest.TempPathFactory) -> dict[str, Path]:
    """The folders with what the packages hold, by name."""
    return {name: package.unpack(tmp_path_factory.mktemp(name) / "root") for name, package in packages.items()}
