"""A device with its page, and a browser that looks at it: for the tests and for who makes the pictures."""

from __future__ import annotations

import contextlib
import os
import queue
import re
import shutil
import signal
import subprocess
import threading
import time
from collections.abc import Iterator
from pathlib import Path

from ignored_signals import forget_ignored_signals
from selenium import webdriver
from selenium.webdriver.chrome.service import Service

ROOT = Path(__file__).resolve().parents[2]
PATIENCE = float(os.environ.get("VANTORA_DESK_PATIENCE", "1"))
"""How many times as long as usual everything may take: for machines that are busy with other things."""
DEADLINE = 90.0 * PATIENCE
_LINK = re.compile(r"(http://127\.0\.0\.1:\d+)/#key=(\S+)")
_FLAGS = (
    "--headless=new",
    "--no-sandbox",
    "--disable-gpu",
    "--disable-quic",
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    "--disable-dev-shm-usage",
    "--hide-scrollbars",
    "--force-device-scale-factor=1",
)


class Running:
    """A `vantora-sim` with a page: its address, and a fresh key whenever one is wanted."""

    def __init__(self, build: Path, *options: str, desktop: dict[str, str] | None = None) -> None:
        """`desktop` is what a desktop puts into the environment; without it there is none."""
        program = ROOT / "simulator/vantora-sim"
        environment = {name: value for name, value in os.environ.items() if name not in ("DISPLAY", "WAYLAND_DISPLAY")}
        self.process = subprocess.Popen(
            [program, "--build-dir", build, *options],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            env={**environment, **(desktop or {})},
            process_group=0,
            preexec_fn=forget_ignored_signals,
        )
        self._links: queue.Queue[tuple[str, str]] = queue.Queue()
        self.output: list[str] = []
        self._up = threading.Event()
        threading.Thread(target=self._read, daemon=True).start()
        self.base, key = self._next_link()
        self._keys = [key]

    def _read(self) -> None:
        assert self.process.stdout
        for line in self.process.stdout:
            self.output.append(line)
            found = _LINK.search(line)
            if found:
                self._links.put((found[1], found[2]))
            if line.startswith("What happens from now on"):
                self._up.set()

    def _next_link(self) -> tuple[str, str]:
        try:
            return self._links.get(timeout=DEADLINE)
        except queue.Empty:
            raise AssertionError("no link was printed:\n" + "".join(self.output)) from None

    def wait_up(self) -> None:
        """Wait until the device is up."""
        assert self._up.wait(DEADLINE), "".join(self.output)

    def key(self) -> str:
        """A key that has not been used: after each use another is printed."""
        return self._keys.pop() if self._keys else self._next_link()[1]

    @property
    def link(self) -> str:
        """The address of the page with such a key."""
        return f"{self.base}/#key={self.key()}"

    def end(self) -> int:
        """Switch it off as Ctrl-C does."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
        return self.process.wait(DEADLINE)


@contextlib.contextmanager
def running(build: Path, *options: str) -> Iterator[Running]:
    """A running page that is over afterwards."""
    device = Running(build, *options)
    try:
        yield device
    finally:
        device.end()


@contextlib.contextmanager
def browser(profile: Path, *, width: int = 1400, height: int = 1000, dark: bool = False) -> Iterator[webdriver.Chrome]:
    """A browser with a new profile, which is removed afterwards."""
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in (*_FLAGS, f"--user-data-dir={profile}", f"--window-size={width},{height}"):
        options.add_argument(flag)
    options.add_experimental_option("prefs", {"download.default_directory": str(profile / "downloads")})
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_script_timeout(60 * PATIENCE)
    try:
        # The window of a headless browser has frames of its own; this is the page's size.
        driver.execute_cdp_cmd(
            "Emulation.setDeviceMetricsOverride",
            {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600},
        )
        if dark:
            driver.execute_cdp_cmd(
                "Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": "dark"}]}
            )
        yield driver
    finally:
        driver.quit()
        deadline = time.monotonic() + 5
        while profile.exists() and time.monotonic() < deadline:
            shutil.rmtree(profile, ignore_errors=True)
