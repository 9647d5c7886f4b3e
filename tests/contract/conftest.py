"""Fixtures of the contract tests beside those that they share with other tests of the daemon (world_fixtures.py)."""

from __future__ import annotations

import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/contract/harness"), str(ROOT / "tests/support"), str(ROOT / "simulator")]

from wifi_client import PIPE, TERMINAL, Way  # noqa: E402  (finds what it needs through the line above)

pytest_plugins = ["world_fixtures", "older_name_fixtures", "simulated"]


@pytest.fixture(params=[PIPE, TERMINAL], ids=str)
def way(request: pytest.FixtureRequest) -> Way:
    """Runs a test of the command-line client twice: on pipes and on a terminal."""
    chosen: Way = request.param
    return chosen
