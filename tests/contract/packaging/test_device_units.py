"""What the service manager of a device sees: units made at boot, and other managers that leave wlan0 alone."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest
from conftest import ROOT

DEVICE = ROOT / "packaging/device"
MASKED = [
    "wpa_supplicant.service",
    "wpa_supplicant@wlan0.service",
    "hostapd@wlan0.service",
    "ifup@wlan0.service",
    "dhcpcd@wlan0.service",
]


class System:
    """The root of a device, and what the generator makes of it."""

    def __init__(self, folder: Path) -> None:
        self.root = folder / "root"
        self.units = self.root / "etc/systemd/system"
        self.units.mkdir(parents=True)
        (self.root / "run").mkdir()
        share = self.root / "usr/share/vantora-device"
        share.mkdir(parents=True)
        (share / "units").symlink_to(DEVICE / "units")
        self.folders = [folder / name for name in ("normal", "early", "late")]
        for made in self.folders:
            made.mkdir()
        self.early = self.folders[1]

    def generate(self) -> set[str]:
        """What is there afterwards, below the second folder."""
        subprocess.run(
            [DEVICE / "generator", *self.folders], env={"VANTORA_DEVICE_ROOT": str(self.root)}, check=True, timeout=60
        )
        assert not any(self.folders[0].iterdir()) and not any(self.folders[2].iterdir())
        return {str(path.relative_to(self.early)) for path in self.early.rglob("*") if not path.is_dir() or path.is_symlink()}


@pytest.fixture
def system(tmp_path: Path) -> System:
    return System(tmp_path)


def test_at_boot_the_units_are_ours_and_others_are_masked(system: System) -> None:
    made = system.generate()
    for unit in ("hostapd.service", "udhcpd.service"):
        assert (system.early / unit).read_text() == (DEVICE / "units" / unit).read_text()
    for unit in MASKED:
        assert (system.early / unit).readlink() == Path("/dev/null")
    for unit in ("hostapd.service", "udhcpd.service", "wpa_supplicant-nl80211@wlan0.service"):
        for target in ("multi-user.target", "graphical.target"):
            assert (system.early / f"{target}.wants/{unit}").readlink() == Path("/dev/null")
    for unit in ("wpa_supplicant-nl80211@wlan0.service", "networking.service", "dhcpcd.service"):
        drop_in = system.early / f"{unit}.d/vantora-device.conf"
        assert drop_in.read_text() == (DEVICE / f"units/{unit}.conf").read_text()
    assert len(made) == 2 + len(MASKED) + 2 * 3 + 3


def test_debians_mask_of_hostapd_is_overridden(system: System) -> None:
    (system.units / "hostapd.service").symlink_to("/dev/null")
    assert "hostapd.service" in system.generate()


@pytest.mark.parametrize("unit", ["hostapd.service", "udhcpd.service"])
def test_a_unit_of_somebodys_own_holds(system: System, unit: str) -> None:
    (system.units / unit).write_text("[Service]\nExecStart=/bin/true\n")
    assert unit not in system.generate()


@pytest.mark.parametrize("unit", ["wpa_supplicant-nl80211@.service", "wpa_supplicant-nl80211@wlan0.service"])
def test_a_station_unit_of_somebodys_own_gets_nothing_added(system: System, unit: str) -> None:
    (system.units / unit).write_text("[Service]\nExecStart=/bin/true\n")
    assert not any("nl80211" in name and ".d/" in name for name in system.generate())


def test_between_installation_and_boot_everything_is_as_it_was(system: System) -> None:
    (system.root / "run/vantora-network.wait-for-boot").write_text("")
    assert system.generate() == set()


def test_units_are_ones_that_systemd_loads(tmp_path: Path) -> None:
    for path in [
        *(DEVICE / "units").glob("*.service"),
        *(DEVICE / "system").glob("*.service"),
        *DEVICE.glob("etc/korrin/*.service"),
    ]:
        text = path.read_text().replace("/usr/libexec/vantora-device/", f"{DEVICE}/libexec/")
        text = text.replace("/usr/sbin/hostapd", "/bin/true")
        (tmp_path / path.name.replace("@.", "@wlan0.")).write_text(text)
    checked = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", *sorted(tmp_path.iterdir())],
        capture_output=True,
        text=True,
        timeout=60,
        env={"PATH": "/usr/bin:/bin", "LC_ALL": "C"},
        check=False,
    )
    assert (checked.returncode, checked.stderr) == (0, "")


def test_the_template_holds_no_key_and_what_the_daemon_needs() -> None:
    lines = (DEVICE / "etc/hostapd.conf").read_text().splitlines()
    settings = dict(line.split("=", 1) for line in lines if line and not line.startswith("#"))
    assert not {"wpa_passphrase", "wpa_psk", "sae_password", "acs_blacklist", "ssid", "hw_mode"} & set(settings)
    assert settings["interface"] == "wlan0"
    assert settings["ctrl_interface"] == "/var/run/hostapd"
    assert settings["wpa_psk_file"] == "/run/vantora-device/wlan0.psk"
    assert settings["wpa"] == "2"
