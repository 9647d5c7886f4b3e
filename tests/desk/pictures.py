"""Makes the pictures of the page for the manual: `scripts/test-desk --pictures`. They show a running device, and nothing else."""

from __future__ import annotations

import base64
import io
import os
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/support"), str(ROOT / "simulator")]

from PIL import Image  # noqa: E402
from page import Page  # noqa: E402  (finds what it needs through the line above)
from running import browser, running  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402


LARGEST = 200_000
"""Bytes of a picture, so that the manual is not slow to load."""
COLOURS = 256
MARGIN = 10


def tell_a_story(page: Page) -> None:
    """Something to be seen: a station joins, the device becomes one, finds its network and is connected; a network comes nearer."""
    page.press('[data-station="tablet"]')
    page.until(lambda: page.value("WiFiConnectedClients") in ("1", "2"), "the station")
    page.ask_for_home()
    page.until(lambda: page.value("ClientSSID") == '"Casa Marisol"', "the connection")
    page.slide('[data-bssid="02:00:00:00:30:04"] input[type="range"]', 8)
    page.until_text("#air-answer", "is received with -58 dBm")
    page.until(lambda: page.value("IPAddress") == '"192.168.1.50"', "the address")
    page.until(lambda: page.text("#deeds .line:last-of-type") and page.all("#deeds li")[4:], "what was done to be listed")


def choose(page: Page, title: str) -> None:
    """Have the whole time line in view, and the entry that begins so chosen."""
    page.press("#fit")
    page.put("#search", title)
    page.until(lambda: page.titles() and page.titles()[0].startswith(title), "the entry")
    page.one("#list").send_keys(Keys.HOME)
    page.put("#search", "")
    page.until(lambda: len(page.titles()) > 1 and title in page.text('#list [aria-selected="true"]'), "it among the others")


def take(page: Page, path: Path, first: str | None = None, last: str | None = None) -> None:
    """A picture of the window, or from the top of one element to the bottom of another, in few colours."""
    script = "document.activeElement.blur(); window.scrollTo(0, 0); const box = document.querySelector(arguments[0]).getBoundingClientRect();"
    top = page.driver.execute_script(script + "return box.top", first) - MARGIN if first else 0
    width, height = page.driver.execute_script("return [innerWidth, innerHeight]")
    bottom = page.driver.execute_script(script + "return box.bottom", last) + MARGIN if last else height
    clip = {"x": 0, "y": top, "width": width, "height": bottom - top, "scale": 1}
    taken = page.driver.execute_cdp_cmd("Page.captureScreenshot", {"clip": clip, "captureBeyondViewport": True})
    with Image.open(io.BytesIO(base64.b64decode(taken["data"]))) as whole:
        whole.convert("RGB").quantize(COLOURS, kmeans=2, dither=Image.Dither.NONE).save(path, optimize=True)
    size = path.stat().st_size
    print(path, size)
    assert size < LARGEST, f"{path} has {size} bytes"


def main(folder: Path) -> None:
    """Make all of them."""
    build = Path(os.environ.get("VANTORA_BUILD_DIR", ROOT / "build/release"))
    folder.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as scratch, running(build, "--desk") as device:
        device.wait_up()
        with browser(Path(scratch) / "light", width=1720, height=1480) as driver:
            page = Page(driver, Path(scratch))
            page.open(device.link)
            tell_a_story(page.opened())
            choose(page, "Set Mode")
            take(page, folder / "desk.png", last=".lanes")
            take(page, folder / "desk-time-line.png", "#timeline", "#timeline")
        with browser(Path(scratch) / "dark", width=1440, height=1100, dark=True) as driver:
            page = Page(driver, Path(scratch))
            page.open(device.link)
            take(page.opened(), folder / "desk-dark.png")


if __name__ == "__main__":
    main(Path(sys.argv[1]))
