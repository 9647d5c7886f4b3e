"""Waiting for what no journal shows."""

from __future__ import annotations

import time
from collections.abc import Callable
from typing import Any

from vantora_sim import DEADLINE


def wait_until(condition: Callable[[], Any], what: Callable[[], str] | str) -> Any:
    """Look again and again until the condition yields something true, which is returned."""
    deadline = time.monotonic() + DEADLINE
    while not (found := condition()):
        assert time.monotonic() < deadline, f"waited in vain for {what if isinstance(what, str) else what()}"
        time.sleep(0.01)
    return found
