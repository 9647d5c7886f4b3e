"""What the tests of the model share with other tests of the daemon."""

from __future__ import annotations

import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/support"), str(ROOT / "simulator"), str(ROOT / "tests")]

pytest_plugins = ["world_fixtures"]
