"""What has happened since the device was last quiet, as far as it decides what must be true when it is quiet again."""

from __future__ import annotations

import time
from typing import Any

JUST_SAID = 0.5
"""Seconds within which a listener that is ended may not have read what was said."""
ENABLED, DISABLED = b"AP-ENABLED", b"AP-DISABLED"


class History:
    """Notes of the played neighbours and of the acts of a run."""

    def __init__(self) -> None:
        self.started = 0
        """The journal's mark at the daemon's start."""
        self.since = 0
        """The journal's mark at the end of the last quiet."""
        self.logs_since = 0
        """The same, though a daemon has been started meanwhile."""
        self.judged = 0
        """The journal's mark when the device was last looked at."""
        self.known: dict[str, Any] = {}
        """What somebody who follows the announcements knew then."""
        self.disturbed: set[str] = set()
        """What has happened that the daemon need not get over by itself, or may complain of."""
        self.complaints: set[str] = set()
        """What has happened that it may complain of, but must get over."""
        self.stored: dict[str, Any] = {}
        """Writes of properties that were acknowledged as stored: property and value."""
        self.changed_settings: set[tuple[str, str]] = set()
        """Settings that somebody else has changed."""
        self.initialised: bool | None = False
        """What the daemon has heard of the access point; None where that cannot be told."""
        self.said: list[bool] = []
        """What hostapd has said of it since then to an attached listener."""
        self.heard: list[bool] = []
        """Those of them that a listener has certainly read."""
        self.gap = False
        """Whether hostapd was stopped or replaced meanwhile, so that somebody may have listened in vain."""
        self.station: str | None = ""
        """What the daemon has heard of the station; None where that cannot be told."""
        self.unprotected = False
        """Whether hostapd has been started on a file that makes an access point without a passphrase, or none at all."""
        self.address_events = 0
        self.patience = 0.0
        """Seconds by which it may take longer to come to rest."""
        self.backlog = 0.0
        """Seconds that what has been told the daemon may keep it from the next request."""
        self.remedied = False
        """Whether the device had to be brought into order by hand."""
        self._ordered_to_stop = False
        self._said_at = 0.0

    def new_daemon(self, mark: int) -> None:
        """A daemon starts: it knows nothing, and nobody knows anything of it."""
        if not self.started:
            self.logs_since = mark
        self.started = self.since = mark
        self.known = {}
        self.initialised, self.station = False, ""
        self.said.clear()
        self.heard.clear()
        self.gap = True
        self.disturbed.discard("deaf")

    def quiet(self, mark: int, known: dict[str, Any]) -> None:
        """The device is quiet, and all is as it must be."""
        self.since, self.known, self.logs_since = mark, known, mark
        self.disturbed.clear()
        self.complaints.clear()
        self.said.clear()
        self.heard.clear()
        self.stored.clear()
        self.changed_settings.clear()
        self.gap = self.remedied = False
        self.address_events = 0
        self.patience = self.backlog = 0.0

    # hostapd

    def access_point_said(self, data: bytes) -> None:
        """An event went to a listener that is there."""
        for text, value in ((ENABLED, True), (DISABLED, False)):
            if text in data:
                self.initialised = value
                self.said.append(value)
                self._said_at = time.monotonic()

    def stop_ordered(self) -> None:
        """The daemon has it stopped: what it says then is not listened to, nor is what it has only just said."""
        if time.monotonic() - self._said_at < JUST_SAID:
            self.initialised = None
        self._ordered_to_stop = True
        self.gap = True

    def listener_attached(self) -> None:
        """Somebody asks to be told."""
        self._ordered_to_stop = False

    def access_point_ends(self, attached_once: bool, attached: bool, *, killed: bool) -> None:
        """hostapd ends. When it was asked to, it says so, and whoever has attached to it hears that."""
        self.gap = True
        if self._ordered_to_stop:
            return
        if not killed and attached_once:
            self.initialised = False
        if killed and attached:
            self.disturbed.add("deaf")
        if killed:
            self.patience = max(self.patience, 12.0)
            self.complaints.add("hostapd killed")

    # wpa_supplicant

    def station_said(self, word: str) -> None:
        """wpa_supplicant has reported a state. A passphrase that is refused reads as a disconnection in the handshake."""
        if self.station is not None or word != "disconnected":
            refused = word == "disconnected" and self.station == "4way_handshake"
            self.station = "failed" if refused else word
