"""The page as a test handles it."""

from __future__ import annotations

import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

from running import PATIENCE
from selenium.common.exceptions import ElementNotInteractableException, StaleElementReferenceException
from selenium.webdriver import Chrome
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.remote.webelement import WebElement

DEADLINE = 90.0 * PATIENCE
"""Seconds; what is well never needs them, so a busy machine may."""


class Page:
    """One tab."""

    def __init__(self, driver: Chrome, downloads: Path) -> None:
        self.driver = driver
        self._downloads = downloads
        self.allowed: list[str] = []
        """What the browser may complain about in this test."""

    def open(self, address: str) -> None:
        """Go there."""
        self.driver.get(address)

    def opened(self) -> "Page":
        """Wait until it is live and shows the device."""
        self.until(
            lambda: self.text("#connection") == "live" and self.all("#properties td.value") and self.all("#networks li"),
            "the page",
        )
        return self

    def all(self, selector: str) -> list[WebElement]:
        """All elements of a selector."""
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector: str) -> WebElement:
        """The only element."""
        found = self.all(selector)
        assert len(found) == 1, f"{len(found)} elements are {selector}"
        return found[0]

    def text(self, selector: str) -> str:
        """Its text, also while it is out of sight."""
        return str(self.driver.execute_script("return document.querySelector(arguments[0])?.textContent ?? ''", selector))

    def until(self, condition: Callable[[], Any], what: str, timeout: float = DEADLINE) -> Any:
        """Wait until a condition yields something true."""
        deadline = time.monotonic() + timeout
        while True:
            try:
                found = condition()
            except (StaleElementReferenceException, ElementNotInteractableException):  # shown anew just now
                found = None
            if found:
                return found
            assert time.monotonic() < deadline, f"waited {timeout:g} s in vain for {what}\n{self.state()}"
            time.sleep(0.05)

    def state(self) -> str:
        """What the page shows, for complaints of tests."""
        return str(self.driver.execute_script("return document.body.innerText"))[:3000]

    def until_text(self, selector: str, wanted: str) -> None:
        """Wait until an element's text contains this."""
        self.until(lambda: wanted in self.text(selector), f"{wanted!r} in {selector}, which is {self.text(selector)!r}")

    def keep_texts(self, selector: str) -> Callable[[], list[str]]:
        """From now on keep each text that an element has; the function returns them."""
        keep = (
            "const one = document.querySelector(arguments[0]); const kept = (window.kept ??= {})[arguments[0]] = [one.textContent];"
            "new MutationObserver(() => kept.push(one.textContent)).observe(one, {childList: true, characterData: true, subtree: true})"
        )
        self.driver.execute_script(keep, selector)
        return lambda: list(self.driver.execute_script("return window.kept[arguments[0]]", selector))

    def press(self, selector: str) -> None:
        """Press a button, as a keyboard does, as soon as it can be."""

        def press_it() -> bool:
            # What is shown anew while it is handled is looked for again.
            button = self.one(selector)
            if not button.is_enabled():
                return False
            self.driver.execute_script("arguments[0].scrollIntoView({block: 'center'})", button)
            button.send_keys(Keys.ENTER)
            return True

        self.until(press_it, f"{selector} to be enabled")

    def put(self, selector: str, text: str) -> None:
        """Type into a field what shall stand there."""
        field = self.one(selector)
        field.clear()
        field.send_keys(text)
        if not text:  # clearing alone tells the page only when the field is left
            self.driver.execute_script("arguments[0].dispatchEvent(new Event('input'))", field)

    def value(self, name: str) -> str:
        """What a property of the device is shown as."""
        return self.text(f'[data-property="{name}"]')

    def write(self, name: str, text: str) -> None:
        """Write a property with its form."""
        self.until(lambda: self.one(f'[aria-label="new value of {name}"]').is_enabled(), "the form")
        self.put(f'[aria-label="new value of {name}"]', text)
        self.press(f'[aria-label="write {name}"]')

    def ask_for_home(self) -> None:
        """Make the device a station, and have it join the first network of the world "home"."""
        self.write("Mode", "Client")
        self.until(lambda: self.value("Mode") == '"Client"', "the mode")
        self.until(lambda: self.one('[data-daemon="wpa_supplicant"]').get_attribute("data-how") == "running", "wpa_supplicant")
        names = self.all(".method input")
        names[0].send_keys("Casa Marisol")
        names[1].send_keys("quiet-harbour-42", Keys.ENTER)

    def titles(self) -> list[str]:
        """The entries of the list that exist as rows."""
        script = "return [...document.querySelectorAll('#list .entry:not([hidden]) .title')].map((one) => one.textContent)"
        return list(self.driver.execute_script(script))

    def entries(self, text: str) -> list[str]:
        """The titles of all entries that a search for this text leaves, from the first on."""
        self.put("#search", text)
        if self.one("#pause").get_attribute("aria-pressed") != "true":
            self.press("#pause")
        self.press("#fit")
        self.driver.execute_script("document.getElementById('list').scrollTop = 0")
        return self.titles()

    def slide(self, selector: str, steps: int) -> None:
        """Move a slider by so many steps of the arrow keys."""
        self.one(selector).send_keys((Keys.ARROW_RIGHT if steps > 0 else Keys.ARROW_LEFT) * abs(steps))

    def downloaded(self, suffix: str) -> Path:
        """The file that the browser has saved."""

        def look() -> Path | None:
            found = [path for path in self._downloads.glob(f"*{suffix}") if path.stat().st_size]
            return found[0] if found else None

        return Path(self.until(look, f"a file *{suffix}"))

    def complaints(self) -> list[str]:
        """What the browser has to say against the page: errors of scripts, refusals of the content policy."""
        found = [str(line["message"]) for line in self.driver.get_log("browser") if line["level"] in ("SEVERE", "WARNING")]
        return [line for line in found if not any(allowed in line for allowed in self.allowed)]
