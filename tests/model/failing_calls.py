"""Calls on files that fail in a daemon when a run says so: the outside of failing_calls/failing_calls.cpp."""

from __future__ import annotations

import mmap
import struct
from pathlib import Path

_LAYOUT = struct.Struct("=IIII16s96s")


class FailingCalls:
    """The order for one program. It holds from one start of the program to the next."""

    def __init__(self, file: Path, inside: str) -> None:
        file.write_bytes(bytes(mmap.PAGESIZE))
        self.environment = {"FAILING_CALLS": inside}
        with open(file, "r+b") as opened:
            self._shared = mmap.mmap(opened.fileno(), mmap.PAGESIZE)

    def order(self, call: str, path: str, error: int, *, skip: int = 0, times: int = 1) -> None:
        """Let `call` ("open", "read", "write", "fsync", "rename", "unlink") fail on files whose path has `path` in it, so many
        times, but pass so many times before."""
        self._shared[: _LAYOUT.size] = _LAYOUT.pack(0, skip, error, 0, call.encode(), path.encode())
        self._shared[:4] = struct.pack("=I", times)

    def clear(self) -> None:
        """Let no further call fail."""
        self._shared[:4] = bytes(4)

    @property
    def failed(self) -> int:
        """How many calls have failed by the last order."""
        count: int = struct.unpack_from("=I", self._shared, 12)[0]
        return count
