"""The size of the daemon on a 32-bit ARM device."""

from __future__ import annotations

import subprocess
import tempfile
from pathlib import Path

from .report import Row, Section

_GOAL = 250
_DAEMON = "usr/sbin/vantora-network"


def armhf_size(packages: Path) -> Section:
    """The daemon as the armhf package brings it, stripped; built by ./scripts/package armhf."""
    title, goal = "8. Size, armhf", f"{_GOAL} KiB"
    found = sorted(packages.glob("vantora-network_*_armhf.deb"), key=lambda path: path.stat().st_mtime)
    if not found:
        return Section(
            title, [Row("stripped daemon", "", "", "", goal, None)], ["not built here: ./scripts/package armhf does that"]
        )
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["dpkg-deb", "--extract", found[-1], folder], check=True)
        image = (Path(folder) / _DAEMON).read_bytes()
    size = len(image) / 1024
    stripped = b".symtab" not in image
    return Section(
        title,
        [Row("stripped daemon", f"{size:.0f} KiB", "", "", goal, size <= _GOAL and stripped)],
        [f"{found[-1].name}, {'stripped' if stripped else 'not stripped'}"],
    )
