"""A /bin/sh in the sandbox that writes down what it is started with, and texts that a careless shell would run."""

from __future__ import annotations

import shutil
from pathlib import Path

from vantora_sim import World

CANARY = "/tmp/c"
"""Comes into being when one of the texts is run."""

HOSTILE = [
    f"$(touch {CANARY})",
    f"`touch {CANARY}`",
    f"';touch {CANARY};'",
    f'";touch {CANARY};"',
    f"|touch {CANARY}",
    f"&&touch {CANARY} #",
    f"\ntouch {CANARY}\n",
    f">{CANARY}",
    f"../../..{CANARY}",
    "-e%s%n%x%99999d\\",
    "caf\u00e9'\"$IFS",
]
"""Texts of at most 32 bytes, the length of an SSID."""

_SHELL = """\
#!/run/sim/dash
printf '%s\\0' "$#" "$@" >>/run/sim/shell-commands
exec /run/sim/dash "$@"
"""


class RecordedShell:
    """Takes the place of the sandbox's /bin/sh for whoever starts one from now on."""

    def __init__(self, world: World) -> None:
        self._world = world
        self._folder = world.work / "run/sim"
        shutil.copy(Path("/bin/sh").resolve(), self._folder / "dash")
        script = self._folder / "sh"
        script.write_text(_SHELL)
        script.chmod(0o755)
        mounted = world.sandbox.run(["/bin/mount", "--bind", "/run/sim/sh", "/bin/sh"])
        assert mounted.status == 0, mounted.stderr

    @property
    def runs(self) -> list[list[str]]:
        """The arguments of each shell that was started, in order."""
        words = (self._folder / "shell-commands").read_text().split("\0")[:-1]
        runs: list[list[str]] = []
        while words:
            end = int(words[0]) + 1
            runs.append(words[1:end])
            words = words[end:]
        return runs

    @property
    def command_lines(self) -> list[str]:
        """What the shell was asked to run, in order, but for egrep, which is itself a script with fixed arguments."""
        asked = [run for run in self.runs if run[1:] != ["txpower"] or not run[0].endswith("/egrep")]
        assert all(run[:1] == ["-c"] and len(run) == 2 for run in asked), asked
        return [run[1] for run in asked]

    @property
    def canary_lives(self) -> bool:
        """Whether one of the hostile texts has been run."""
        return (self._world.work / f"tmp{CANARY.removeprefix('/tmp')}").exists()
