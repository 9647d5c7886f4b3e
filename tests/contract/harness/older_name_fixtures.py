"""Fixtures of the tests of vantora-supplicant-names: a pytest plugin, since a second conftest.py would hide the first."""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

import pytest
from older_name import OlderName
from vantora_sim import World


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """The program serves root alone, and an ordinary user is not root to a bus."""
    if os.geteuid() != 0:
        here = Path(__file__).resolve().parents[1] / "supplicant_names"
        for item in items:
            if here in item.path.parents:
                item.add_marker(pytest.mark.skip(reason="needs root: only root's calls are handed on"))


@pytest.fixture
def names(world: World, build_dir: Path) -> Iterator[OlderName]:
    """A world with the program, not started yet."""
    older_name = OlderName(world, build_dir)
    yield older_name
    older_name.close()
