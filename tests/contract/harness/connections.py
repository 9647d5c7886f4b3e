"""Whose connections are on a bus."""

from __future__ import annotations

from vantora_sim import CallRefused, World
from vantora_sim.client import Client


async def names_of(client: Client, pid: int) -> list[str]:
    """The unique names of a process, by a client of that bus. busctl's own list knows no processes of outside the sandbox."""
    found = []
    for name in (await client.ask_bus("ListNames"))[0]:
        if name.startswith(":"):
            try:
                if (await client.ask_bus("GetConnectionUnixProcessID", "s", [name]))[0] == pid:
                    found.append(name)
            except CallRefused:
                pass  # it has just left
    return found


def connections_of_the_daemon(world: World, address: str) -> list[str]:
    """The unique names of the daemon on the bus at this address."""
    assert world.daemon
    pid = world.daemon.pid

    async def look() -> list[str]:
        client = await Client.open(address)
        try:
            return await names_of(client, pid)
        finally:
            await client.close()

    return world.loop.run(look())
