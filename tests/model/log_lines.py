"""Lines of priority err that need no fault: why a request was refused, and what a neighbour did that may be complained of."""

from __future__ import annotations

import re
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from .stage import Stage

REQUESTS = (
    r"\[Main\] set_wifi_\w+: (Unsupported state|already |Unknown mode|Invalid WiFi|This device do not|Cannot change mode|"
    r"Failed, Wifi is not|SSID is too long)|\[Main\] get_wifi_access_points: Wifi is not enabled"
)
"""What a request asked for is not done, or is done already."""
FAREWELLS = r"wifi_host_terminated: "
COUNTING = r"wpa_socket_cmd: |hostapd_get_num_connected_clients: |\[Main\] Reading 'WiFiFrequency'|ListenTask: "
"""hostapd is asked while it is on its way out or in."""
METHODS = r"\[WPA\] |\[Main\] (connect_to_ap|disconnect_from_ap|scan_access_points): |\[Main\]  Something went wrong"
"""There is no wpa_supplicant in Host mode, and it may have nothing to leave."""
SETTINGS = r".* Settingsd::|Failed to read initial wifi configuration"
"""A listener that was just asking for the mode."""
BY_COMPLAINT = {
    "a method": METHODS,
    "settings": SETTINGS,
    "hostapd": COUNTING,
    "hostapd killed": COUNTING,
    "wpa_supplicant restarted": METHODS,
    "another daemon": r"\[Main\] Failed to connect to dbus: -\d+, exiting",
    "a passphrase refused": r"Failed to connect to AP|\[WPA\] ",
}


def unexpected(stage: Stage) -> list[str]:
    """The lines since the last quiet that nothing explains."""
    history = stage.history
    patterns = [REQUESTS, FAREWELLS] + [BY_COMPLAINT[what] for what in history.complaints if what in BY_COMPLAINT]
    if history.gap:
        patterns.append(COUNTING)
    explained = re.compile("|".join(patterns))
    if history.remedied:
        return []
    return [
        text
        for priority, text in stage.world.journal.logs(history.logs_since, ident="vantora-network")
        if priority == "err" and not explained.match(text)
    ]
