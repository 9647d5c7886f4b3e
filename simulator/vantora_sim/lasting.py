"""What lasts for a `with` block."""

from __future__ import annotations

from abc import ABC, abstractmethod
from types import TracebackType
from typing import Self


class Lasting(ABC):
    """Begins with a `with` block and is closed at its end; also where the beginning fails half-way."""

    def __enter__(self) -> Self:
        try:
            self._begin()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None) -> None:
        self.close()

    @abstractmethod
    def _begin(self) -> None:
        """All that has to be there before the block."""

    @abstractmethod
    def close(self) -> None:
        """End whatever has begun, however little that is."""
