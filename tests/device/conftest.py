"""Fixtures of the tests on a booted device: a machine of its own for each, continued from a saved one or booted cold."""

from __future__ import annotations

import inspect
import os
import shutil
import sys
import tempfile
from collections.abc import Callable, Generator, Iterator
from pathlib import Path
from typing import Any

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

from time_outs import give_time_out  # noqa: E402  (found through the line above)

from bench import Device, Evidence, Machine, Mark, Snapshot, World  # noqa: E402
from bench.deadline import BOOT, SCALE  # noqa: E402
from bench.evidence import Result  # noqa: E402
from bench.snapshots import saved_host_machine  # noqa: E402

TIME_OUT = 900 * SCALE
"""Seconds after which a single test is given up: only a fault gets there, every wait has its own, shorter deadline."""


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption(
        "--image",
        default=os.environ.get("VANTORA_DEVICE_IMAGE"),
        help="folder that tests/device/image/make-device printed (default: $VANTORA_DEVICE_IMAGE)",
    )
    parser.addoption(
        "--stock",
        help="folder that tests/device/image/make-device --stock printed: then the tests that install our packages run, too",
    )
    parser.addoption(
        "--evidence", default=os.environ.get("VANTORA_DEVICE_EVIDENCE"), help="folder for what the results page is made from"
    )


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    if not config.getoption("--stock"):
        # Not skipped: they are another run's.
        items[:] = [item for item in items if "stock_boot" not in getattr(item, "fixturenames", ())]
    give_time_out(items, TIME_OUT)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Generator[None, Any, None]:
    """Keeps the evidence of each test, and shows journal and signals beside a failure."""
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for number, device in enumerate(getattr(item, "devices", [])):
            for stream in (device.journal, device.signals):
                text = "\n".join(str(event) for event in stream.since()[-250:])
                report.sections.append((f"{stream.name} of device {number}", text))
            console = device.machine.work / "console.log"
            if console.exists():
                report.sections.append((f"console of device {number}", console.read_text(errors="replace")[-4000:]))
    folder = item.config.getoption("--evidence")
    if folder and (report.when == "call" or report.failed):
        evidence = getattr(item, "evidence", Evidence())
        Result(
            Path(item.path).stem,
            item.name,
            report.outcome,
            report.duration,
            inspect.getdoc(getattr(item, "obj", None)) or "",
            evidence.entries,
            report.longreprtext[-4000:] if report.failed else "",
        ).write(Path(folder))


@pytest.fixture(scope="session")
def image(request: pytest.FixtureRequest) -> Path:
    """The folder with the device's disk, kernel and initrd."""
    folder = request.config.getoption("--image")
    if not folder:
        pytest.exit("no image: run scripts/test-device, or give --image", 2)
    return Path(folder).resolve()


@pytest.fixture(scope="session")
def saved(image: Path) -> Snapshot:
    """A device that came up as an access point and was saved when all was quiet."""
    return saved_host_machine(image)


@pytest.fixture
def evidence(request: pytest.FixtureRequest) -> Evidence:
    """What this test saw."""
    found = Evidence()
    request.node.evidence = found
    return found


@pytest.fixture
def work() -> Iterator[Path]:
    """A folder for this test's machines."""
    folder = Path(tempfile.mkdtemp(prefix="vantora-device-"))
    yield folder
    shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture
def devices(request: pytest.FixtureRequest) -> Iterator[list[Device]]:
    """The machines of this test: they are named where it fails, and lose their power when it is over."""
    found: list[Device] = []
    request.node.devices = found
    yield found
    for device in found:
        if device.machine.running:
            device.machine.cut_power()


@pytest.fixture
def boot(image: Path, work: Path, evidence: Evidence, devices: list[Device]) -> Callable[..., Device]:
    """Boots a device from its disk, or from the disk that another one had: `boot(disk=..., words="root=/dev/nfs")`.

    It has then come as far as the daemon's first look at the settings.
    """

    def start(*, disk: Path | None = None, words: str = "", saved: Snapshot | None = None) -> Device:
        machine = Machine(image, work / str(len(devices)), disk=disk, words=words, saved=saved)
        device = Device(machine, evidence)
        devices.append(device)
        if saved is None:
            device.wait_for_log("Setup initial WiFi mode", since=Mark(), priority="info", seconds=BOOT)
        return device

    return start


@pytest.fixture
def stock_boot(request: pytest.FixtureRequest, work: Path, evidence: Evidence, devices: list[Device]) -> Callable[..., Device]:
    """Boots a Debian that has our packages in /packages and not installed, or what has become of one: `stock_boot(disk=...)`.

    It has then come to the end of its boot.
    """
    image = Path(request.config.getoption("--stock")).resolve()

    def start(*, disk: Path | None = None, words: str = "") -> Device:
        device = Device(Machine(image, work / str(len(devices)), disk=disk, words=words), evidence)
        devices.append(device)
        device.guest.wait_until("systemctl is-system-running | grep -E 'running|degraded'", seconds=BOOT)
        return device

    return start


@pytest.fixture
def device(saved: Snapshot, boot: Callable[..., Device]) -> Device:
    """A device that has been an access point for a while."""
    return boot(saved=saved)


@pytest.fixture
def world(device: Device) -> World:
    """The world around that device."""
    return World(device)
