"""The saved machine that most tests start from. It is kept beside the image and made once, whoever asks first."""

from __future__ import annotations

import fcntl
import hashlib
import shutil
import tempfile
from pathlib import Path

from .deadline import BOOT
from .device import Device, Mark
from .evidence import Evidence
from .machine import CLOCK, KERNEL_COMMAND_LINE, LINES, MEMORY, Machine, Snapshot


def saved_host_machine(image: Path) -> Snapshot:
    """A device that booted into Host mode, saved once the access point was on air and everything had settled."""
    setup = "\n".join([KERNEL_COMMAND_LINE, MEMORY, CLOCK, *LINES, Path(__file__).read_text(encoding="utf-8")])
    folder = image / f"host-{hashlib.sha256(setup.encode()).hexdigest()[:16]}"
    with (image / "host.lock").open("w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not (folder / "state").exists():
            work = Path(tempfile.mkdtemp(prefix="making-", dir=image))
            try:
                make(image, work).rename(folder)
            finally:
                shutil.rmtree(work, ignore_errors=True)
    return Snapshot(folder / "disk.qcow2", folder / "state")


def make(image: Path, work: Path) -> Path:
    """Boots and saves; the folder with the saved machine."""
    machine = Machine(image, work / "machine")
    try:
        device = Device(machine, Evidence())
        device.wait_for_access_point(seconds=BOOT)
        # The last thing that the daemon does when it starts.
        device.wait_for_log("[NETLINK] Starting kernel netlink task...", since=Mark())
        # Boot is over, and so is what it started.
        device.guest.wait_until("systemctl is-system-running | grep -E 'running|degraded'")
        device.mark()
        device.guest.run("sync")
        machine.save(work / "saved")
    finally:
        if machine.running:
            machine.cut_power()
    return work / "saved"
