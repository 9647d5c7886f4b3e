"""Numbers of one program for one request, and arithmetic with them."""

from __future__ import annotations

from collections import Counter
from collections.abc import Mapping

Counts = dict[str, float]
"""A number for each name; "GROUP.NAME" for those that stand in a group, such as "calls.read"."""


def difference(more: Mapping[str, float], less: Mapping[str, float], times: int) -> Counts:
    """What one request takes, where `more` holds so many requests more than `less`: whatever else is in both falls away."""
    return {
        name: found / times
        for name in sorted({*more, *less})
        if (found := more.get(name, 0) - less.get(name, 0)) or name in more
    }


def tidy(counts: Mapping[str, float]) -> Counts:
    """Whole numbers where they are whole, the others to two decimals; without what never happens."""
    rounded = {name: round(value, 2) for name, value in counts.items()}
    return {name: int(value) if value == int(value) else value for name, value in sorted(rounded.items()) if value}


def total(*parts: Mapping[str, float]) -> Counts:
    """The sum of several."""
    sums: Counter[str] = Counter()
    for part in parts:
        sums.update(part)
    return dict(sums)
