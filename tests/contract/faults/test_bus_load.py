"""Many clients, many events and much nonsense: every request is answered and the daemon stays."""

from __future__ import annotations

import asyncio
import random
from typing import Any

from dbus_next import Message, MessageType
from vantora_sim import Variant, World, changed
from vantora_sim.client import INTERFACE, PATH, SERVICE
from vantora_sim.dbus_fake import PROPERTIES, connect, disconnect

CLIENTS = 4
QUICK = ["WiFiAccessPointInitialised", "WiFiAvailableFrequencies", "MacAddress"]


async def on_four_connections(world: World, work: Any) -> list[Any]:
    """Run `work(bus, number)` on four connections of their own at once."""
    buses = [await connect(world.user_bus.address) for _ in range(CLIENTS)]
    try:
        return await asyncio.gather(*(work(bus, number) for number, bus in enumerate(buses)))
    finally:
        for bus in buses:
            await disconnect(bus)


def get(name: str) -> Message:
    return Message(destination=SERVICE, path=PATH, interface=PROPERTIES, member="Get", signature="ss", body=[INTERFACE, name])


def test_properties_are_announced_while_four_clients_hammer_the_bus(world: World) -> None:
    reads, events = 300, 100
    world.up()
    world.hostapd.wait_attached()
    mark = world.journal.mark()
    announced = changed("WiFiAccessPointInitialised")

    async def hammer(bus: Any, number: int) -> int:
        answered = 0
        for turn in range(reads):
            reply = await asyncio.wait_for(bus.call(get(QUICK[(turn + number) % len(QUICK)])), 60)
            answered += reply.message_type is MessageType.METHOD_RETURN
        return answered

    hammering = world.loop.submit(on_four_connections(world, hammer))
    for number in range(events):
        (world.hostapd.disable if number % 2 else world.hostapd.enable)()
        world.journal.wait_until(
            lambda count=number: world.journal.count(announced, mark) > count, "the announcement", since=mark
        )
    assert hammering.result(100) == [reads] * CLIENTS
    # The signal carries the value that holds while it is built, so only their number is certain, and the last.
    values = [entry.value for entry in world.journal.find(announced, mark)]
    assert len(values) == events and values[-1] is False


def random_request(chance: random.Random) -> Message:
    """A request that is wrong in most ways that the bus lets through; it never changes the state of the device."""
    values: dict[str, Any] = {
        "s": chance.choice(["", "x" * 40, "Ad-hoc", "\u00e9" * 20, "%s%n%x", "a\nb", "$(reboot)", "y" * 20_000]),
        "u": chance.choice([2, 3, 2**31, 2**32 - 1]),
        "i": -1,
        "b": True,
        "d": 2.4,
        "ay": bytes(chance.randbytes(20)),
        "as": ["5", "2.4"],
        "a{sv}": {"Type": Variant("s", "active")},
        "(siib)": ["net", 1, -40, True],
        "v": Variant("s", "Client"),
        "o": "/",
        "x": 2**62,
    }
    kind = chance.choice(list(values))
    name = chance.choice(["WiFiState", "Mode", "WiFiFrequency", "SSID", "MacAddress", "AccessPoints", "Nothing", ""])
    message = Message(destination=SERVICE, path=PATH, interface=INTERFACE, member="Connect")
    match chance.randrange(6):
        case 0:
            if (name, kind) == ("SSID", "s"):
                values["s"] = "x" * 33  # nearly every shorter one is a good name
            message.interface, message.member, message.signature = PROPERTIES, "Set", "ssv"
            message.body = [INTERFACE, name, Variant(kind, values[kind])]
        case 1:
            message.interface, message.member, message.signature = PROPERTIES, chance.choice(["Get", "Set", "GetAll"]), kind
            message.body = [values[kind]]
        case 2:
            message.member, message.signature, message.body = (
                chance.choice(["Scan", "Disconnect", "Connect"]),
                kind,
                [values[kind]],
            )
        case 3:
            message.member = chance.choice(["Scan2", "connect", "Introspect", "Get", "AccessPointsChanged"])
        case 4:
            message.path = chance.choice(["/", "/com", "/com/vantora/Network1/0", "/com/vantora/Network2"])
        case 5:
            message.interface = chance.choice(["com.vantora.Network1", "org.freedesktop.DBus.Peer", PROPERTIES, "a.b"])
            message.member = chance.choice(["Ping", "Connect", "Reboot"])
    return message


def test_two_thousand_random_requests_are_all_answered_and_change_nothing(world: World) -> None:
    each, at_once = 500, 5
    daemon = world.up()
    before = (world.get("Mode"), world.get("SSID"), world.get("WiFiFrequency"), world.get("WiFiState"))
    mark = world.journal.mark()

    async def flood(bus: Any, number: int) -> int:
        chance = random.Random(number)
        answered = 0
        for _ in range(each // at_once):
            calls = [bus.call(random_request(chance)) for _ in range(at_once)]
            replies = await asyncio.wait_for(asyncio.gather(*calls), 60)
            answered += sum(reply.message_type in (MessageType.ERROR, MessageType.METHOD_RETURN) for reply in replies)
        return answered

    assert world.loop.submit(on_four_connections(world, flood)).result(110) == [each] * CLIENTS
    world.settle()
    assert daemon.running
    assert world.journal.changes(mark) == []
    assert (world.get("Mode"), world.get("SSID"), world.get("WiFiFrequency"), world.get("WiFiState")) == before
