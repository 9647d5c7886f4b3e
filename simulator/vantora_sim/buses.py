"""The two message buses of a world: real dbus-daemons outside the sandbox, their sockets inside it.

They stand outside so that they judge every client by its true user id, also when the sandbox has a user namespace.
"""

from __future__ import annotations

import signal
import subprocess
from pathlib import Path

SESSION_CONFIGURATION = Path("/usr/share/dbus-1/session.conf")

_SYSTEM_CONFIGURATION = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>{address}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*" eavesdrop="true"/>
  </policy>
</busconfig>
"""


class Bus:
    """One running dbus-daemon."""

    def __init__(self, name: str, socket: Path, configuration: Path, home: Path) -> None:
        self.name = name
        self.socket = socket
        self.address = f"unix:path={socket}"
        self._command = [
            "/usr/bin/setpriv",
            "--pdeathsig",
            "KILL",
            "/usr/bin/dbus-daemon",
            f"--config-file={configuration}",
            f"--address={self.address}",
            "--nofork",
            "--nopidfile",
            "--nosyslog",
            "--print-address",
        ]
        # Nothing of the host's is to be started by a message.
        self._environment = {
            "PATH": "/usr/bin:/bin",
            "HOME": str(home),
            "XDG_DATA_HOME": str(home),
            "XDG_DATA_DIRS": str(home),
            "XDG_RUNTIME_DIR": str(home),
        }
        self._complaints = home / f"{name}-bus.err"
        self._daemon: subprocess.Popen[bytes] | None = None

    def start(self) -> None:
        """Start it without waiting. Start it from a thread that lives as long as the process: it dies with that thread."""
        self.socket.parent.mkdir(parents=True, exist_ok=True)
        self.socket.unlink(missing_ok=True)
        with open(self._complaints, "ab") as complaints:
            self._daemon = subprocess.Popen(
                self._command,
                env=self._environment,
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=complaints,
                process_group=0,
            )

    def wait_ready(self) -> None:
        """Wait until clients can connect."""
        assert self._daemon and self._daemon.stdout
        if not self._daemon.stdout.readline():
            raise RuntimeError(f"the {self.name} bus did not start: {self._complaints.read_text()}")

    def stop(self) -> None:
        """Kill it: every client's connection breaks."""
        if self._daemon is not None:
            assert self._daemon.stdout
            self._daemon.kill()
            self._daemon.wait()
            self._daemon.stdout.close()
            self._daemon = None
        self.socket.unlink(missing_ok=True)

    def freeze(self) -> None:
        """Make it take connections and messages without ever answering, until `thaw()`."""
        assert self._daemon
        self._daemon.send_signal(signal.SIGSTOP)

    def thaw(self) -> None:
        """Let it go on."""
        assert self._daemon
        self._daemon.send_signal(signal.SIGCONT)


def user_bus(run: Path, home: Path) -> Bus:
    """A user bus with the policy that a session bus really has."""
    return Bus("user", run / "user/0/bus", SESSION_CONFIGURATION, home)


def system_bus(run: Path, home: Path) -> Bus:
    """A system bus on which everything is allowed: who may do what there is not this project's business."""
    configuration = home / "system-bus.conf"
    socket = run / "dbus/system_bus_socket"
    configuration.write_text(_SYSTEM_CONFIGURATION.format(address=f"unix:path={socket}"))
    return Bus("system", socket, configuration, home)
