"""Under load nothing grows and nothing is lost: the short form of ./scripts/soak."""

from __future__ import annotations

import sys
from collections.abc import Callable
from pathlib import Path

from conftest import ROOT
from vantora_sim import World

sys.path.insert(0, str(ROOT / "tests"))

import soak  # noqa: E402  (found through the line above)


def test_twenty_clients_at_once_are_all_answered_and_nothing_grows(make_world: Callable[..., World], build_dir: Path) -> None:
    sanitized = any(name in (build_dir / "vantora-network").read_bytes() for name in (b"__asan_init", b"__tsan_init"))
    plan = soak.Plan(requests=2000, events=200, clients=20, samples=10, turns=3, judges_memory=not sanitized)
    outcome = soak.run(make_world(lasting=True), build_dir / "tests/soak/load-client", plan)
    assert outcome.faults() == []
    assert (outcome.events["mode switch"], outcome.events["radio off and on"]) == (2, 1)
    # A station's event is missed only while the access point is restarted.
    assert outcome.announced["WiFiConnectedClients"] >= 0.9 * outcome.events["station"]
