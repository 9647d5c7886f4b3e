"""Fixtures of all tests that start the daemon: a private world for each test, taken down and checked afterwards.

A pytest plugin: a folder of tests takes it in with `pytest_plugins = ["world_fixtures"]` in its conftest.py, which puts this
folder and the simulator's on sys.path.
"""

from __future__ import annotations

import os
import sys
from collections.abc import Callable, Generator, Iterator
from contextlib import ExitStack
from pathlib import Path
from typing import Any

import pytest
from time_outs import give_time_out
from vantora_sim import World

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [path for path in (str(ROOT / "tests"),) if path not in sys.path]

from model.stage import Stage  # noqa: E402  (found through the line above)

TIME_OUT = 120
"""Seconds after which a single test is given up: only a fault gets there, every wait has its own, shorter deadline."""


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption(
        "--build-dir",
        default=os.environ.get("VANTORA_BUILD_DIR", str(ROOT / "build/release")),
        help="folder with the executables (default: $VANTORA_BUILD_DIR, else build/release)",
    )


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    give_time_out(items, TIME_OUT)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Generator[None, Any, None]:
    """Show each world's journal and the daemon's output beside a failure."""
    outcome = yield
    report = outcome.get_result()
    if not report.failed:
        return
    for number, world in enumerate(getattr(item, "worlds", [])):
        report.sections.append((f"journal of world {number}", world.journal.dump(last=400)))
        if world.daemon is not None and world.work.exists():
            report.sections.append((f"standard error of the daemon in world {number}", world.daemon.stderr))


@pytest.fixture(scope="session")
def build_dir(request: pytest.FixtureRequest) -> Path:
    """The folder with the executables."""
    folder = Path(request.config.getoption("--build-dir")).resolve()
    if not (folder / "vantora-sim-sandbox").exists():
        pytest.exit(f"{folder} holds no build of the project; give --build-dir or set VANTORA_BUILD_DIR", 2)
    return folder


@pytest.fixture
def make_world(build_dir: Path, request: pytest.FixtureRequest) -> Iterator[Callable[..., World]]:
    """Makes worlds: `make_world(device={"radio_type": "0"})`. Each is up when it is returned.

    After the test, a daemon that still runs is asked to end and must do so with status 0, and no sanitizer may have reported
    anything. A test in which the daemon is meant to end otherwise waits for that end itself.
    """
    worlds: list[World] = []
    request.node.worlds = worlds

    def make(**arguments: Any) -> World:
        world = World(build_dir, **arguments)
        worlds.append(world)
        return open_worlds.enter_context(world)

    with ExitStack() as open_worlds:
        yield make
        for world in worlds:
            _check_end(world)


def _check_end(world: World) -> None:
    if world.daemon is not None and world.daemon.running:
        status = world.stop_daemon()
        assert status == 0, f"the daemon ended with status {status} when asked to\n{world.daemon.stderr}"
    assert world.sanitizer_reports() == ""


@pytest.fixture
def stage(build_dir: Path, request: pytest.FixtureRequest) -> Iterator[Stage]:
    """A device to which everything can be done, and that can be compared with the model: what the random search prints."""
    with Stage(build_dir) as made:
        request.node.worlds = [made.world]
        yield made


@pytest.fixture
def world(make_world: Callable[..., World]) -> World:
    """A world with the usual device; no daemon started yet."""
    return make_world()
