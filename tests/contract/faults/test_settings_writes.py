"""The settings daemon when a system call of a write fails, or is its last: each of them, one after the other.

Whatever happens, what a read yields, what the file holds and what was acknowledged are the same, and stay so over a restart. What
was refused has not happened; of a write whose answer was lost nobody can know, but it is whole or it is not there.
"""

from __future__ import annotations

import asyncio
import os
from collections.abc import Awaitable, Callable, Iterator
from dataclasses import dataclass
from pathlib import Path
from tempfile import TemporaryDirectory

import pytest
from dbus_next import Variant
from traced_settings import DEADLINE, Answer, Step, TracedSettings

DEFAULT = "Host"
MEMORY = Path("/dev/shm")
"""Thousands of writes are flushed here; on a disk that is busy with something else each of them takes its time."""


@pytest.fixture
def folder() -> Iterator[Path]:
    """A folder of the test's own, in memory where there is such a place."""
    with TemporaryDirectory(prefix="vantora-", dir=MEMORY if os.access(MEMORY, os.W_OK) else None) as made:
        yield Path(made)


@dataclass(frozen=True)
class Request:
    """Something that changes the mode, and what the mode is before and after."""

    name: str
    before: str
    after: str
    make: Callable[[TracedSettings], Awaitable[Answer]]

    def __str__(self) -> str:
        return self.name


async def _write(settings: TracedSettings, mode: str) -> Answer:
    return await settings.write("network", "mode", Variant("s", mode))


REQUESTS = [
    Request("the first write", DEFAULT, "Client", lambda settings: _write(settings, "Client")),
    Request("a later write", "Client", "Host", lambda settings: _write(settings, "Host")),
    Request("a reset", "Client", DEFAULT, lambda settings: settings.reset("network")),
]

FAULTS = {
    "kill": "signal=KILL:when={}",
    "EIO": "error=EIO:when={}",
    "EIO from then on": "error=EIO:when={}+",
    "ENOSPC": "error=ENOSPC:when={}",
    "ENOSPC from then on": "error=ENOSPC:when={}+",
    "EINTR": "error=EINTR:when={}",
    "ENOMEM": "error=ENOMEM:when={}",
    "EMFILE": "error=EMFILE:when={}",
    "EPERM": "error=EPERM:when={}",
}
TRIED = [
    (request, fault)
    for request in REQUESTS
    for fault in FAULTS
    if request.name == "a later write" or fault in ("kill", "EIO", "EIO from then on")
]
"""Each fault for one request; those that matter most for the others, whose steps differ little."""

ATTEMPTS = 5
WAITING = {"gettid", "epoll_wait", "epoll_pwait", "recvmsg"}
"""What comes before the request is there: how often depends on the moment at which the tracer attaches."""


async def _prepare(settings: TracedSettings, request: Request) -> None:
    """A daemon that has just been started, and has stored what the request finds."""
    settings.kill()
    settings.file.parent.mkdir(exist_ok=True)
    settings.file.unlink(missing_ok=True)
    if request.before != DEFAULT:
        settings.file.write_text(f'{{"network": {{"mode": "{request.before}"}}}}')
    settings.start()
    assert await settings.read("network", "mode") == request.before


async def _steps_of(settings: TracedSettings, request: Request) -> list[Step]:
    """The system calls that the request takes when all is well."""
    await _prepare(settings, request)
    with settings.trace() as tracer:
        assert (await request.make(settings)).acknowledged
    return tracer.steps()


async def _check(settings: TracedSettings, request: Request, answer: Answer) -> None:
    """Memory, disk and acknowledgement agree, now and after a restart, and all works again."""

    def mode() -> str:
        return str(settings.stored("network", "mode", DEFAULT))

    allowed = (
        {request.after} if answer.acknowledged else {request.before} if answer.refused else {request.before, request.after}
    )
    if not answer.lost and (in_effect := await settings.read_unless_it_ends("network", "mode")) is not None:
        assert in_effect in allowed
        assert mode() == in_effect, "the disk holds something else than a read yields"
        if answer.refused:
            # Unchanged, as the daemon sees it: acknowledged only if the disk is known to hold it.
            assert (await _write(settings, request.before)).acknowledged
            assert mode() == request.before
    settings.restart()
    restarted = await settings.read("network", "mode")
    assert restarted in allowed
    assert mode() == restarted
    for value in ("Client", "Host"):
        assert (await _write(settings, value)).acknowledged
        assert mode() == value
    # Not even a fault leaves anything behind for longer than to the next write.
    assert {file.name for file in settings.file.parent.iterdir()} - {"settings.json.lock"} == {"settings.json"}


async def _try(settings: TracedSettings, request: Request, fault: str, step: Step) -> bool:
    """Make the request with the fault at this step, and check what came of it. Returns whether the step was reached."""
    await _prepare(settings, request)
    with settings.trace(f"inject={step.name}:{FAULTS[fault].format(step.number)}") as tracer:
        answer = await request.make(settings)
        if answer.lost:
            settings.wait()
    reached = tracer.hit or settings.was_killed
    try:
        await _check(settings, request, answer)
    except (AssertionError, TimeoutError) as error:
        raise AssertionError(f"{fault} at {step}, answered {answer}") from error
    return reached


@pytest.mark.parametrize("request_", REQUESTS, ids=str)
def test_a_write_takes_the_steps_that_are_tried_here(request_: Request, folder: Path, build_dir: Path) -> None:
    async def run() -> None:
        async with TracedSettings(folder, build_dir) as settings:
            steps = [step.name for step in await _steps_of(settings, request_)]
            assert steps.count("fsync") == 2 and steps[-1] == "sendmsg", steps
            assert {"rename", "renameat", "renameat2"} & set(steps), steps

    asyncio.run(run())


@pytest.mark.parametrize("request_, fault", TRIED, ids=str)
def test_a_write_happens_or_does_not_whichever_system_call_fails(
    request_: Request, fault: str, folder: Path, build_dir: Path
) -> None:
    async def run() -> None:
        async with TracedSettings(folder, build_dir) as settings:
            for step in await _steps_of(settings, request_):
                for _ in range(ATTEMPTS):
                    if await _try(settings, request_, fault, step):
                        break
                else:
                    assert step.name in WAITING, f"{step} is not reached"

    asyncio.run(run())


def test_a_refused_write_is_taken_back_where_its_old_file_could_not_be_at_once(folder: Path, build_dir: Path) -> None:
    """The folder cannot be synced, and the old file not be given its name back, not even a second later."""

    async def run() -> None:
        request = REQUESTS[1]
        async with TracedSettings(folder, build_dir) as settings:
            rename = next(step.name for step in await _steps_of(settings, request) if step.name.startswith("rename"))
            await _prepare(settings, request)
            with settings.trace("inject=fsync:error=EIO:when=2", f"inject={rename}:error=EIO:when=2..3") as tracer:
                assert (await request.make(settings)).refused
                assert settings.stored("network", "mode", DEFAULT) == request.after
                assert await settings.read("network", "mode") == request.before
                async with asyncio.timeout(DEADLINE):
                    while settings.stored("network", "mode", DEFAULT) != request.before:
                        await asyncio.sleep(0.02)
            assert tracer.hit
            settings.stop()
            settings.start()
            assert await settings.read("network", "mode") == request.before

    asyncio.run(run())


@pytest.mark.parametrize("error", ["EIO", "EMFILE", "ENOMEM", "EINTR"])
@pytest.mark.parametrize("call", ["openat", "read"])
def test_a_passing_error_at_the_start_loses_no_setting(call: str, error: str, folder: Path, build_dir: Path) -> None:
    async def run() -> None:
        async with TracedSettings(folder, build_dir) as settings:
            settings.file.parent.mkdir()
            settings.file.write_text('{"network": {"mode": "Client"}}')
            settings.start_traced(f"inject={call}:error={error}:when=1")
            assert await settings.read("network", "mode") == "Client"
            assert (await settings.write("network", "enabled", Variant("b", False))).acknowledged
            assert {file.name for file in settings.file.parent.iterdir()} - {"settings.json.lock"} == {"settings.json"}

    asyncio.run(run())


def test_a_lasting_error_at_the_start_refuses_changes_until_it_has_passed(folder: Path, build_dir: Path) -> None:
    """The seventh attempt succeeds: three are made at once, and three more after each second."""

    async def run() -> None:
        async with TracedSettings(folder, build_dir) as settings:
            settings.file.parent.mkdir()
            settings.file.write_text('{"network": {"mode": "Client"}}')
            settings.start_traced("inject=openat:error=EIO:when=1..6")
            assert await settings.read("network", "mode") == DEFAULT
            answer = await settings.write("network", "enabled", Variant("b", False))
            assert answer.error == "org.freedesktop.DBus.Error.IOError"
            async with asyncio.timeout(DEADLINE):
                while await settings.read("network", "mode") != "Client":
                    await asyncio.sleep(0.02)
            assert (await settings.write("network", "enabled", Variant("b", False))).acknowledged
            settings.restart()
            assert await settings.read("network", "mode") == "Client"
            assert await settings.read("network", "enabled") is False

    asyncio.run(run())
