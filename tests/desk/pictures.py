"""Makes the pictures of the page for the manual: `scripts/test-desk --pictures`. They show a running device, and nothing else."""

from __future__ import annotations

import os
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "simulator")]

from page import Page  # noqa: E402  (finds what it needs through the line above)
from running import browser, running  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402


def tell_a_story(page: Page) -> None:
    """Something to be seen: a station joins, the device becomes one, finds its network and is connected."""
    page.press('[data-station="tablet"]')
    page.until(lambda: page.value("WiFiConnectedClients") in ("1", "2"), "the station")
    page.write("Mode", "Client")
    page.until(lambda: page.value("Mode") == '"Client"', "the mode")
    page.until(lambda: page.one('[data-daemon="wpa_supplicant"]').get_attribute("data-how") == "running", "wpa_supplicant")
    names = page.all(".method input")
    names[0].send_keys("Casa Marisol")
    names[1].send_keys("quiet-harbour-42", Keys.ENTER)
    page.until(lambda: page.value("ClientSSID") == '"Casa Marisol"', "the connection")
    page.slide('[data-bssid="02:00:00:00:30:04"] input[type="range"]', 8)
    page.until_text("#air-answer", "is received with")
    page.until(lambda: page.value("IPAddress") == '"192.168.1.50"', "the address")


def take(page: Page, path: Path, selector: str | None = None) -> None:
    """A picture of the window, or of an element."""
    page.driver.execute_script("document.activeElement.blur(); window.scrollTo(0, 0)")
    if selector is None:
        page.driver.save_screenshot(str(path))
    else:
        page.one(selector).screenshot(str(path))
    print(path, path.stat().st_size)


def main(folder: Path) -> None:
    """Make all of them."""
    build = Path(os.environ.get("VANTORA_BUILD_DIR", ROOT / "build/release"))
    folder.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as scratch, running(build, "--desk") as device:
        device.wait_up()
        with browser(Path(scratch) / "light", width=1440, height=1180) as driver:
            page = Page(driver, Path(scratch))
            page.open(device.link)
            tell_a_story(page.opened())
            take(page, folder / "desk.png")
            page.press("#pause")
            page.put("#search", "completed")
            page.one("#list").send_keys(Keys.HOME)
            page.put("#search", "")
            take(page, folder / "desk-time-line.png", "#timeline")
        with browser(Path(scratch) / "dark", width=1440, height=1180, dark=True) as driver:
            page = Page(driver, Path(scratch))
            page.open(device.link)
            take(page.opened(), folder / "desk-dark.png")
        with browser(Path(scratch) / "narrow", width=360, height=800) as driver:
            page = Page(driver, Path(scratch))
            page.open(device.link)
            take(page.opened(), folder / "desk-narrow.png")


if __name__ == "__main__":
    main(Path(sys.argv[1]))
