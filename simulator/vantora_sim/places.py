"""Where the simulated device finds its parts: beside each other in the source tree, or below one prefix once installed."""

from __future__ import annotations

from pathlib import Path

_PACKAGE = Path(__file__).resolve().parent
_ROOT = _PACKAGE.parents[1]
_IN_SOURCE_TREE = (_ROOT / "simulator/sandbox").is_dir()
_SHARE = _PACKAGE.parent

_COVERED = ("dev", "etc", "run", "tmp")
PROGRAMS = ("vantora-network", "vantora-settingsd", "vantora-sim-sandbox", "vantora-sim-tool")


def default_build() -> Path:
    """The folder with the programs of a world."""
    return _ROOT / "build/release" if _IN_SOURCE_TREE else _PACKAGE.parents[2] / "libexec/vantora-sim"


def worlds() -> Path:
    """The folder with the worlds that are shipped."""
    return _SHARE / "worlds"


def schema() -> Path:
    """The description of world files."""
    return _ROOT / "docs/world.schema.json" if _IN_SOURCE_TREE else _SHARE / "world.schema.json"


def hidden_programs(build: Path) -> list[Path]:
    """Folders outside of this one in which its programs really are, and which a sandbox covers with its own."""
    folders = {(build / name).resolve().parent for name in PROGRAMS} - {build.resolve()}
    return sorted(folder for folder in folders if folder.parts[1] in _COVERED)


def missing(build: Path) -> list[str]:
    """Programs of a world that this folder does not hold."""
    return [name for name in PROGRAMS if not (build / name).exists()]
