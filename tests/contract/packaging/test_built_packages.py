"""Built packages are replaced by scripts/package while nobody reads them, and read by others while nobody replaces them."""

from __future__ import annotations

import fcntl
import os
import shutil
import subprocess
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from conftest import ROOT

DEADLINE = 60

# What scripts/package calls to make packages, each in a tree of its own.
MAKERS = {
    "dpkg": "echo amd64",
    "git": 'case "$1" in archive) tar -c -C "$TREE/committed" . ;; log) echo 0 ;; esac',
    "dpkg-buildpackage": """
mkdir -p debian/vantora-network/usr/sbin
: >debian/vantora-network/usr/sbin/vantora-network
echo new >../vantora-network_2_amd64.deb""",
    "lintian": ":",
}


def program(path: Path, text: str) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"#!/bin/sh\n{text}\n")
    path.chmod(0o755)


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    """A source tree with the scripts that read and replace packages, and packages of an older commit."""
    root = tmp_path / "tree"
    (root / "scripts").mkdir(parents=True)
    for name in ("package", "built-packages.sh", "test-device"):
        shutil.copy(ROOT / "scripts" / name, root / "scripts")
    common = (ROOT / "scripts/common.sh").read_text()
    (root / "scripts/common.sh").write_text(common.replace("export PATH=", f'export PATH="{root}/bin":'))
    (root / "scripts/debian-mirror.sh").write_text("debian_suite() { echo bookworm; }\n")
    (root / "scripts/package-sources.sh").write_text(
        "PACKAGE_SOURCES=(src)\npackage_commit() { echo 2222222222222222; }\npackage_version() { echo 1.0.0+2; }\n"
    )
    program(root / "scripts/install-packages", ":")
    for name, text in MAKERS.items():
        program(root / "bin" / name, text)
    (root / "committed/packaging/debian").mkdir(parents=True)
    (root / "committed/packaging/debian/control").write_text("Maintainer: Somebody <somebody@example.org>\n")
    for architecture in ("amd64", "armhf"):
        folder = root / "build/packages" / architecture
        folder.mkdir(parents=True)
        (folder / f"vantora-network_1_{architecture}.deb").write_text("old\n")
        (folder / "commit").write_text("1111111111111111\n")
    (root / "build/package-work").mkdir()
    return root


def built(tree: Path, architecture: str) -> dict[str, str]:
    """The files there, and what is in them."""
    return {path.name: path.read_text().strip() for path in (tree / "build/packages" / architecture).iterdir()}


OLD = {"vantora-network_1_amd64.deb": "old", "commit": "1111111111111111"}
NEW = {"vantora-network_2_amd64.deb": "new", "commit": "2222222222222222"}


@contextmanager
def held(tree: Path, architecture: str, how: int) -> Iterator[Path]:
    """As another reader (LOCK_SH) or as another one who builds (LOCK_EX)."""
    path = tree / "build/package-work" / f"{architecture}.lock"
    with path.open("ab") as lock:
        fcntl.flock(lock, how)
        yield path


def waits_for(lock: Path, process: subprocess.Popen[str]) -> bool:
    """Whether somebody waits for it before the process has ended."""
    inode = f":{lock.stat().st_ino} "
    deadline = time.monotonic() + DEADLINE
    while time.monotonic() < deadline:
        ended = process.poll() is not None
        if any(" -> FLOCK " in line and inode in line for line in Path("/proc/locks").read_text(encoding="ascii").splitlines()):
            return True
        if ended:
            return False
        time.sleep(0.01)
    raise TimeoutError("it neither waits nor ends")


def start(tree: Path, *command: str | Path) -> subprocess.Popen[str]:
    if os.geteuid() != 0:
        # Root of a world of his own, since an image is made as root.
        command = ("/usr/bin/unshare", "--user", "--map-root-user", *command)
    return subprocess.Popen(
        command,
        cwd=tree,
        env={"TREE": str(tree), "PATH": "/usr/bin:/bin", "HOME": str(tree)},
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )


def finished(process: subprocess.Popen[str]) -> str:
    """What it has said; it went well."""
    said, _ = process.communicate(timeout=DEADLINE)
    assert process.returncode == 0, said
    return said


@pytest.mark.parametrize(
    ("function", "other", "waits"),
    [
        ("with_packages", fcntl.LOCK_SH, False),
        ("with_packages", fcntl.LOCK_EX, True),
        ("alone_with_packages", fcntl.LOCK_SH, True),
        ("alone_with_packages", fcntl.LOCK_EX, True),
    ],
)
def test_readers_read_beside_each_other_and_whoever_replaces_is_alone(
    tree: Path, function: str, other: int, waits: bool
) -> None:
    script = (
        f"source scripts/common.sh; source scripts/built-packages.sh; {function} amd64 echo went; {function} armhf echo too"
    )
    with held(tree, "amd64", other) as lock:
        process = start(tree, "bash", "-c", script)
        assert waits_for(lock, process) == waits
    assert finished(process) == "went\ntoo\n"


def test_a_command_that_fails_among_packages_fails_the_script(tree: Path) -> None:
    script = "source scripts/common.sh; source scripts/built-packages.sh; with_packages amd64 false; echo went on"
    said, _ = (process := start(tree, "bash", "-c", script)).communicate(timeout=DEADLINE)
    assert (process.returncode, said) == (1, "")


def test_packages_are_replaced_when_their_readers_have_ended(tree: Path) -> None:
    with held(tree, "amd64", fcntl.LOCK_SH) as lock:
        process = start(tree, tree / "scripts/package", "amd64")
        assert waits_for(lock, process)
        assert built(tree, "amd64") == OLD
    finished(process)
    assert built(tree, "amd64") == NEW


@pytest.mark.parametrize("step", ["dpkg-buildpackage", "lintian", "stat"])
def test_packages_are_there_until_others_are_complete(tree: Path, step: str) -> None:
    program(tree / "bin" / step, "exit 1")
    process = start(tree, tree / "scripts/package", "amd64")
    process.communicate(timeout=DEADLINE)
    assert process.returncode == 1
    assert built(tree, "amd64") == OLD


def test_the_devices_image_is_made_of_packages_that_stay(tree: Path) -> None:
    image = tree / "tests/device/image"
    program(tree / "scripts/package", ":")
    program(image / "make-base", ":")
    program(image / "make-device", 'for name; do case "$name" in *.deb) basename "$name" ;; esac; done')
    with held(tree, "armhf", fcntl.LOCK_EX) as lock:
        process = start(tree, tree / "scripts/test-device", "--image")
        assert waits_for(lock, process)
        # Somebody else's build ends.
        folder = tree / "build/packages/armhf"
        shutil.rmtree(folder)
        folder.mkdir()
        names = [f"vantora-{name}_2_armhf.deb" for name in ("device", "doctor", "network", "network-tools")]
        names += [f"vantora-{name}_2_armhf.deb" for name in ("settingsd", "supplicant-names")]
        for name in names:
            (folder / name).touch()
    assert finished(process).splitlines() == names


def test_the_tests_of_packages_look_at_a_copy(tree: Path) -> None:
    folder = tree / "tests/packages"
    folder.mkdir(parents=True)
    shutil.copy(ROOT / "tests/packages/conftest.py", folder)
    (folder / "test_copy.py").write_text(
        "def test_copy(built):\n"
        "    assert [path.name for path in sorted(built.iterdir())] == ['commit', 'vantora-network_1_amd64.deb']\n"
        f"    assert not built.is_relative_to('{tree}/build')\n"
    )
    command = ["/usr/bin/python3", "-m", "pytest", "-q", "-p", "no:cacheprovider", folder, "--rootdir", folder]
    with held(tree, "amd64", fcntl.LOCK_EX) as lock:
        process = start(tree, *command, "--architecture=amd64")
        assert waits_for(lock, process)
    assert "1 passed" in finished(process)
    shutil.rmtree(tree / "build/packages/amd64")
    process = start(tree, *command, "--architecture=amd64")
    said, _ = process.communicate(timeout=DEADLINE)
    assert process.returncode == 2 and "no packages for amd64; scripts/package builds them" in said
