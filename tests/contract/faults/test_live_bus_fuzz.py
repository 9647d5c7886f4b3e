"""Two thousand calls of every member with arguments of every type: the short version of `scripts/fuzz --live`."""

from __future__ import annotations

import sys

import pytest
from conftest import ROOT
from vantora_sim import World

sys.path.insert(0, str(ROOT / "tests/fuzz"))

from live_bus import LiveBusFuzzer  # noqa: E402  (found through the line above)


@pytest.mark.timeout(300)
def test_random_calls_leave_the_daemon_as_its_settings_say(world: World) -> None:
    world.up()
    fuzzer = LiveBusFuzzer(world, seed=20_000)
    fuzzer.run(2_000)
    # All kinds of refusals were met, so the calls were not all of one kind.
    assert {error.rsplit(".", 1)[-1] for error in fuzzer.answers} >= {
        "reply",
        "none wanted",
        "InvalidArgs",
        "AccessDenied",
        "UnknownObject",
        "UnknownProperty",
        "UnknownMethod",
        "PropertyReadOnly",
        "Failed",
    }
