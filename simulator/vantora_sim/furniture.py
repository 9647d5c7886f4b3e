"""What an installed device has besides the daemon: files, and what systemd says of its units.

The daemon needs none of it in a world, so worlds have it only where somebody looks at the device as a whole.
"""

from __future__ import annotations

import os
from pathlib import Path

from . import unit_files
from .world import World

_STATION_FILE = "/etc/wpa_supplicant/wpa_supplicant-nl80211-wlan0.conf"
_WIRED_FILE = "/etc/korrin/udhcpd_eth0.service"
_ACTIVATED = {"com.vantora.Network1": unit_files.NETWORK, "com.vantora.common.Settings1": unit_files.SETTINGS}
_POLICY = """\
<busconfig>
  <policy user="root">
    <allow own="fi.epitest.hostap.WPASupplicant"/>
  </policy>
</busconfig>
"""


def furnish(world: World) -> None:
    """Give a world that is up all that there is on a device on which all is well."""
    world.systemd.described = unit_files.of_the_device()
    os.mkfifo(world.sandbox.path("/dev/rfkill"))
    if (template := world.sandbox.path("/etc/hostapd.conf")).exists():
        template.chmod(0o600)
    _write(world, _STATION_FILE, "ctrl_interface=/var/run/wpa_supplicant\n")
    _write(world, _WIRED_FILE, "[Service]\nExecStart=/bin/busybox udhcpd -f\n\n[Install]\nWantedBy=multi-user.target\n")
    for name, unit in _ACTIVATED.items():
        text = f"[D-BUS Service]\nName={name}\nExec=/bin/systemctl --no-block start {unit}\n"
        _write(world, f"/run/user/0/dbus-1/services/{name}.service", text)
    _write(world, "/etc/dbus-1/system.d/vantora-supplicant-names.conf", _POLICY)


def _write(world: World, inside: str, text: str) -> None:
    path: Path = world.sandbox.path(inside)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
