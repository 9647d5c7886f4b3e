"""For programs that are started as from a person's terminal."""

from __future__ import annotations

import signal


def forget_ignored_signals() -> None:
    """For what a test starts (`preexec_fn`): a person's terminal has nothing ignored, but who runs the tests may have.

    A shell's background ignores SIGINT and SIGQUIT, nohup(1) ignores SIGHUP, and children inherit it.
    """
    for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP, signal.SIGTSTP):
        signal.signal(number, signal.SIG_DFL)
