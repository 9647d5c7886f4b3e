"""Fixtures of the tests of the desk: a device with its page, and a browser that looks at it."""

from __future__ import annotations

import os
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/support"), str(ROOT / "simulator")]

from page import Page  # noqa: E402  (finds what it needs through the line above)
from running import Running, browser, running  # noqa: E402


@pytest.fixture(scope="session")
def build_dir() -> Path:
    """The folder with the executables."""
    return Path(os.environ.get("VANTORA_BUILD_DIR", ROOT / "build/release")).resolve()


@pytest.fixture
def start(build_dir: Path) -> Iterator[Callable[..., Running]]:
    """Starts a page with options of vantora-sim; everything ends with the test."""
    started: list[Running] = []

    def start_one(*options: str, desktop: dict[str, str] | None = None) -> Running:
        started.append(Running(build_dir, *options, desktop=desktop))
        return started[-1]

    yield start_one
    for one in started:
        one.end()


@pytest.fixture(scope="module")
def served(build_dir: Path) -> Iterator[Running]:
    """One device with its page for a whole module."""
    with running(build_dir, "--desk") as device:
        device.wait_up()
        yield device


@pytest.fixture
def look(tmp_path: Path) -> Iterator[Callable[..., Page]]:
    """Opens a running page in a new browser; at the end of the test the browser must have found nothing to complain about."""
    opened: list[Page] = []
    stack: list[Any] = []

    def open_page(device: Running, **options: object) -> Page:
        context = browser(tmp_path / f"browser{len(opened)}", **options)  # type: ignore[arg-type]
        driver = context.__enter__()
        stack.append(context)
        opened.append(Page(driver, tmp_path / f"browser{len(opened)}" / "downloads"))
        opened[-1].open(device.link)
        return opened[-1]

    yield open_page
    complaints = [complaint for page in opened for complaint in page.complaints()]
    for context in reversed(stack):
        context.__exit__(None, None, None)
    assert complaints == []
