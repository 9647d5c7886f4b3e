"""What the search is for."""

from __future__ import annotations


class Finding(AssertionError):
    """Something that must be true and is not. `rule` names which of the things that must be true."""

    def __init__(self, rule: str, text: str) -> None:
        super().__init__(f"{rule}: {text}")
        self.rule = rule
        self.text = text
