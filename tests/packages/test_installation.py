"""The packages in a fresh Debian: installed as version 1.0.0, upgraded by apt, installed by dpkg, used, removed, purged.

One system is made for all of this, of the release that the packages are built on and of the next, and everything is done in it
that the tests then look at. It has no systemd running, as when a device's image is built. Programs of another processor than
this machine's run in an emulator, which takes ten times as long.
"""

from __future__ import annotations

import os
import platform
import re
import shutil
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT, Package

STEPS = Path(__file__).with_name("in-a-fresh-system")

# Its own processes, too: the installation asks whether a network manager runs, and this machine may run one.
IN_A_SYSTEM_OF_ITS_OWN = (
    'unshare --mount --pid --fork --kill-child chroot "$1" sh -c "mount -t proc proc /proc && exec sh /packages/steps"'
)

LONGEST = 3000
"""Seconds for all of it; only a fault, or a busy machine's emulator, gets near."""

RELEASES = ["bookworm", "trixie"]


def this_release() -> str:
    """The release that this machine runs, and that the packages are built on."""
    release = platform.freedesktop_os_release()["VERSION_CODENAME"]
    assert release in RELEASES, release
    return release


def outside_packages(packages: dict[str, Package]) -> str:
    """What apt would install along: the dependencies that are not ours, the first of each choice."""
    wanted = set()
    for package in packages.values():
        for dependency in package.field("Depends").split(","):
            wanted.add(dependency.split("|")[0].split("(")[0].split(":")[0].strip())
    return ",".join(sorted(name for name in wanted if name not in packages))


def as_version_1(package: Package, folder: Path) -> None:
    """Make the same package with the version that all had before they grew with the commits."""
    (folder / "unpacked").mkdir(parents=True)
    root = package.unpack(folder / "unpacked" / package.path.stem)
    control = root / "DEBIAN/control"
    control.write_text(re.sub(r"^Version: .*$", "Version: 1.0.0", control.read_text(), flags=re.MULTILINE))
    name = package.field("Package")
    subprocess.run(
        ["dpkg-deb", "--root-owner-group", "--build", root, folder / f"{name}.deb"], check=True, capture_output=True, timeout=60
    )
    shutil.rmtree(folder / "unpacked")


def make_source(folder: Path) -> None:
    """Make a source for apt of all packages in the folder; it takes the newest."""
    index = subprocess.run(
        ["dpkg-scanpackages", "--multiversion", "."], cwd=folder, check=True, capture_output=True, text=True, timeout=60
    ).stdout
    (folder / "Packages").write_text(index)
    (folder / "sources.list").write_text("deb [trusted=yes] file:/packages ./\n")


@pytest.fixture(scope="module", params=RELEASES[RELEASES.index(this_release()) :])
def results(
    packages: dict[str, Package], architecture: str, tmp_path_factory: pytest.TempPathFactory, request: pytest.FixtureRequest
) -> Path:
    """The folder with what each step has left: NAME.status, NAME.out, and lists of files."""
    work = tmp_path_factory.mktemp("fresh")
    (work / "packages").mkdir()
    for package in packages.values():
        shutil.copy(package.path, work / "packages")
    shutil.copy(STEPS, work / "packages/steps")
    for package in packages.values():
        as_version_1(package, work / "packages/before")
    make_source(work / "packages")
    mirror = subprocess.run(
        [
            "bash",
            "-c",
            "source scripts/common.sh; source scripts/debian-mirror.sh; source scripts/debian-root.sh;"
            "foreign_programs_run $2; debian_sources $1 $2; debian_apt_options >$0",
            str(work / "apt.conf"),
            request.param,
            architecture,
        ],
        cwd=ROOT,
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
    ).stdout
    (work / "sources.list").write_text(mirror)
    made = subprocess.run(
        [
            "mmdebstrap",
            "--variant=minbase",
            "--format=null",
            f"--architectures={architecture}",
            f"--include={outside_packages(packages)}",
            f"--aptopt={work}/apt.conf",
            "--dpkgopt=force-unsafe-io",
            f"--customize-hook=copy-in {work}/packages /",
            f"--customize-hook={IN_A_SYSTEM_OF_ITS_OWN}",
            f"--customize-hook=sync-out /results {work}",
            request.param,
            "-",
            work / "sources.list",
        ],
        capture_output=True,
        text=True,
        timeout=LONGEST,
        check=False,
        # What packages compile of their Python is to be where they look for it when they go.
        env={name: value for name, value in os.environ.items() if name != "PYTHONPYCACHEPREFIX"},
    )
    assert made.returncode == 0, made.stderr
    return work


def output(results: Path, step: str) -> str:
    """What a step printed; it must have gone well."""
    text = (results / f"{step}.out").read_text()
    assert (results / f"{step}.status").read_text() == "0\n", text
    return text


def files(results: Path, when: str) -> set[str]:
    return set((results / f"{when}.files").read_text().splitlines())


def versions(results: Path, when: str) -> dict[str, str]:
    """The installed versions by package."""
    return dict(line.split() for line in output(results, f"installed-{when}").splitlines())


def asked_of_the_service_manager(results: Path, step: str) -> list[str]:
    """What a step had systemctl do, in this order, without the questions and what concerns files only."""
    lines = (results / f"{step}.asked").read_text().splitlines()
    return [line for line in lines if not re.search("is-enabled|is-active|--root=", line)]


def test_dpkg_installs_them_where_no_systemd_runs(results: Path) -> None:
    output(results, "install-before")


def test_apt_upgrades_what_was_installed_before(results: Path, packages: dict[str, Package]) -> None:
    assert set(versions(results, "before").values()) == {"1.0.0"}
    output(results, "apt-update")
    output(results, "apt-upgrade")
    assert versions(results, "after") == {name: package.field("Version") for name, package in packages.items()}


def test_apt_finds_nothing_newer_than_the_same(results: Path) -> None:
    assert "0 upgraded, 0 newly installed, 0 to remove and 0 not upgraded." in output(results, "apt-upgrade-again")


def test_an_upgrade_keeps_what_people_changed(results: Path) -> None:
    kept = output(results, "changed-before")
    assert '"stored": "before"' in kept
    assert output(results, "changed-after") == kept


@pytest.mark.parametrize(("step", "action"), [("install", "start"), ("apt-upgrade", "restart")])
def test_the_daemons_are_started_by_an_installation_and_anew_by_an_upgrade(results: Path, step: str, action: str) -> None:
    asked = asked_of_the_service_manager(results, step)
    for daemon in ("vantora-network", "vantora-settingsd", "vantora-supplicant-names"):
        mine = [line for line in asked if f"{daemon}.service" in line]
        assert mine == [f"--quiet --system {action} {daemon}.service"], asked
        # The new unit is read first.
        assert asked.index("--system daemon-reload") < asked.index(mine[0]), asked


def test_a_purge_after_an_upgrade_leaves_nothing(results: Path) -> None:
    assert files(results, "purged-before") == files(results, "before")


@pytest.mark.parametrize(
    "unit", ["vantora-network", "vantora-settingsd", "vantora-supplicant-names", "vantora-device-passphrase"]
)
def test_units_are_enabled_by_the_installation(results: Path, unit: str) -> None:
    assert output(results, f"enabled-{unit}") == "enabled\n"


@pytest.mark.parametrize(
    ("program", "first"),
    [
        ("vantora-doctor", "vantora-doctor 1"),
        ("vantora-settingsd", "vantora-settingsd 1"),
        ("vantora-wifi", "vantora-wifi 1"),
        ("vantora-sim", "usage: vantora-sim"),
        ("vantora-simctl", "usage: vantora-simctl"),
    ],
)
def test_programs_run(results: Path, program: str, first: str) -> None:
    assert output(results, program).startswith(first)


def test_the_daemon_starts_and_finds_no_bus(results: Path) -> None:
    assert (results / "vantora-network.status").read_text() == "1\n"
    assert (results / "vantora-network.out").read_text() == ""


def test_the_user_of_the_older_name_is_made_and_goes_with_a_purge(results: Path) -> None:
    assert int(output(results, "names-user")) > 0
    assert (results / "names-user-purged.status").read_text() != "0\n"


def test_an_image_that_is_made_has_no_passphrase_and_waits_for_no_boot(results: Path) -> None:
    for step in ("image-passphrase-made", "image-waits-for-boot"):
        assert (results / f"{step}.status").read_text() == "1\n"


def test_on_a_running_system_units_are_made_from_the_next_boot_on(results: Path) -> None:
    output(results, "waits-for-boot")
    output(results, "generator-before-boot")
    assert output(results, "units-before-boot") == ""


def test_systemd_loads_the_units_beside_those_of_debians(results: Path) -> None:
    output(results, "generator")
    assert output(results, "verified") == ""


def test_debians_own_wpa_supplicant_is_masked(results: Path) -> None:
    assert (results / "masked.out").read_text() in ("masked\n", "masked-runtime\n")


def test_they_can_be_installed_over_themselves(results: Path) -> None:
    output(results, "upgrade")


def test_settings_and_passphrase_outlive_a_removal_and_the_wired_server_is_not_left_enabled(results: Path) -> None:
    output(results, "passphrase")
    output(results, "eth0-enabled")
    output(results, "remove")
    assert "/var/lib/vantora-device/passphrase" in files(results, "removed")
    assert not any("/etc/systemd/system/" in path and "udhcpd_eth0" in path for path in files(results, "removed"))
    assert "/var/lib/vantora-settingsd/settings.json" in files(results, "removed")


def test_a_purge_leaves_nothing(results: Path) -> None:
    output(results, "purge")
    assert files(results, "purged") - files(results, "before") == set()
    assert files(results, "before") - files(results, "purged") == set()
