"""When a test that never ends is given up."""

from __future__ import annotations

from collections.abc import Iterable

import pytest


def give_time_out(items: Iterable[pytest.Item], seconds: float) -> None:
    """Give each test these seconds, unless it has a time-out of its own."""
    for item in items:
        if item.get_closest_marker("timeout") is None:
            item.add_marker(pytest.mark.timeout(seconds))
