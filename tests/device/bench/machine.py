"""A machine in QEMU: started from its disk, or continued from where it was saved."""

from __future__ import annotations

import json
import os
import socket
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from .deadline import BOOT, Deadline

MEMORY = "256"
CLOCK = "shift=1,sleep=on"
"""While the processor works, the machine's clock counts its instructions, two nanoseconds each, and while it waits, the
time outside. So a busy computer slows the machine down, clock and all, and makes nothing in it late."""
LINES = ("agent.1", "agent.2", "journal", "signals")
"""Serial lines into the machine, by the names under which it finds them below /dev/virtio-ports."""
KERNEL_COMMAND_LINE = (
    "console=ttyAMA0 loglevel=4 systemd.show_status=0 panic=-1 net.ifnames=0 cryptomgr.notests apparmor=0 audit=0"
)


@dataclass(frozen=True)
class Snapshot:
    """A saved machine: its disk, which nothing writes to any more, and all else in a file."""

    disk: Path
    state: Path


class Machine:
    """One emulated machine with an overlay of its own over the disk: nothing that it does is seen by another."""

    def __init__(
        self, image: Path, work: Path, *, disk: Path | None = None, saved: Snapshot | None = None, words: str = ""
    ) -> None:
        """`disk` continues with the disk of an earlier machine; `words` are put on the kernel's command line."""
        self.image, self.work, self.words = image, work, words
        self.work.mkdir(parents=True, exist_ok=True)
        self.disk = disk if disk is not None else work / "disk.qcow2"
        if disk is None:
            backing = saved.disk if saved is not None else image / "rootfs.qcow2"
            subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "qcow2", "-b", backing, self.disk], check=True)
        self._process = subprocess.Popen(
            self._command(saved),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=(work / "qemu.log").open("wb"),
            start_new_session=True,
        )
        try:
            self._control = self._connect("control")
            self._control_lines = self._control.makefile("rb")
            self._control_lines.readline()
            self.control("qmp_capabilities")
            self.lines = {name: self._connect(name) for name in LINES}
            if saved is not None:
                self._wait_for_status("query-status", "status", {"paused", "prelaunch"})
            self.control("cont")
        except BaseException:
            self.cut_power()
            raise

    def _command(self, saved: Snapshot | None) -> list[str]:
        command = [
            "setpriv",
            "--pdeathsig",
            "KILL",  # it ends with its test, however that ends
            "qemu-system-arm",
            "-M",
            "virt",
            "-cpu",
            "cortex-a15",
            "-m",
            MEMORY,
            "-smp",
            "1",
            "-icount",
            CLOCK,
            "-display",
            "none",
            "-nodefaults",
            "-no-reboot",
            "-S",
            "-serial",
            f"file:{self.work}/console.log",
            "-qmp",
            f"unix:{self.work}/control,server=on,wait=off",
            "-kernel",
            f"{self.image}/kernel",
            "-initrd",
            f"{self.image}/initrd.cpio",
            "-append",
            f"{KERNEL_COMMAND_LINE} {self.words}".strip(),
            "-drive",
            f"if=none,id=root,file={self.disk},format=qcow2",
            "-device",
            "virtio-blk-device,drive=root,serial=root",
            "-device",
            "virtio-serial-device",
            "-device",
            "virtio-rng-device",
        ]
        for name in LINES:
            command += [
                "-chardev",
                f"socket,id={name},path={self.work}/{name},server=on,wait=off",
                "-device",
                f"virtserialport,chardev={name},name={name}",
            ]
        if saved is not None:
            command += ["-incoming", f"exec:cat {saved.state}"]
        return command

    def _connect(self, name: str) -> socket.socket:
        deadline = Deadline(BOOT)
        path = self.work / name
        while True:
            line = socket.socket(socket.AF_UNIX)
            try:
                # The path is relative: socket addresses are short, temporary folders are not.
                folder = os.open(self.work, os.O_PATH)
                try:
                    line.connect(f"/proc/self/fd/{folder}/{name}")
                finally:
                    os.close(folder)
                return line
            except (FileNotFoundError, ConnectionRefusedError):
                line.close()
                if self._process.poll() is not None or deadline.over:
                    raise RuntimeError(f"no machine behind {path}: {(self.work / 'qemu.log').read_text()}") from None
                self._pause()

    @staticmethod
    def _pause() -> None:
        """Between two questions to QEMU itself, which has no event to wait for."""
        time.sleep(0.02)

    def control(self, command: str, **arguments: Any) -> Any:
        """One command to QEMU; the answer, past the events that come between."""
        self._control.sendall(json.dumps({"execute": command, "arguments": arguments}).encode())
        while True:
            line = self._control_lines.readline()
            if not line:
                raise RuntimeError(f"the machine ended: {(self.work / 'qemu.log').read_text()}")
            answer = json.loads(line)
            if "error" in answer:
                raise RuntimeError(f"{command}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]

    def _wait_for_status(self, question: str, key: str, wanted: set[str]) -> None:
        deadline = Deadline(BOOT)
        while self.control(question).get(key) not in wanted:
            if deadline.over:
                raise TimeoutError(f"{question} is not {wanted} after {deadline.seconds:.0f} s")
            self._pause()

    def save(self, folder: Path) -> Snapshot:
        """Saves the machine and ends it; any number of others can be continued from there."""
        folder.mkdir(parents=True, exist_ok=True)
        self.control("stop")
        self.control("migrate-set-parameters", **{"max-bandwidth": 1 << 34})
        self.control("migrate", uri=f"exec:cat >{folder}/state")
        self._wait_for_status("query-migrate", "status", {"completed"})
        self.control("quit")
        self._process.wait()
        self.disk.rename(folder / "disk.qcow2")
        self._close()
        return Snapshot(folder / "disk.qcow2", folder / "state")

    @property
    def running(self) -> bool:
        """Whether it has not ended."""
        return self._process.poll() is None

    def wait_for_end(self) -> None:
        """Waits until the machine has switched itself off."""
        self._process.wait(BOOT)
        self._close()

    def cut_power(self) -> None:
        """Ends it at once, without a word to the system inside. What that one had not written to its disk is lost."""
        self._process.kill()
        self._process.wait()
        self._close()

    def _close(self) -> None:
        for line in getattr(self, "lines", {}).values():
            line.close()
        if hasattr(self, "_control"):
            self._control.close()
