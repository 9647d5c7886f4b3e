"""The daemon's object on the user bus as a test wants it: any value, any signal, any silence. For the client's tests only."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any

from dbus_next import Message, Variant
from vantora_sim import World
from vantora_sim.client import INTERFACE, PATH, SERVICE
from vantora_sim.dbus_fake import PROPERTIES, Call, CallRefused, DBusFake, connect, disconnect

STATION = {
    "WiFiState": Variant("u", 1),
    "Mode": Variant("s", "Client"),
    "SSID": Variant("s", ""),
    "WiFiFrequency": Variant("s", ""),
    "WiFiAvailableFrequencies": Variant("as", ["5", "2.4"]),
    "WiFiAccessPointInitialised": Variant("b", False),
    "WiFiConnectedClients": Variant("u", 0),
    "ClientSSID": Variant("s", ""),
    "WiFiClientState": Variant("s", "inactive"),
    "IPAddress": Variant("s", ""),
    "MacAddress": Variant("s", "02:00:00:00:10:01"),
    "WiFiSignal": Variant("s", "txpower 20.00 dB"),
    "AccessPoints": Variant("a(siib)", []),
}
"""The properties of a station that is not connected."""

ACCESS_POINT = {
    **STATION,
    "Mode": Variant("s", "Host"),
    "SSID": Variant("s", "Hallway"),
    "WiFiFrequency": Variant("s", "5"),
    "WiFiAccessPointInitialised": Variant("b", True),
    "WiFiConnectedClients": Variant("u", 2),
    "WiFiClientState": Variant("s", "off"),
    "IPAddress": Variant("s", "192.168.8.1"),
}
"""The properties of an access point on the air."""

SECURED, OPEN, OTHER = ["secured", 1, -50, True], ["free", 0, -60, False], ["office", 1, -70, False]
"""Networks in range: one with a passphrase, one without, one that the device cannot join."""


class PlayedDaemon(DBusFake):
    """Answers like the daemon, of which it has nothing but the face. Rules of DBusFake hold for it; `on=` is a property."""

    names = (SERVICE,)
    bus_name = "user"

    def __init__(self, *args: Any) -> None:
        super().__init__(*args)
        self.properties = dict(STATION)
        self.written: list[tuple[str, Any]] = []
        """What was written, in order."""
        self.obeys = True
        """Whether what is written can be read afterwards."""
        self.called: list[tuple[str, list[Any]]] = []
        """The methods that were called, in order."""

    def subjects(self, call: Call) -> tuple[str, ...]:
        return tuple(argument for argument in call.args if isinstance(argument, str))

    async def answer(self, call: Call) -> tuple[str, list[Any]]:
        match call.interface, call.member:
            case (str(interface), "Get") if interface == PROPERTIES:
                return "v", [self.properties[call.args[1]]]
            case (str(interface), "Set") if interface == PROPERTIES:
                self.written.append((call.args[1], call.args[2].value))
                if self.obeys:
                    self.properties[call.args[1]] = call.args[2]
                return "", []
            case (str(interface), "Connect" | "Scan" | "Disconnect") if interface == INTERFACE:
                self.called.append((call.member, call.args))
                return "", []
        raise CallRefused("org.freedesktop.DBus.Error.UnknownMethod")

    def announce(self, name: str, value: Variant) -> None:
        """Change a property and announce it."""
        self.properties[name] = value
        self.emit(PATH, PROPERTIES, "PropertiesChanged", "sa{sv}as", [INTERFACE, {name: value}, []])

    def announce_networks(self, *networks: list[Any]) -> None:
        """Have these in range and announce it."""
        self.properties["AccessPoints"] = Variant("a(siib)", list(networks))
        self.emit(PATH, INTERFACE, "AccessPointsChanged", "a(siib)", [list(networks)])


@contextmanager
def played_daemon(world: World) -> Iterator[PlayedDaemon]:
    """Has a played daemon in place of the real one, which must not run."""

    async def at_once() -> None:
        pass

    daemon = PlayedDaemon(world.loop, world.journal, at_once)
    world.loop.run(daemon.open(world.user_bus.address))
    try:
        yield daemon
    finally:
        daemon.clear()
        world.loop.run(daemon.close())
        world.loop.call(daemon.end)


def send_to_everybody_alone(
    world: World, interface: str, member: str, signature: str, body: list[Any], path: str = PATH
) -> None:
    """A stranger on the bus sends a signal to each connection directly, past what they asked the bus for."""

    async def send() -> None:
        stranger = await connect(world.user_bus.address)
        reply = await stranger.call(
            Message("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ListNames")
        )
        assert reply
        for name in reply.body[0]:
            if name.startswith(":") and name != stranger.unique_name:
                message = Message.new_signal(path, interface, member, signature, body)
                message.destination = name
                stranger.send(message)
        # Answered after all of these have been passed on.
        await stranger.call(Message("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId"))
        await disconnect(stranger)

    world.loop.run(send())
