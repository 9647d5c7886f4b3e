"""The client without a sub-command: a screen to walk through, seen by a terminal emulator, which the terminal survives."""

from __future__ import annotations

import itertools
import os
import pty
import re
import select
import signal
import subprocess
import termios
from collections.abc import Callable, Iterator
from time import monotonic

import pyte
import pytest
from dbus_next import Variant
from ignored_signals import forget_ignored_signals
from played_daemon import ACCESS_POINT, OPEN, OTHER, SECURED, PlayedDaemon, played_daemon
from simulated import KEY, small_plan
from vantora_sim import DEADLINE, World, call
from vantora_sim.client import INTERFACE
from vantora_sim.device import SimulatedDevice
from wifi_client import DONE, TERMINAL, UNREACHABLE, USAGE, Running, environment, program

BACK = "\x1b[?1049l"
"""What gives the terminal its former contents back."""
TERM = "screen-256color"
"""A terminal of which the emulator knows nearly every sequence."""
UP, DOWN = "\x1bOA", "\x1bOB"
NO_SANITIZERS_HANDLERS = dict.fromkeys(
    ("ASAN_OPTIONS", "TSAN_OPTIONS"), "handle_segv=0:handle_abort=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0"
)
"""Leaves a crash to the client."""


@pytest.fixture
def daemon(world: World) -> Iterator[PlayedDaemon]:
    """A station with three networks around."""
    with played_daemon(world) as daemon:
        daemon.properties["AccessPoints"] = Variant("a(siib)", [SECURED, OPEN, OTHER])
        yield daemon


def seen(client: Running, rows: int = 24, columns: int = 80) -> list[str]:
    """What a person sees on the terminal now."""
    return lines_of(client.text, rows, columns)


def lines_of(text: str, rows: int, columns: int) -> list[str]:
    """What is on a terminal of this size after it has been sent this text."""
    return [line.rstrip() for line in screen_of(text, rows, columns).display]


def look_of(client: Running, word: str) -> str:
    """How a person sees a word: "bold", "faint", "reverse", its colour, or several of these."""
    # The emulator knows no faint letters; italics are not used otherwise.
    text = re.sub(r"(?<=[\[;])2(?=[;m])", "3", client.text)
    screen = screen_of(text, 24, 80)
    row = next(number for number, line in enumerate(screen.display) if word in line)
    letter = screen.buffer[row][screen.display[row].index(word)]
    looks = {"bold": letter.bold, "faint": letter.italics, "reverse": letter.reverse, letter.fg: letter.fg != "default"}
    return " ".join(look for look, there in looks.items() if there) + f" on {letter.bg}".removesuffix(" on default")


def screen_of(text: str, rows: int, columns: int) -> pyte.Screen:
    """A terminal of this size that has been sent this text."""
    screen = pyte.Screen(columns, rows)
    # The emulator scrolls by lines only; the cursor stands at the margin whenever a terminal is asked for several.
    for letter, single in (("T", "\x1bM"), ("S", "\x1bD")):
        text = re.sub(rf"\x1b\[(\d*){letter}", lambda found, one=single: one * int(found[1] or 1), text)
    pyte.Stream(screen).feed(text)
    return screen


def wait_seen(client: Running, pattern: str, rows: int = 24, columns: int = 80) -> None:
    """Wait until a person sees a line with this pattern."""
    client.wait_until(lambda text: any(re.search(pattern, line) for line in lines_of(text, rows, columns)), repr(pattern))


def started(world: World, **changes: str | None) -> Running:
    """The screen, when it shows the networks."""
    client = TERMINAL.start(world, **{"TERM": TERM, **changes})
    wait_seen(client, "office")
    return client


def given_back(client: Running) -> bool:
    """Whether the terminal is as it was: its contents, its cursor, and how it takes what is typed."""
    shown = client.text
    return (
        shown.rfind(BACK) > shown.rfind("\x1b[?1049h")
        and shown.rfind("\x1b[?25h") > shown.rfind("\x1b[?25l")
        and client.echoes()
    )


def joined(daemon: PlayedDaemon) -> list[list[str]]:
    """What the daemon was asked to join."""
    return [arguments for member, arguments in daemon.called if member == "Connect"]


def test_the_state_is_on_top_and_the_networks_below(world: World, daemon: PlayedDaemon) -> None:
    daemon.properties["ClientSSID"] = Variant("s", "free")
    with started(world) as client:
        wait_seen(client, r"free  \(joined\)")
        lines = seen(client)
        assert lines[0] == " vantora-wifi"
        assert lines[1:3] == ["Radio           on", "Mode            Client (station)"]
        below = [line for line in lines if "-50" in line or "-60" in line or "-70" in line]
        assert [line.split()[-1] for line in below] == ["secured", "(joined)", "office"]
        assert below[0].startswith("> ▂▄▆█    -50  🔒") and below[1].startswith("  ▂▄▆·    -60     free")
        assert "✗" in below[2]
        assert {
            word: look_of(client, word) for word in (" vantora", "Mode", "on", "> ", "secured", "▂▄▆·", "office", "Enter")
        } == {
            " vantora": "bold reverse",
            "Mode": "bold",
            "on": "green",
            "> ": "reverse green",
            "secured": "reverse",
            "▂▄▆·": "green",
            "office": "faint",
            "Enter": "reverse",
        }
        assert screen_of(client.text, 24, 80).cursor.hidden
        assert lines[23] == " Enter join  d disconnect  m mode  r scan  ? help  q quit"
        client.type("q")
        assert client.end() == DONE
        assert given_back(client)


def test_arrows_choose_and_enter_joins_an_open_network(world: World, daemon: PlayedDaemon) -> None:
    with started(world) as client:
        client.type(DOWN + DOWN + UP)
        wait_seen(client, "^> .* free$")
        client.type("\r")
        world.journal.wait_until(lambda: joined(daemon) == [["free", ""]], "attempt")
        asked = call("Get", INTERFACE, "WiFiClientState")
        mark = world.journal.mark()
        world.journal.wait_until(lambda: world.journal.count(asked, mark) > 6, "questions about an attempt")
        times = [entry.when for entry in world.journal.find(asked, mark)][1:]  # the first comes with the answer
        between = [after - before for before, after in itertools.pairwise(times)]
        assert max(between) > 0.25 and min(between) < 1.5, between
        daemon.announce("WiFiClientState", Variant("s", "completed"))
        wait_seen(client, 'Connected to "free".')
        assert daemon.called == [("Connect", ["free", ""])]


def test_escape_takes_effect_at_once(world: World, daemon: PlayedDaemon) -> None:
    took = []
    with started(world) as client:
        for _ in range(5):
            client.type("\r")
            wait_seen(client, '^Passphrase for "secured":$')
            began = monotonic()
            client.type("\x1b")
            client.wait_until(lambda text: not any("Passphrase" in line for line in lines_of(text, 24, 80)), "end of question")
            took.append(monotonic() - began)
    assert joined(daemon) == []
    # The terminal's library waits for a second, each time, where nobody tells it otherwise; a busy machine is slow at times.
    assert min(took) < 0.9


def test_a_passphrase_is_asked_for_and_never_shown(world: World, daemon: PlayedDaemon) -> None:
    with started(world) as client:
        client.type("\r")
        wait_seen(client, '^Passphrase for "secured":$')
        wait_seen(client, "^ Enter join  Esc back$")
        mark = len(client.text)
        client.type("quiet hä\x01rbour\x7f42")
        wait_seen(client, r'^Passphrase for "secured": \*{14}$')
        assert not set(client.text[mark:]) & set("quieäo"), "letters that no sequence has"
        client.type("\r")
        world.journal.wait_until(lambda: joined(daemon) == [["secured", "quiet härbou42"]], "attempt")
        assert "quiet" not in client.text and "rbou" not in client.text
        daemon.announce("WiFiClientState", Variant("s", "failed"))
        wait_seen(client, '"secured" refused the passphrase.')


def test_escape_leads_back_from_the_passphrase(world: World, daemon: PlayedDaemon) -> None:
    with started(world) as client:
        client.type("\r")
        wait_seen(client, "^Passphrase for")
        client.type("\x1b")
        wait_seen(client, "^> .* secured$")
        assert joined(daemon) == []


def test_everything_is_live(world: World, daemon: PlayedDaemon) -> None:
    with started(world) as client:
        daemon.announce("IPAddress", Variant("s", "10.0.0.9"))
        wait_seen(client, "^Address +10.0.0.9$")
        daemon.announce_networks(["new one", 1, -44, True], SECURED)
        wait_seen(client, "^  .* new one$")
        wait_seen(client, "^> .* secured$")
        assert not any("office" in line for line in seen(client))


def test_letters_do_what_the_help_says(world: World, daemon: PlayedDaemon) -> None:
    with started(world) as client:
        client.type("?")
        wait_seen(client, "^Enter +join it")
        client.type("x")
        wait_seen(client, "office")
        client.type("r")
        wait_seen(client, "Asked for a scan; what it finds appears above.")
        daemon.properties["IPAddress"] = Variant("s", "10.0.0.7")  # not announced: everything is asked for after a request
        client.type("d")
        wait_seen(client, "Disconnected.")
        wait_seen(client, "^Address +10.0.0.7$")
        assert daemon.called == [("Scan", []), ("Disconnect", [])]
        client.type("m")
        world.journal.wait_until(lambda: ("Mode", "Host") in daemon.written, "mode")
        daemon.properties = dict(ACCESS_POINT)
        daemon.announce("Mode", Variant("s", "Host"))
        daemon.announce_networks()
        wait_seen(client, "^Mode +Host")
        wait_seen(client, "^Stations +2$")
        wait_seen(client, "An access point does not look for networks")
        client.type("m")
        world.journal.wait_until(lambda: ("Mode", "Client") in daemon.written, "mode")
        wait_seen(client, "^Mode +Client")
        client.type("o")
        wait_seen(client, "^Radio +off$")
        assert daemon.written == [("Mode", "Host"), ("Mode", "Client"), ("WiFiState", 0)]


def test_a_refusal_is_told_in_words(world: World, daemon: PlayedDaemon) -> None:
    daemon.refuse("Disconnect", text="Failed to connect to AP")
    with started(world) as client:
        client.type("d")
        wait_seen(client, "there is no network to leave: the device is not connected")


def wait_for_title(client: Running, mark: int, rows: int, columns: int) -> None:
    """Wait until a screen of this size, drawn since the mark, begins with what it is."""
    title = " vantora-"[:columns]
    client.wait_until(lambda text: lines_of(text[mark:], rows, columns)[0].startswith(title), "title")


@pytest.mark.usefixtures("daemon")
def test_another_size_is_filled_at_once(world: World) -> None:
    with started(world) as client:
        for rows, columns in ((12, 40), (40, 120), (3, 10), (24, 80)):
            mark = len(client.text)
            client.resize(rows, columns)
            wait_for_title(client, mark, rows, columns)
            wait_until_quiet_and_right(client, mark, rows, columns)
        client.type("q")
        assert client.end() == DONE
        assert given_back(client)


def wait_until_quiet_and_right(client: Running, mark: int, rows: int, columns: int) -> None:
    """Wait until what was drawn since then fills a window of this size: its first and its last line."""
    hint = " Enter join  d disconnect  m mode  r scan  ? help  q quit"[:columns].rstrip()
    client.wait_until(lambda text: lines_of(text[mark:], rows, columns)[rows - 1] == hint, "last line")


@pytest.mark.parametrize(
    "number",
    [
        signal.SIGINT,
        signal.SIGTERM,
        signal.SIGHUP,
        signal.SIGQUIT,
        signal.SIGSEGV,
        signal.SIGABRT,
        signal.SIGBUS,
        signal.SIGFPE,
        signal.SIGILL,
    ],
    ids=lambda number: number.name,
)
@pytest.mark.usefixtures("daemon")
def test_the_terminal_is_given_back_at_every_end(world: World, number: int) -> None:
    with started(world, **NO_SANITIZERS_HANDLERS) as client:
        assert not client.echoes()
        client.send_signal(number)
        assert client.end() == -number
        assert given_back(client)


@pytest.mark.usefixtures("daemon")
def test_control_c_leaves(world: World) -> None:
    with started(world) as client:
        client.type("\x03")
        assert client.end() == -signal.SIGINT
        assert given_back(client)


@pytest.mark.usefixtures("daemon")
def test_a_lost_bus_ends_it_with_words_on_the_terminal_that_was(world: World) -> None:
    with started(world) as client:
        world.user_bus.stop()
        assert client.end() == UNREACHABLE
        assert given_back(client)
        assert "vantora-wifi: " in client.plain[client.plain.rfind(BACK) :]


def test_control_z_gives_the_terminal_back_for_a_while(world: World, daemon: PlayedDaemon) -> None:
    script = f'set -m; {program(world)}; echo "STOPPED[$?]"; read -r line; fg; echo "ENDED[$?]"'
    with Running(["/bin/bash", "--norc", "-c", script], environment(world, TERM=TERM), terminal=True) as client:
        wait_seen(client, "office")
        client.type("\x1a")
        client.wait_for(r"STOPPED\[148\]")
        assert given_back(client)
        mark = len(client.text)
        daemon.announce("IPAddress", Variant("s", "10.0.0.9"))
        client.type("\n")
        client.wait_until(
            lambda text: "\x1b[?1049h" in text[mark:] or any("office" in line for line in lines_of(text[mark:], 24, 80)),
            "screen",
        )
        client.wait_until(
            lambda text: any("10.0.0.9" in line for line in lines_of(text[mark:], 24, 80)), "what has changed meanwhile"
        )
        assert not client.echoes()
        client.type("q")
        client.wait_for(r"ENDED\[0\]")
        assert given_back(client)


def wait_whole(client: Running, mark: int) -> None:
    """Wait until everything has been drawn anew since the mark, and see that the terminal is taken."""
    wait_for_title(client, mark, 24, 80)
    wait_until_quiet_and_right(client, mark, 24, 80)
    assert not client.echoes()


@pytest.mark.usefixtures("daemon")
def test_after_a_stop_that_nobody_could_see_coming_the_terminal_is_taken_again(world: World) -> None:
    with started(world) as client:
        client.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, client.pid, os.WSTOPPED)
        terminal = os.open(f"/proc/{client.pid}/fd/0", os.O_RDWR | os.O_NOCTTY)
        modes = termios.tcgetattr(terminal)
        modes[3] |= termios.ECHO | termios.ICANON
        termios.tcsetattr(terminal, termios.TCSANOW, modes)
        os.close(terminal)
        mark = len(client.text)
        client.send_signal(signal.SIGCONT)
        wait_whole(client, mark)


@pytest.mark.usefixtures("daemon")
def test_control_z_where_no_shell_could_go_on_leaves_the_screen_as_it_is(world: World) -> None:
    with started(world, **NO_SANITIZERS_HANDLERS) as client:
        for _ in range(2):
            mark = len(client.text)
            client.type("\x1a")
            wait_whole(client, mark)
        client.send_signal(signal.SIGSEGV)
        assert client.end() == -signal.SIGSEGV
        assert given_back(client)


@pytest.mark.usefixtures("daemon")
def test_a_terminal_that_goes_without_a_signal_ends_it(world: World) -> None:
    outer, inner = pty.openpty()
    # In a session of its own without taking the terminal as its own: nobody tells it of the end.
    client = subprocess.Popen(
        [program(world)],
        env=environment(world, TERM=TERM),
        stdin=inner,
        stdout=inner,
        stderr=inner,
        start_new_session=True,
        preexec_fn=forget_ignored_signals,
    )
    try:
        os.close(inner)
        shown = b""
        while b"office" not in shown:
            assert select.select([outer], [], [], DEADLINE)[0], shown
            shown += os.read(outer, 65536)
        os.close(outer)
        assert client.wait(DEADLINE) == -signal.SIGHUP
    finally:
        client.kill()
        client.wait()


def test_a_daemon_that_hangs_does_not_hold_up_the_screen(world: World, daemon: PlayedDaemon) -> None:
    with started(world) as client:
        daemon.hang("Get")
        client.type("r")
        client.wait_for("it finds appears above")  # which is all that comes before the next line
        daemon.announce("Mode", Variant("s", "Client"))
        wait_seen(client, "The daemon does not answer; waiting for it.")
        client.type("?")
        wait_seen(client, "^Enter +join it")
        client.type("x" + DOWN)
        wait_seen(client, "^> .* free$")
        client.type("q")
        assert client.end() == DONE
        assert given_back(client)


def test_a_daemon_that_hangs_from_the_beginning_can_be_left(world: World, daemon: PlayedDaemon) -> None:
    daemon.hang("Get")
    with TERMINAL.start(world, TERM=TERM) as client:
        wait_seen(client, "The daemon does not answer; waiting for it.")
        client.type("q")
        assert client.end() == DONE


def test_the_daemon_goes_and_comes_back(world: World, daemon: PlayedDaemon) -> None:
    with started(world) as client:
        daemon.go()
        wait_seen(client, "The daemon is not running; waiting for it.")
        assert not any("office" in line for line in seen(client))
        daemon.come_back()
        wait_seen(client, "office")


def test_it_waits_for_a_daemon_that_is_not_there_yet(world: World) -> None:
    with TERMINAL.start(world, TERM=TERM) as client:
        wait_seen(client, "The daemon is not running; waiting for it.")
        with played_daemon(world) as daemon:
            wait_seen(client, "^Mode +Client")
            client.type("q")
            assert client.end() == DONE
            assert daemon.called == []


def test_hostile_names_are_shown_and_do_nothing(world: World, daemon: PlayedDaemon) -> None:
    with started(world) as client:
        daemon.announce_networks(["\x1b[2J\x1b]0;owned\x07", 1, -40, True], ["\u202eback\n\r", 0, -45, False], OTHER)
        wait_seen(client, re.escape("\\x1b[2J\\x1b]0;owned\\x07"))
        wait_seen(client, re.escape("\\u{202e}back\\n\\x0d"))
        assert "\x1b[2J\x1b]0" not in client.text and "owned\x07" not in client.text and "\u202e" not in client.text


def test_a_wrongly_typed_signal_is_told_once_and_passed_over(world: World, daemon: PlayedDaemon) -> None:
    with started(world) as client:
        daemon.announce("IPAddress", Variant("u", 7))
        daemon.properties["IPAddress"] = Variant("s", "")
        wait_seen(client, "a signal of the daemon cannot be read and is passed over: PropertiesChanged")
        assert look_of(client, "a signal of the daemon") == "red"
        assert client.running


@pytest.mark.usefixtures("daemon")
def test_no_colours_where_they_are_not_wanted(world: World) -> None:
    with started(world) as client:
        assert "\x1b[32m" in client.text
    for without in ({"NO_COLOR": "1"}, {"TERM": "vt100"}):  # the latter cannot hide its cursor either
        with started(world, **without) as client:
            assert "\x1b[32m" not in client.text


@pytest.mark.usefixtures("daemon")
def test_bars_and_locks_are_ascii_where_the_locale_has_nothing_else(world: World) -> None:
    with started(world, LC_ALL="C") as client:
        wait_seen(client, r"^> ####    -50  \*  secured$")
        wait_seen(client, r"^  ##\.\.    -70  x  office$")


@pytest.mark.parametrize("term", ["dumb", None], ids=str)
@pytest.mark.usefixtures("daemon")
def test_a_terminal_that_cannot_be_drawn_on_is_told(world: World, term: str | None) -> None:
    ended = TERMINAL.run(world, TERM=term)
    assert (ended.status, ended.stdout) == (
        USAGE,
        "vantora-wifi: this terminal cannot be drawn on; 'vantora-wifi --help' tells what else there is\n",
    )


def test_on_the_device_a_person_joins_a_network_and_leaves_it(make_device: Callable[..., SimulatedDevice]) -> None:
    device = make_device(small_plan("Client"))
    device.world.journal.wait_until(lambda: device.world.wpa.present, "wpa_supplicant")
    with TERMINAL.start(device.world, TERM=TERM) as client:
        wait_seen(client, "No networks in range; r looks for some.")
        client.type("r")
        wait_seen(client, "^> .* secured$")
        client.type("\r")
        wait_seen(client, '^Passphrase for "secured":$')
        client.type(KEY + "\r")
        wait_seen(client, "^Address +10.7.0.2$")
        wait_seen(client, r"secured  \(joined\)$")
        client.type("d")
        wait_seen(client, "Disconnected.")
        wait_seen(client, "^Network +-$")
        client.type("m")
        wait_seen(client, r"^Mode +Host \(access point\)$")
        client.type("q")
        assert client.end() == DONE
        assert given_back(client)
