"""Where the simulated device finds its parts: beside each other in the source tree, or below one prefix once installed."""

from __future__ import annotations

from pathlib import Path

_PACKAGE = Path(__file__).resolve().parent
_ROOT = _PACKAGE.parents[1]
_IN_SOURCE_TREE = (_ROOT / "simulator/sandbox").is_dir()
_SHARE = _PACKAGE.parent

_COVERED = ("dev", "etc", "run", "tmp")
_NEEDED = tuple(
    Path(path)
    for path in (
        "/proc/self/ns",
        *(f"/dev/{name}" for name in ("null", "zero", "full", "random", "urandom", "tty")),
        "/usr/bin/dbus-daemon",
        "/usr/share/dbus-1/session.conf",
        "/usr/bin/nsenter",
        "/usr/bin/setpriv",
        "/usr/sbin/ip",
    )
)
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


def dbus_api_page() -> Path:
    """What the daemon's D-Bus interface means, for people."""
    return _ROOT / "docs/dbus-api.md" if _IN_SOURCE_TREE else _SHARE / "dbus-api.md"


def hidden_programs(build: Path) -> list[Path]:
    """Folders outside of this one in which its programs really are, and which a sandbox covers with its own."""
    folders = {(build / name).resolve().parent for name in PROGRAMS} - {build.resolve()}
    return sorted(folder for folder in folders if folder.parts[1] in _COVERED)


def lacking() -> list[str]:
    """What of the system a world needs and does not find, as a chroot with nothing mounted in it has not got it all."""
    return [str(path) for path in _NEEDED if not path.exists()]


def missing(build: Path) -> list[str]:
    """Programs of a world that this folder does not hold."""
    return [name for name in PROGRAMS if not (build / name).exists()]
