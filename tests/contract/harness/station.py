"""What the tests of the device as a station share: bringing it up as one, its neighbours' names, and the lines it always writes."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from vantora_sim import CallRefused, Pattern, Variant, World, call, changed, command, log, unit_path

STATION = "/fi/w1/wpa_supplicant1/Interfaces/1"
INTERFACE = "fi.w1.wpa_supplicant1.Interface"
BSS = "fi.w1.wpa_supplicant1.BSS"
CALLED_NAME = "fi.epitest.hostap.WPASupplicant"
"""The name that methods are called under."""
SIGNAL_NAME = "fi.w1.wpa_supplicant1"
"""The name that signals come from."""

STATION_UNIT = unit_path("wpa_supplicant-nl80211@wlan0.service")
DHCP_CLIENT_UNIT = unit_path("udhcpc@wlan0.service")

FAILED = "org.freedesktop.DBus.Error.Failed"

FLUSH_LOGS = [
    ("info", "[Utils] Flush IP addr of wlan0"),
    ("info", 'utils_do_system_call: trying "ip addr flush dev wlan0"...'),
    ("info", "utils_flush_ip: wlan0 ip address deleted successfully"),
]
FLUSH_FAILED_LOGS = [
    ("info", "[Utils] Flush IP addr of wlan0"),
    ("info", 'utils_do_system_call: trying "ip addr flush dev wlan0"...'),
    *[
        ("err", "utils_do_system_call: system call failed: 256"),
        ("err", 'utils_do_system_call: retrying "ip addr flush dev wlan0"...'),
    ]
    * 3,
    ("err", "utils_flush_ip: Unable to flush wlan0 address, error: 256"),
    ("warning", "[Main] Failed to flush IP, interface might have inavlid IP"),
]

DHCP_RESTART_LOGS = [
    ("info", "[WPA Supplicant] Restarting udhcpc"),
    ("info", "Re-Starting UDHCP client service"),
    ("info", f"[Utils] Got unit name '{DHCP_CLIENT_UNIT}' for the service 'udhcpc@wlan0.service'"),
]
"""The beginning of a restart of the DHCP client; what follows holds the number of the job."""


def bring_up_station(world: World) -> None:
    """Start the daemon on a device whose stored mode is "Client"; return when it is up and knows the state of wpa_supplicant."""
    world.settings.set("network", "mode", "Client")
    world.up()
    wait_first_state(world)


def bring_up_scanning(world: World) -> None:
    """As bring_up_station(), and wpa_supplicant has reported "scanning" since, so that "disconnected" is news."""
    bring_up_station(world)
    world.wpa.report_state("scanning")
    wait_logged(world, *state_log("disconnected", "scanning"), 0)
    world.settle()


def wait_first_state(world: World, since: int = 0) -> None:
    """Wait until the daemon has dealt with what a wpa_supplicant reports that has just started."""
    world.journal.wait_for(changed("WiFiClientState", "disconnected"), since)
    world.settle()


def network(number: int) -> str:
    """The object path of the network that the fake wpa_supplicant adds at this place."""
    return f"{STATION}/Networks/{number}"


def station_call(member: str, *args: Any) -> Pattern:
    """A method call of the station's interface object, with every name it must carry."""
    return call(member, bus="system", destination=CALLED_NAME, path=STATION, interface=INTERFACE, args=list(args))


def add_network_call(ssid: str, passphrase: str) -> Pattern:
    """AddNetwork with exactly these entries, in this order."""
    entries = [("ssid", Variant("s", ssid)), ("key_mgmt", Variant("s", "WPA-PSK")), ("psk", Variant("s", passphrase))]
    if not passphrase:
        entries = [("ssid", Variant("s", ssid)), ("key_mgmt", Variant("s", "NONE"))]
    return call(
        "AddNetwork",
        bus="system",
        destination=CALLED_NAME,
        path=STATION,
        interface=INTERFACE,
        signature="a{sv}",
        args=lambda args: len(args) == 1 and list(args[0].items()) == entries,
    )


def radio_checks() -> list[Pattern]:
    """How power and mode are read, in this order."""
    return [command("rfkill list wlan"), command("iw dev wlan0 info")]


def refusal(act: Callable[[], Any]) -> tuple[str, str]:
    """Name and text of the error that the call is answered with."""
    try:
        act()
    except CallRefused as refused:
        return refused.name, refused.text
    raise AssertionError("the call was answered with success")


def state_log(old: str, new: str) -> tuple[str, str]:
    """The line about a reported state."""
    return "info", f"[WPA Supplicant] State change: '{old}' -> '{new}'"


def emitting_log(state: str, ssid: str = "") -> tuple[str, str]:
    """The line before a state is handed on."""
    return "info", f"StateChangeHandler: Emitting state change: state = {state} ssid = {ssid}"


def wait_logged(world: World, priority: str, text: str, since: int) -> None:
    """Wait for one line of the log."""
    world.journal.wait_for(log(priority, text), since)
