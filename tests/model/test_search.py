"""A few hundred random steps: the short form of ./scripts/chaos. The same steps each time, so that what it shows is new."""

from __future__ import annotations

from pathlib import Path

import pytest
from model.search import Search, report

STEPS = 80


@pytest.mark.timeout(900)
@pytest.mark.parametrize("seed", range(1, 5))
def test_random_steps_leave_the_device_as_the_model_says(build_dir: Path, seed: int) -> None:
    search = Search(build_dir, seed)
    search.search(steps=STEPS, findings=1)
    assert search.found == [], "\n".join(map(report, search.found))
    assert search.steps >= STEPS
