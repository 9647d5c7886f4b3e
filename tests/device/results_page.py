#!/usr/bin/python3
"""results_page.py EVIDENCE PAGE: writes the results page from what the scenarios left in the evidence folder."""

from __future__ import annotations

import json
import sys
from datetime import datetime, timezone
from pathlib import Path
from typing import Any

TITLES = {
    "test_access_point": "Access point",
    "test_station": "Station",
    "test_settings": "Settings changed by another program",
    "test_power": "Power, and daemons that die",
    "test_wired": "The wired DHCP server",
    "test_install": "Installation and removal",
    "test_endurance": "Endurance and cost",
}
KINDS = {"bus": "bus ", "log": "log ", "tool": "tool"}
SHOWN_LINES = 12
"""Of what another program said; the rest is in its own words, and long."""


def shortened(text: str) -> list[str]:
    """The lines of one piece of evidence, the middle of a long one left out."""
    lines = [line[:200] for line in text.splitlines() if line.strip()] or [""]
    if len(lines) > SHOWN_LINES:
        return [*lines[: SHOWN_LINES - 3], f"… {len(lines) - SHOWN_LINES + 1} lines …", *lines[-2:]]
    return lines


def scenario(result: dict[str, Any]) -> list[str]:
    """One scenario: what it is about, how it ended, and what it saw."""
    name = result["name"].removeprefix("test_").replace("_", " ")
    page = [
        f"### {name[0].upper()}{name[1:]}",
        "",
        f"**{result['outcome']}** in {result['seconds']:.0f} s. {' '.join(result['story'].split())}",
        "",
        "```text",
    ]
    for kind, text in result["entries"]:
        first, *rest = shortened(text)
        if kind in KINDS:
            page += [f"{KINDS[kind]} {first}", *(f"     {line}" for line in rest)]
    if result["problem"]:
        page += ["", *result["problem"].splitlines()[-40:]]
    return [*page, "```", ""]


def _order(module: str) -> int:
    """Modules in the order of their titles, those without one at the end."""
    return [*TITLES, module].index(module)


def figures(results: list[dict[str, Any]]) -> list[str]:
    """The table of everything measured."""
    rows = [text.split(": ", 1) for result in results for kind, text in result["entries"] if kind == "figure"]
    if not rows:
        return []
    return [
        "## Figures",
        "",
        "By the machine's own clock, at 500 million instructions a second.",
        "",
        "| What | Measured |",
        "|---|---|",
        *(f"| {name} | {value} |" for name, value in rows),
        "",
    ]


def main(evidence: Path, page: Path) -> None:
    """Writes the page, chapters in a fixed order."""
    results = [json.loads(path.read_text()) for path in sorted(evidence.glob("*.json"))]
    noted = Path("build/packages/armhf/commit")
    commit = noted.read_text(encoding="utf-8")[:12] if noted.exists() else "unknown"
    passed = sum(result["outcome"] == "passed" for result in results)
    lines = [
        "# What a booted device showed",
        "",
        f"Packages of commit {commit}, {datetime.now(timezone.utc):%Y-%m-%d %H:%M} UTC: {passed} of {len(results)} "
        "scenarios passed. Written by `scripts/test-device`.",
        "",
        "`bus` is what the daemon's and the settings daemon's objects said, `log` the journal with the seconds since",
        "the machine's start, `tool` what other programs saw.",
        "",
        *figures(results),
    ]
    for module in sorted({result["module"] for result in results}, key=_order):
        lines += [f"## {TITLES.get(module, module)}", ""]
        for result in results:
            if result["module"] == module:
                lines += scenario(result)
    page.parent.mkdir(parents=True, exist_ok=True)
    page.write_text("\n".join(lines))


if __name__ == "__main__":
    main(Path(sys.argv[1]), Path(sys.argv[2]))
