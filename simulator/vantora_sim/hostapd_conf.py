"""hostapd's configuration file, as far as the simulated radio follows it."""

from __future__ import annotations

from pathlib import Path


def read_hostapd_conf(path: Path) -> dict[bytes, bytes]:
    """The values by key, the last one where a key comes twice; nothing when the file cannot be read."""
    try:
        lines = path.read_bytes().splitlines()
    except OSError:
        return {}
    return {key: value for key, mark, value in (line.partition(b"=") for line in lines) if mark and not key.startswith(b"#")}
