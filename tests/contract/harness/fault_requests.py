"""Requests that the tests of faults make, with what comes of each when all is well.

They are asked in a world that stands still: units start and stop without taking anything along, no address reaches the
kernel, and what `iw` says changes only when a test says so. So each can be asked again and again, and nothing else is logged.
"""

from __future__ import annotations

from access_point import SEPARATOR, USUAL, configuration, dump_logs, heading, override_logs
from faults import Line, Request
from station import FLUSH_LOGS, network
from unit_control import DHCP_CLIENT, DHCP_SERVER, loaded_log, queued_log
from vantora_sim import World

HOSTAPD = "hostapd.service"
STATION = "wpa_supplicant-nl80211@wlan0.service"


def still_station(world: World) -> None:
    """A world for a daemon whose stored mode is "Client", with wpa_supplicant there and joined to a network."""
    world.follow_units = False
    world.tools.ip.output("")
    world.settings.set("network", "mode", "Client")
    world.wpa.come_back()
    world.wpa.state = "completed"
    world.radio.station_running, world.radio.station_ssid = True, b"cafe"


def still_access_point(world: World) -> None:
    """A world in which the daemon finds hostapd up, with one station."""
    world.follow_units = False
    world.tools.ip.output("")
    world.radio.interface_type = "AP"
    world.hostapd.start()
    world.hostapd.stations.append("02:00:00:00:30:01")


# Units


def stopped(line: str, unit: str, *more: Line) -> list[Line]:
    return [("info", line), loaded_log(unit), queued_log("Stop", unit, 0), *more]


STOP_HOST = [
    *heading("[WiFi] Stop Host mode"),
    *stopped("Stoping UDHCP daemon service", DHCP_SERVER),
    *stopped("Stopping Hostapd daemon service", HOSTAPD, SEPARATOR),
]
STOP_CLIENT = [
    *heading("[WiFi] Stop Client mode"),
    *stopped("Stoping UDHCP client service", DHCP_CLIENT),
    *stopped("Stoping WPA Supplicant daemon service", STATION, SEPARATOR),
]
START_CLIENT = [
    *heading("[WiFi] Start Client mode"),
    ("info", "Starting WPA Supplicant daemon service"),
    loaded_log(STATION),
    queued_log("Start", STATION, 0),
    *FLUSH_LOGS,
    SEPARATOR,
]
CHANGE_MODE = ("info", "[Main] 'ChangeMode' d-bus method called")
TO_CLIENT, TO_HOST = ("info", "[WiFi] Switch wifi mode to 1"), ("info", "[WiFi] Switch wifi mode to 0")


def set_mode(mode: str, interface_type: str) -> Request:
    """A write of `Mode` to an interface of another type, which stays as it was."""

    def ask(world: World) -> None:
        before, world.radio.interface_type = world.radio.interface_type, interface_type
        try:
            world.set("Mode", mode)
        finally:
            world.radio.interface_type = before

    logs = {
        "Client": [CHANGE_MODE, TO_CLIENT, *STOP_HOST, *START_CLIENT],
        "Host": [CHANGE_MODE, TO_HOST, *STOP_CLIENT, *START_HOST],
    }
    return Request(f'`Mode` = "{mode}"', ask, logs=logs[mode])


ADD_LOGS = [
    ("info", "[Utils] Add IP addr of wlan0: 192.168.8.1/24"),
    ("info", 'utils_do_system_call: trying "ip addr add 192.168.8.1/24 dev wlan0"...'),
    ("info", "utils_add_ip: wlan0 ip address added successfully"),
]
START_SERVERS = [
    ("info", "Starting Hostapd daemon service"),
    *override_logs(),
    *dump_logs(configuration(USUAL)),
    loaded_log(HOSTAPD),
    queued_log("Start", HOSTAPD, 0),
    ("info", "Starting UDHCP daemon service"),
    loaded_log(DHCP_SERVER),
    queued_log("Start", DHCP_SERVER, 0),
    SEPARATOR,
]
START_HOST = [*heading("[WiFi] Start Host mode"), *FLUSH_LOGS, *ADD_LOGS, *START_SERVERS]

TO_CLIENT_MODE = set_mode("Client", "AP")
TO_HOST_MODE = set_mode("Host", "managed")


# Power

READ_SETTINGS = ("info", "Read settings from Settings Daemon")
BLOCK = [("info", "[WiFi] Enable wifi: False"), ("info", 'utils_do_system_call: trying "rfkill block wlan"...')]


def power_off(world: World) -> None:
    """Switch the radio off, which stops the stored mode, or that of the safe configuration."""
    world.radio.soft_blocked = False
    world.settings.set("network", "mode", "Client")
    world.set("WiFiState", 0)


POWER_OFF = Request("`WiFiState` = 0", power_off, logs=[READ_SETTINGS, *BLOCK, *STOP_CLIENT])


# The station


def method(world: World, member: str, signature: str = "", args: list[str] | None = None) -> None:
    """Call a method, whose answer carries nothing."""
    assert world.call(member, signature, args) == []


SCAN = Request("`Scan`", lambda world: method(world, "Scan"), logs=[("info", "[WPA] Scan APs")])

CONNECT_OPENING = [("info", "[Main] Connect to the AP"), ("info", "[Main] Flush IP address"), *FLUSH_LOGS]
ADD_NETWORK = [("info", "[Main] Add new network"), ("info", "[WPA] Add network 'cafe', passphrase 'secret12'")]
NETWORK_ADDED = ("info", f"[WPA] Network object added '{network(0)}'")
SELECT = ("info", "[Main] Select just added network")


def select(path: str) -> list[Line]:
    return [SELECT, ("info", f"[WPA] Select network:{path}")]


CONNECT = Request(
    "`Connect`",
    lambda world: method(world, "Connect", "ss", ["cafe", "secret12"]),
    logs=[*CONNECT_OPENING, *ADD_NETWORK, NETWORK_ADDED, *select(network(0))],
)

DISCONNECT_CALLED = ("info", "[Main] Disconnect from AP called")
DISCONNECT = Request(
    "`Disconnect`",
    lambda world: method(world, "Disconnect"),
    logs=[
        DISCONNECT_CALLED,
        *FLUSH_LOGS,
        ("info", "utils_get_ip_address: addr_found: 0"),
        ("warning", "[Main] Interface does not have IP address"),
    ],
)

GET_ACCESS_POINTS = ("info", "[WPA] Get access points")
ACCESS_POINTS = Request(
    "read `AccessPoints`", lambda world: world.get("AccessPoints"), '[["cafe", 1, -50, true]]', [GET_ACCESS_POINTS]
)

NOT_CONNECTED = 'org.freedesktop.DBus.Error.Failed "Failed to connect to AP"'
REFUSED = 'org.freedesktop.DBus.Error.AccessDenied "Operation not permitted"'


# The access point

CLIENTS_READ = ("info", "Get 'WiFiConnectedClients' property")
CLIENTS = Request("read `WiFiConnectedClients`", lambda world: world.get("WiFiConnectedClients"), "1", [CLIENTS_READ])


# Reads that ask a tool

CLIENT_SSID = Request(
    "read `ClientSSID`", lambda world: world.get("ClientSSID"), '"cafe"', [("info", "Get 'WiFiClientSSID' property")]
)


def read_power(world: World) -> int:
    """Read the power of a radio that is on."""
    world.radio.soft_blocked = False
    power: int = world.get("WiFiState")
    return power


READ_POWER = Request("read `WiFiState`", read_power, "1")
READ_MODE = Request("read `Mode`", lambda world: world.get("Mode"), '"Client"')
READ_SIGNAL = Request("read `WiFiSignal`", lambda world: world.get("WiFiSignal"), '"txpower 20.00 dB"')
