"""The command `vantora-sim`: one simulated device, for as long as somebody wants it."""

from __future__ import annotations

import argparse
import contextlib
import os
import pwd
import shutil
import signal
import subprocess
import sys
from pathlib import Path
from types import FrameType
from typing import TextIO

from . import desk_page, places, tour, view
from .dbus_fake import CallRefused
from .device import SimulatedDevice
from .sandbox import SandboxError
from .world_file import WorldFileError, read_world

_FAILED = 1
_USAGE = 2
_NOT_FOUND = 127
_NOT_EXECUTABLE = 126
_INNER = "vantora-doctor"

_EPILOG = """\
Without COMMAND it stays until Ctrl-C and ends with status 0. With COMMAND it runs that program, with the addresses of both
buses in its environment (DBUS_SESSION_BUS_ADDRESS, DBUS_SYSTEM_BUS_ADDRESS) and vantora-wifi, vantora-simctl and
vantora-doctor (which looks at the device from within) on its PATH, and ends with its status.
"""


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="vantora-sim",
        description="A whole simulated device around the unmodified network daemon.",
        epilog=_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument(
        "--world",
        default="home",
        metavar="FILE",
        help="world file, or the name of one that is shipped: "
        + ", ".join(sorted(path.stem for path in places.worlds().glob("*.json")))
        + " (default: home)",
    )
    parser.add_argument("--state", type=Path, metavar="DIR", help="folder in which the settings persist (default: none)")
    parser.add_argument(
        "--build-dir",
        type=Path,
        default=places.default_build(),
        metavar="DIR",
        help="folder with the programs (default: %(default)s)",
    )
    parser.add_argument("--demo", action="store_true", help="a tour through everything, which is also a test; then end")
    parser.add_argument("--desk", action="store_true", help="serve a page on this machine that shows the device and acts on it")
    parser.add_argument(
        "--desk-port", type=int, default=0, metavar="PORT", help="where the page is served (default: any free port)"
    )
    parser.add_argument(
        "--open", type=Path, metavar="FILE", help="serve the page with a run that was saved from it, without a device"
    )
    parser.add_argument(
        "-v", "--verbose", action="store_true", help="show also the daemon's log and what it asks of its surroundings"
    )
    parser.add_argument("command", nargs="*", metavar="COMMAND", help="program to run in reach of the device, after --")
    return parser


def main(argv: list[str]) -> int:
    """Run the command line; returns the exit status."""
    options = _parser().parse_args(argv)
    if options.demo and options.command:
        return _complain("--demo takes no COMMAND", _USAGE)
    if options.demo and options.desk:
        return _complain("--demo takes no --desk", _USAGE)
    if options.open is not None:
        return _show_saved(options)
    absent = places.missing(options.build_dir)
    if absent:
        return _complain(f"{options.build_dir} holds no {', '.join(absent)}: build first, or give --build-dir")
    lacking = places.lacking()
    if lacking:
        return _complain(f"this system lacks {', '.join(lacking)}")
    if not _has_a_name(os.getuid()):
        return _complain(
            f"user id {os.getuid()} is in no user database (passwd): a message bus turns away whom it cannot look up"
        )
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, _interrupt)
    try:
        plan = read_world(options.world)
        unsuited = tour.unsuited(plan) if options.demo else ""
        if unsuited:
            return _complain(f'the tour does not fit the world "{plan.name}": {unsuited}')
        if options.demo:
            return tour.run(plan, options.build_dir, sys.stdout, verbose=options.verbose)
        if options.state is not None:
            options.state.mkdir(parents=True, exist_ok=True)
        device = SimulatedDevice(plan, options.build_dir, state=options.state)
        with contextlib.ExitStack() as stack:
            page = stack.enter_context(contextlib.ExitStack())
            if options.desk:
                device.before_start.append(lambda: desk_page.serve(device, options.desk_port, page))
            stack.enter_context(device)
            stack.callback(page.close)  # the page goes before the device that it shows
            try:
                if options.command:
                    return _run_command(device, options.command)
                return _stay(device, sys.stdout, options.verbose)
            finally:
                for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
                    signal.signal(number, signal.SIG_IGN)  # the end is under way
    except KeyboardInterrupt:
        return 0
    except desk_page.Unavailable as error:
        return _complain(str(error))
    except SandboxError as error:
        return _complain(f"no sandbox can be made here: {error}")
    except (WorldFileError, CallRefused, RuntimeError, OSError) as error:
        return _complain(str(error))


def _show_saved(options: argparse.Namespace) -> int:
    """Serve the page with a saved run until Ctrl-C."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, _interrupt)
    try:
        with contextlib.ExitStack() as page:
            desk_page.serve_saved(options.open, options.desk_port, page)
            while True:
                signal.pause()
    except KeyboardInterrupt:
        return 0
    except desk_page.Unavailable as error:
        return _complain(str(error))


def _has_a_name(uid: int) -> bool:
    try:
        pwd.getpwuid(uid)
    except KeyError:
        return False
    return True


def _interrupt(number: int, frame: FrameType | None) -> None:
    raise KeyboardInterrupt


def _complain(text: str, status: int = _FAILED) -> int:
    print(f"vantora-sim: {text}", file=sys.stderr)
    return status


def _introduce(device: SimulatedDevice, out: TextIO) -> None:
    print(
        f'\nThe device is up: world "{device.plan.name}", {len(device.plan.networks)} networks around.\n\n'
        f"{view.addresses(device)}\n\n{view.table(device)}\n\n"
        f"Talk to it from another terminal:\n\n{view.instructions(device)}\n\n"
        f"{_hints(device.world.build)}\n",
        file=out,
        flush=True,
    )


def _tools(build: Path) -> list[Path]:
    """The programs that are made for people, where they stand."""
    beside = Path(sys.argv[0]).resolve().parent
    found = [
        next((folder / name for folder in (build, beside) if (folder / name).exists()), None)
        for name in ("vantora-wifi", "vantora-simctl")
    ]
    return [program for program in found if program is not None]


def _path_with_tools(build: Path) -> str:
    """PATH on which those are found by their names, before any others of these names."""
    path = os.environ.get("PATH", os.defpath)
    folders = dict.fromkeys(str(program.parent) for program in _tools(build) if shutil.which(program.name) != str(program))
    return os.pathsep.join([*folders, path])


def _inner_programs(device: SimulatedDevice) -> str:
    """A folder with those that look at files and interfaces and so have to run in the sandbox, under their own names."""
    folder = device.world.work / "inner"
    program = device.world.build / _INNER
    found = str(program) if program.exists() else shutil.which(_INNER)
    folder.mkdir(exist_ok=True)
    if found:
        (folder / _INNER).write_text(device.world.sandbox.entrance(Path(found)))
        (folder / _INNER).chmod(0o755)
    return str(folder)


def _hints(build: Path) -> str:
    """Where the programs stand that are made for people."""
    what = {"vantora-wifi": "The same in words and tables", "vantora-simctl": "Change what is around it"}
    return "\n".join(f"{what[program.name]}: {_called(program)} --help" for program in _tools(build))


def _called(program: Path) -> str:
    """How a program is called from here."""
    if shutil.which(program.name) == str(program):
        return program.name
    return str(program.relative_to(Path.cwd())) if program.is_relative_to(Path.cwd()) else str(program)


def _stay(device: SimulatedDevice, out: TextIO, verbose: bool) -> int:
    """Show what happens until Ctrl-C."""
    print("The device starts.\n", file=out, flush=True)
    live = view.LiveView(device, out, verbose=verbose)
    while not device.is_up:
        live.advance(0.1)
    device.world.settle()
    live.advance(0)
    _introduce(device, out)
    print("What happens from now on (Ctrl-C ends the device):\n", file=out, flush=True)
    try:
        while True:
            live.advance(1.0)
    except KeyboardInterrupt:
        print("\nThe device is switched off.", file=out, flush=True)
        return 0


def _run_command(device: SimulatedDevice, command: list[str]) -> int:
    """Run a program in reach of the device; Ctrl-C is its business then."""
    device.wait_up()
    _introduce(device, sys.stderr)
    path = os.pathsep.join([_inner_programs(device), _path_with_tools(device.world.build)])
    environment = {**os.environ, **device.environment, "PATH": path}
    try:
        process = subprocess.Popen(command, env=environment)
    except FileNotFoundError:
        return _complain(f"{command[0]}: not found", _NOT_FOUND)
    except OSError as error:
        return _complain(f"{command[0]}: {error.strerror}", _NOT_EXECUTABLE)
    signal.signal(signal.SIGINT, lambda *ignored: None)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda received, frame: process.send_signal(received))
    status = process.wait()
    return status if status >= 0 else 128 - status
