"""How long anything may take. Emulated, on a busy machine, everything can be ten times slower than on a quiet one."""

from __future__ import annotations

import os
import time

SCALE = float(os.environ.get("VANTORA_DEVICE_PATIENCE", "1"))
BOOT = 480 * SCALE
COMMAND = 120 * SCALE
EVENT = 120 * SCALE


class Deadline:
    """A point in time that waits are measured against."""

    def __init__(self, seconds: float) -> None:
        self.seconds = seconds
        self._end = time.monotonic() + seconds

    @property
    def left(self) -> float:
        """Seconds that are left, never negative."""
        return max(0.0, self._end - time.monotonic())

    @property
    def over(self) -> bool:
        """Whether it has passed."""
        return self.left == 0
