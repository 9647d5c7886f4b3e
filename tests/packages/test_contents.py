"""What the packages hold, read without installing them."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT, Package, printed
from hardening import ASSERTION, Elf, programs_below

NAMES = (
    "vantora-device",
    "vantora-doctor",
    "vantora-network",
    "vantora-network-sim",
    "vantora-network-tools",
    "vantora-settingsd",
    "vantora-supplicant-names",
)
WITH_PROGRAMS = tuple(name for name in NAMES if name != "vantora-device")
"""Those that are made for one architecture."""

DOCUMENTED = {f"/usr/share/doc/{name}/{file}" for name in NAMES for file in ("changelog.gz", "copyright")}

FILES = {
    "vantora-device": {
        "/etc/hostapd.conf",
        "/etc/korrin/udhcpd_eth0.conf",
        "/etc/korrin/udhcpd_eth0.service",
        "/etc/korrin/udhcpd_wlan0.conf",
        "/etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf",
        "/usr/lib/NetworkManager/conf.d/vantora-device.conf",
        "/usr/lib/systemd/network/00-vantora-device.network",
        "/usr/lib/systemd/network/10-vantora-device.link",
        "/usr/lib/systemd/system-generators/vantora-device-generator",
        "/usr/lib/systemd/system/udhcpc@.service",
        "/usr/lib/systemd/system/vantora-access-point-retry.service",
        "/usr/lib/systemd/system/vantora-device-passphrase.service",
        *(f"/usr/libexec/vantora-device/{path.name}" for path in (ROOT / "packaging/device/libexec").iterdir()),
        *(f"/usr/share/vantora-device/units/{path.name}" for path in (ROOT / "packaging/device/units").iterdir()),
    },
    "vantora-doctor": {
        "/usr/bin/vantora-doctor",
        "/usr/share/bash-completion/completions/vantora-doctor",
        "/usr/share/man/man1/vantora-doctor.1.gz",
        "/usr/share/zsh/vendor-completions/_vantora-doctor",
    },
    "vantora-network": {
        "/usr/lib/systemd/system/vantora-network.service",
        "/usr/sbin/vantora-network",
        "/usr/share/dbus-1/interfaces/com.vantora.Network1.WiFi.xml",
        "/usr/share/dbus-1/services/com.vantora.Network1.service",
        "/usr/share/man/man8/vantora-network.8.gz",
    },
    "vantora-network-tools": {
        "/usr/bin/vantora-wifi",
        "/usr/share/bash-completion/completions/vantora-wifi",
        "/usr/share/man/man1/vantora-wifi.1.gz",
        "/usr/share/zsh/vendor-completions/_vantora-wifi",
    },
    "vantora-network-sim": {
        "/usr/bin/vantora-sim",
        "/usr/bin/vantora-simctl",
        "/usr/share/bash-completion/completions/vantora-simctl",
        "/usr/share/zsh/vendor-completions/_vantora-simctl",
        "/usr/libexec/vantora-sim/vantora-network",
        "/usr/libexec/vantora-sim/vantora-settingsd",
        "/usr/libexec/vantora-sim/vantora-sim-sandbox",
        "/usr/libexec/vantora-sim/vantora-sim-tool",
        "/usr/share/man/man1/vantora-sim.1.gz",
        "/usr/share/man/man1/vantora-simctl.1.gz",
        "/usr/share/python3/runtime.d/vantora-network-sim.rtupdate",
        "/usr/share/vantora-sim/world.schema.json",
        *(f"/usr/share/vantora-sim/worlds/{path.name}" for path in (ROOT / "simulator/worlds").glob("*.json")),
        *(
            f"/usr/share/vantora-sim/{path.relative_to(ROOT / 'simulator')}"
            for path in (ROOT / "simulator/vantora_sim").rglob("*.py")
        ),
        *(
            f"/usr/share/vantora-sim/{path.relative_to(ROOT / 'simulator')}"
            for path in (ROOT / "simulator/vantora_sim").rglob("static/*")
        ),
        "/usr/share/vantora-sim/dbus-api.md",
    },
    "vantora-settingsd": {
        "/usr/lib/systemd/system/vantora-settingsd.service",
        "/usr/sbin/vantora-settingsd",
        "/usr/share/dbus-1/services/com.vantora.common.Settings1.service",
        "/usr/share/man/man8/vantora-settingsd.8.gz",
    },
    "vantora-supplicant-names": {
        "/usr/lib/systemd/system/vantora-supplicant-names.service",
        "/usr/lib/sysusers.d/vantora-supplicant-names.conf",
        "/usr/sbin/vantora-supplicant-names",
        "/usr/share/dbus-1/system.d/vantora-supplicant-names.conf",
        "/usr/share/man/man8/vantora-supplicant-names.8.gz",
    },
}

RUN_BY_PEOPLE_AND_UNITS = re.compile(
    r"/usr/(bin|sbin|libexec/vantora-(sim|device)|lib/systemd/system-generators)/|/usr/share/python3/runtime\.d/"
)

LIBRARIES = {
    "libc.so.6": "libc6",
    "libgcc_s.so.1": "libgcc-s1",
    "libm.so.6": "libc6",
    "libncursesw.so.6": "libncursesw6",
    "libqrencode.so.4": "libqrencode4",
    "libsigc-2.0.so.0": "libsigc++-2.0-0v5",
    "libstdc++.so.6": "libstdc++6",
    "libsystemd.so.0": "libsystemd0",
    "libtinfo.so.6": "libtinfo6",
}

DAEMON_LIMIT = {"armhf": 250 * 1024, "arm64": 400 * 1024, "amd64": 400 * 1024}
"""Bytes that the daemon may take: on a device's storage, and what that comes to in the other machines' wider code."""


def programs(unpacked: dict[str, Path], name: str) -> list[Path]:
    """The native programs of a package."""
    return programs_below(unpacked[name])


def readelf(option: str, path: Path) -> str:
    return printed("readelf", "--wide", option, path)


def test_there_is_one_package_for_each_purpose(packages: dict[str, Package], architecture: str) -> None:
    assert tuple(sorted(packages)) == NAMES
    for name, package in packages.items():
        assert package.field("Architecture") == (architecture if name in WITH_PROGRAMS else "all")


def test_their_version_is_the_projects_and_grows_with_the_commits(packages: dict[str, Package], built: Path) -> None:
    project = re.search(r"^ *VERSION (\S+)$", (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
    assert project is not None
    commit = (built / "commit").read_text().strip()
    counted = subprocess.run(
        ["git", "rev-list", "--count", commit], cwd=ROOT, check=True, capture_output=True, text=True, timeout=60
    ).stdout.strip()
    assert {package.field("Version") for package in packages.values()} == {f"{project[1]}+{counted}.g{commit[:10]}"}


@pytest.mark.parametrize("name", ["vantora-network", "vantora-settingsd", "vantora-supplicant-names"])
def test_programs_and_units_tell_the_version_of_their_package(
    packages: dict[str, Package], unpacked: dict[str, Path], name: str
) -> None:
    version = packages[name].field("Version")
    assert f"{name} {version}\0".encode() in (unpacked[name] / f"usr/sbin/{name}").read_bytes()
    (unit,) = unpacked[name].rglob(f"{name}.service")
    assert f"X-Version={version}" in unit.read_text().splitlines()


@pytest.mark.parametrize("name", NAMES)
def test_a_package_holds_its_files_and_no_others(packages: dict[str, Package], name: str) -> None:
    files = {path for path, member in packages[name].members().items() if not member.mode.startswith("d")}
    assert files - DOCUMENTED == FILES[name]
    assert files & DOCUMENTED == {path for path in DOCUMENTED if path.startswith(f"/usr/share/doc/{name}/")}


@pytest.mark.parametrize("name", NAMES)
def test_nothing_is_in_a_folder_that_is_a_link_by_now(packages: dict[str, Package], name: str) -> None:
    assert [path for path in packages[name].members() if path.split("/")[1] in ("bin", "lib", "sbin")] == []


@pytest.mark.parametrize("name", NAMES)
def test_everything_is_roots_and_nobody_else_may_write_it(packages: dict[str, Package], name: str) -> None:
    for path, member in packages[name].members().items():
        assert member.owner == "root/root", path
        if member.mode.startswith("l"):
            continue
        executable = member.mode.startswith("d") or RUN_BY_PEOPLE_AND_UNITS.match(path)
        assert member.mode[1:] == ("rwxr-xr-x" if executable else "rw-r--r--"), path


@pytest.mark.parametrize("name", WITH_PROGRAMS)
def test_programs_are_stripped_and_hardened(unpacked: dict[str, Path], name: str, architecture: str) -> None:
    machine = {"amd64": "Advanced Micro Devices X86-64", "arm64": "AArch64", "armhf": "ARM"}[architecture]
    found = programs(unpacked, name)
    assert found
    for path in found:
        header, sections = readelf("--file-header", path), readelf("--sections", path)
        assert re.search(rf"Machine: +{machine}\n", header), path
        assert Elf(path).flaws() == [], path
        assert ".symtab" not in sections and ".debug_info" not in sections, path


def test_the_daemons_are_built_with_the_standard_librarys_checks(unpacked: dict[str, Path]) -> None:
    for name in ("vantora-network", "vantora-settingsd"):
        assert ASSERTION in Elf(unpacked[name] / f"usr/sbin/{name}").imports()


@pytest.mark.parametrize("name", WITH_PROGRAMS)
def test_a_package_depends_on_the_libraries_of_its_programs(
    packages: dict[str, Package], unpacked: dict[str, Path], name: str
) -> None:
    depends = {re.split(r"[ (|:]", dependency.strip())[0] for dependency in packages[name].field("Depends").split(",")}
    for path in programs(unpacked, name):
        needed = re.findall(r"\(NEEDED\) +Shared library: \[(\S+)\]", readelf("--dynamic", path))
        needed = [library for library in needed if not library.startswith("ld-linux")]
        assert {LIBRARIES[library] for library in needed} <= depends, path


def test_the_daemon_depends_on_the_systemd_that_it_was_made_for(packages: dict[str, Package]) -> None:
    assert re.search(r"libsystemd0 \(>= 252\)", packages["vantora-network"].field("Depends"))


def test_the_daemon_is_small_enough_for_a_device(unpacked: dict[str, Path], architecture: str) -> None:
    assert (unpacked["vantora-network"] / "usr/sbin/vantora-network").stat().st_size <= DAEMON_LIMIT[architecture]


def test_the_simulated_device_needs_no_daemon_on_the_machine(packages: dict[str, Package]) -> None:
    for field in ("Depends", "Recommends"):
        assert not re.search(r"vantora-(network|settingsd)\b(?!-)", packages["vantora-network-sim"].field(field))


@pytest.mark.parametrize("name", NAMES)
def test_maintainer_scripts_are_shell_scripts_that_stop_at_the_first_failure(unpacked: dict[str, Path], name: str) -> None:
    for script in ("preinst", "postinst", "prerm", "postrm"):
        path = unpacked[name] / "DEBIAN" / script
        if path.exists():
            assert path.stat().st_mode & 0o777 == 0o755
            assert path.read_text().splitlines()[:2] == ["#!/bin/sh", "set -e"]
            subprocess.run(["/bin/sh", "-n", path], check=True, timeout=60)


@pytest.mark.parametrize("name", ["vantora-network", "vantora-settingsd"])
def test_an_upgrade_starts_the_daemon_anew_and_only_a_removal_stops_it(unpacked: dict[str, Path], name: str) -> None:
    scripts = unpacked[name] / "DEBIAN"
    installed, removed = ((scripts / script).read_text() for script in ("postinst", "prerm"))
    assert f"deb-systemd-helper enable '{name}.service'" in installed
    assert re.search(r'if \[ -n "\$2" \]; then\s+_dh_action=restart\s+else\s+_dh_action=start\s', installed)
    assert f"deb-systemd-invoke $_dh_action '{name}.service'" in installed
    assert re.search(rf'"\$1" = remove \].*\n\s+deb-systemd-invoke stop \'{name}.service\'', removed)


def test_what_a_person_edits_of_the_device_is_kept_over_an_upgrade(unpacked: dict[str, Path]) -> None:
    kept = (unpacked["vantora-device"] / "DEBIAN/conffiles").read_text().split()
    assert set(kept) == {path for path in FILES["vantora-device"] if path.startswith("/etc/")}


def test_no_passphrase_comes_with_the_package(unpacked: dict[str, Path]) -> None:
    for path in unpacked["vantora-device"].rglob("*"):
        if path.is_file():
            assert not re.search(rb"(?m)^\s*(wpa_passphrase|wpa_psk|sae_password|psk)=", path.read_bytes()), path
    assert not (unpacked["vantora-device"] / "var").exists()


@pytest.mark.parametrize("name", ["vantora-network", "vantora-device"])
def test_on_a_running_system_wlan0_is_left_alone_until_the_next_boot(unpacked: dict[str, Path], name: str) -> None:
    # Before the files are there: another package's installation may have systemd read them.
    script = (unpacked[name] / "DEBIAN/preinst").read_text()
    assert '"$1" = install ]' in script and ": >/run/vantora-network.wait-for-boot" in script
    unit = (unpacked["vantora-network"] / "usr/lib/systemd/system/vantora-network.service").read_text()
    assert "\nConditionPathExists=!/run/vantora-network.wait-for-boot\n" in unit
