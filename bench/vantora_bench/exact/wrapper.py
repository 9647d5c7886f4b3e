"""A program of a world that is run under a tool of measurement."""

from __future__ import annotations

from pathlib import Path

from vantora_sim import World


def script_for(world: World, kind: str, program: Path, tool: str, before: str = "") -> Path:
    """A script, as seen in the sandbox, that is the program under the tool; `before` is a line of shell.

    Programs of several kinds of measurement stand side by side.
    """
    script = world.work / "run/sim/bin" / f"{kind}-{program.name}"
    script.write_text(f'#!/bin/sh\n{before}\nexec {tool} {program} "$@"\n')
    script.chmod(0o755)
    return Path("/run/sim/bin") / script.name
