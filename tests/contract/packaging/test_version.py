"""Whoever holds a binary, a unit or a package in their hands can tell which version it is, and which of two is the newer."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[3]


def project_version() -> str:
    found = re.search(r"^  VERSION (\d+\.\d+\.\d+)$", (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
    assert found is not None
    return found[1]


def built_version(build_dir: Path) -> str:
    """What a program of the build says of itself."""
    said = subprocess.run(
        [build_dir / "vantora-settingsd", "--version"], check=True, capture_output=True, text=True, timeout=60
    ).stdout
    found = re.fullmatch(r"vantora-settingsd (\S+)\n", said)
    assert found is not None, said
    return found[1]


class Clone:
    """A clone with little in it but the scripts that tell a version."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        (folder / "src").mkdir(parents=True)
        (folder / "docs").mkdir()
        shutil.copytree(ROOT / "scripts", folder / "scripts")
        shutil.copytree(ROOT / "cmake", folder / "cmake")
        shutil.copy(ROOT / "CMakeLists.txt", folder)
        self.git("init", "-q", "-b", "main")
        self.commit("src/main.cpp")

    def git(self, *arguments: str) -> str:
        # Nothing of the caller's own settings, and of the repository that a hook of git runs these tests in.
        kept = {name: value for name, value in os.environ.items() if not name.startswith("GIT_")}
        environment = kept | {"GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_NOSYSTEM": "1"}
        who = ["-c", "user.name=somebody", "-c", "user.email=somebody@vantora.example", "-c", "safe.directory=*"]
        return subprocess.run(
            ["git", *who, "-C", self.folder, *arguments],
            env=environment,
            check=True,
            capture_output=True,
            text=True,
            timeout=60,
        ).stdout.strip()

    def commit(self, changed: str) -> None:
        with (self.folder / changed).open("a", encoding="utf-8") as file:
            file.write("// changed\n")
        self.git("add", ".")
        self.git("commit", "-q", "-m", "change")

    def version(self) -> str:
        kept = {name: value for name, value in os.environ.items() if not name.startswith("GIT_")}
        return subprocess.run(
            [self.folder / "scripts/version"], env=kept, check=True, capture_output=True, text=True, timeout=60
        ).stdout.strip()

    def configured_version(self) -> str:
        """What CMake takes for the version: the same module, in a project without anything to compile."""
        project = self.folder / "CMakeLists.txt"
        whole = project.read_text()
        project.write_text(
            "cmake_minimum_required(VERSION 3.25)\n"
            f"project(vantora-network VERSION {project_version()} LANGUAGES NONE)\n"
            "include(cmake/VantoraVersion.cmake)\n"
            'file(WRITE "${CMAKE_BINARY_DIR}/version" "${vantora_version}")\n'
        )
        build = self.folder / "build"
        try:
            subprocess.run(
                ["cmake", "-G", "Ninja", "-S", self.folder, "-B", build], check=True, capture_output=True, timeout=120
            )
        finally:
            project.write_text(whole)
        return (build / "version").read_text()


@pytest.fixture(name="clone")
def _clone(tmp_path: Path) -> Clone:
    return Clone(tmp_path / "clone")


def is_newer(version: str, than: str) -> bool:
    """Whether apt would install one over the other."""
    return subprocess.run(["dpkg", "--compare-versions", version, "gt", than], timeout=60, check=False).returncode == 0


def test_the_programs_tell_the_projects_version_and_their_commits(build_dir: Path) -> None:
    assert re.fullmatch(re.escape(project_version()) + r"(\+\d+\.g[0-9a-f]{10})?", built_version(build_dir))


@pytest.mark.parametrize("daemon", ["vantora-network", "vantora-supplicant-names"])
def test_the_daemons_carry_the_same_version(build_dir: Path, daemon: str) -> None:
    assert b"\0%s %s\0" % (daemon.encode(), built_version(build_dir).encode()) in (build_dir / daemon).read_bytes()


def test_the_client_tells_the_same_version(build_dir: Path) -> None:
    said = subprocess.run([build_dir / "vantora-wifi", "--version"], check=True, capture_output=True, text=True, timeout=60)
    assert said.stdout == f"vantora-wifi {built_version(build_dir)}\n"


@pytest.mark.parametrize("unit", ["vantora-network.service", "vantora-settingsd.service", "vantora-supplicant-names.service"])
def test_the_units_carry_the_same_version(build_dir: Path, unit: str) -> None:
    (configured,) = build_dir.rglob(unit)
    assert f"X-Version={built_version(build_dir)}" in configured.read_text().splitlines()


def test_each_change_of_what_is_packaged_gives_a_newer_version(clone: Clone) -> None:
    versions = [project_version(), clone.version()]
    # Past the number of digits, where a comparison of texts would go wrong.
    for _ in range(10):
        clone.commit("src/main.cpp")
        versions.append(clone.version())
    assert all(is_newer(later, earlier) for earlier, later in zip(versions, versions[1:])), versions
    assert versions[-1] == f"{project_version()}+11.g{clone.git('rev-parse', 'HEAD')[:10]}"


def test_the_projects_next_version_is_newer_than_any_commit_before_it(clone: Clone) -> None:
    major, minor, patch = project_version().split(".")
    assert is_newer(f"{major}.{minor}.{int(patch) + 1}", clone.version())


def test_a_change_of_something_else_is_no_other_version(clone: Clone) -> None:
    before = clone.version()
    clone.commit("docs/page.md")
    assert clone.version() == before


def test_a_build_has_the_version_of_its_clone(clone: Clone) -> None:
    assert clone.configured_version() == clone.version()


def test_sources_without_a_history_have_the_projects_version(clone: Clone) -> None:
    clone.commit("docs/page.md")
    shallow = clone.folder.parent / "shallow"
    clone.git("clone", "-q", "--depth=1", f"file://{clone.folder}", str(shallow))
    shutil.rmtree(clone.folder / ".git")
    assert clone.configured_version() == project_version()
    clone.folder = shallow
    assert clone.version() == project_version()


def test_sources_within_another_repository_do_not_have_that_ones_version(clone: Clone) -> None:
    copy = clone.folder / "docs/copy"
    shutil.copytree(clone.folder, copy, ignore=shutil.ignore_patterns(".git", "docs"))
    clone.folder = copy
    assert clone.configured_version() == project_version()
