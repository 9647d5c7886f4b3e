"""How a neighbour is told to misbehave: rules that are looked up before a fake answers.

A rule names a member (a D-Bus member, a tool's name, a control command), perhaps a subject (`on=`: the unit, the setting,
the object it concerns), what shall happen, and how many times (`times=`; for ever when not given). The newest rule that
fits is the one that holds.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any


@dataclass(frozen=True)
class Refuse:
    """Answer with an error; without a text, its message carries nothing but the name."""

    name: str
    text: str | None


@dataclass(frozen=True)
class Reply:
    """Answer with this instead of the truth, whatever its type."""

    signature: str
    body: list[Any]


@dataclass(frozen=True)
class Hang:
    """Do not answer until `release()`; then answer as if nothing had happened."""


@dataclass(frozen=True)
class Vanish:
    """Drop off in the middle of the call; the caller learns that its peer is gone."""


@dataclass(frozen=True)
class Delay:
    """Answer truthfully, but so many seconds later."""

    seconds: float


@dataclass(frozen=True)
class Chatter:
    """Say this again and again, so many seconds apart, and do not answer until `release()`."""

    text: bytes
    seconds: float


@dataclass
class _Rule:
    member: str | None
    subject: str | None
    action: Any
    left: int | None


class Faults:
    """The rules of one fake."""

    def __init__(self) -> None:
        self._rules: list[_Rule] = []

    def add(self, member: str | None, on: str | None, action: Any, times: int | None) -> None:
        """Add a rule; None as member or subject fits all."""
        self._rules.append(_Rule(member, on, action, times))

    def take(self, member: str, subjects: tuple[str, ...]) -> Any | None:
        """The action for this call, if a rule fits it. One use of the rule is used up."""
        for rule in reversed(self._rules):
            if rule.left == 0 or rule.member not in (None, member):
                continue
            if rule.subject is None or rule.subject in subjects:
                if rule.left is not None:
                    rule.left -= 1
                return rule.action
        return None

    @property
    def any_call_hangs(self) -> bool:
        """Whether the newest rule that fits every call is one to hang."""
        general = [rule for rule in self._rules if rule.member is None and rule.subject is None and rule.left != 0]
        return bool(general) and isinstance(general[-1].action, Hang)

    def clear(self) -> None:
        """Forget all rules."""
        self._rules.clear()
