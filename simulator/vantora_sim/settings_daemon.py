"""The real settings daemon as a part of the device: started, asked, and given what a new device has stored."""

from __future__ import annotations

import time
from pathlib import Path
from typing import Any

from dbus_next import Variant

from . import settings
from .dbus_fake import PROPERTIES, plain
from .journal import DEADLINE
from .sandbox import Process
from .settings import as_variant
from .world import World


class SettingsDaemon:
    """The program and what it keeps. Not for the loop's thread."""

    def __init__(self, world: World, state: Path | None) -> None:
        """`state` is the folder in which it keeps the settings; None for one that ends with the world."""
        self._world = world
        self._state = state
        self.process: Process | None = None

    def start(self) -> None:
        """Start it and wait until it serves."""
        folder = self._state or Path("/run/sim/state")
        self.process = self._world.sandbox.start([self._world.build / "vantora-settingsd", "--state", folder / "settings.json"])
        deadline = time.monotonic() + DEADLINE
        while not self._world.name_owned(settings.SERVICE):
            if not self.process.running or time.monotonic() > deadline:
                raise RuntimeError(f"the settings daemon does not come up: {self.process.stderr.strip()}")
            time.sleep(0.01)

    def store_initial(self, values: dict[str, dict[str, Any]]) -> None:
        """Store settings by section, unless a folder was given in which there are some already."""
        if self._state is not None and (self._state / "settings.json").exists():
            return
        for section, stored in values.items():
            for key, value in stored.items():
                self.change(section, key, value)

    def change(self, section: str, key: str, value: Any) -> None:
        """Change a setting as another program of the device does; a refusal raises CallRefused."""
        number = isinstance(value, int) and not isinstance(value, bool)
        self._ask(section, "Set", "ssv", key, Variant("i", value) if number else as_variant(value))

    def read(self, section: str, key: str) -> Any:
        """A stored setting; a refusal raises CallRefused."""
        return plain(self._ask(section, "Get", "ss", key)[0])

    def _ask(self, section: str, member: str, signature: str, *args: Any) -> list[Any]:
        return self._world.call_service_async(
            settings.SERVICE, f"{settings.BASE_PATH}/{section}", PROPERTIES, member, signature, [settings.SERVICE, *args]
        ).result(60)
