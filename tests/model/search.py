"""The search: random runs until one shows something, which is then made as short as it can be."""

from __future__ import annotations

import re
import time
import traceback
from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path

import hypothesis
from hypothesis import HealthCheck, Phase
from hypothesis.errors import Flaky

from .acts import Run, runs
from .finding import Finding
from .shorten import shorten
from .stage import Stage

RUNS_IN_A_WORLD = 40
MOST_TRIES = 4
"""How often a shorter run is tried before it counts as one that shows nothing: what depends on time does not always come."""


@dataclass
class Found:
    """Something that was found, with the shortest run that has shown it."""

    rule: str
    text: str
    run: Run
    at_step: int
    journal: str = ""
    times: int = 1
    file: Path | None = None
    """Where the run and what happened in it are kept."""


def _line(finding: Finding) -> str:
    """A finding in a line: of a traceback the last one says what it is."""
    lines = finding.text.strip().splitlines()
    return lines[-1 if finding.rule == "unexpected" else 0][:200]


def _form(rule: str, text: str) -> str:
    """What a finding says, without the values in it."""
    return rule + re.sub(r"[\[('\"].*?[\])'\"]|\d+|True|False|None", "", text.split(";")[0])


@dataclass
class Search:
    """One search with one random seed. `tell` is given what happens, a line at a time."""

    build: Path
    seed: int
    tell: Callable[[str], None] = print
    shortening: float = 120.0
    """Seconds for each of the two ways in which something found is made shorter."""
    steps: int = 0
    runs: int = 0
    found: list[Found] = field(default_factory=list)

    def search(
        self,
        *,
        steps: int | None = None,
        seconds: float | None = None,
        findings: int | None = None,
        until: Callable[[Found], bool] = lambda found: False,
        shrink: bool = True,
    ) -> None:
        """Search until so many steps are done, so many seconds are over, so much is found, or `until` says of something found
        that it was looked for."""
        self._shrinks = shrink
        began = time.monotonic()
        number = 0
        while True:
            with Stage(self.build) as stage:
                self._round(
                    stage,
                    self.seed * 1_000_003 + number,
                    lambda: (
                        (steps is not None and self.steps >= steps)
                        or (seconds is not None and time.monotonic() - began > seconds)
                        or (findings is not None and len(self.found) >= findings)
                        or any(map(until, self.found))
                    ),
                )
            number += 1
            if self._over:
                return

    def _round(self, stage: Stage, seed: int, over: Callable[[], bool]) -> None:
        self._over = False
        shortest: Found | None = None
        shrinks_until = 0.0

        def attempt(run: Run) -> None:
            nonlocal shortest, shrinks_until
            if shortest is None:
                self._over = self._over or over()
                if self._over:
                    return
            elif time.monotonic() > shrinks_until:
                return
            tries = 1 if shortest is None else MOST_TRIES
            for _ in range(tries):
                finding = self._try(stage, run, shortest is None)
                if finding is None or (shortest is not None and finding.rule != shortest.rule):
                    continue
                if shortest is None:
                    self.tell(f"step {self.steps}: {finding.rule}: {_line(finding)}")
                    shrinks_until = time.monotonic() + (0 if self._known(finding.rule, finding.text) else self.shortening)
                    shortest = Found(finding.rule, finding.text, run, self.steps)
                self._keep(stage, shortest, run, finding)
                raise finding

        phases = [Phase.generate, Phase.shrink] if self._shrinks else [Phase.generate]
        test = hypothesis.seed(seed)(
            hypothesis.settings(
                database=None,
                deadline=None,
                max_examples=RUNS_IN_A_WORLD,
                phases=phases,
                report_multiple_bugs=False,
                print_blob=False,
                verbosity=hypothesis.Verbosity.quiet,
                suppress_health_check=list(HealthCheck),
            )(hypothesis.given(runs())(attempt))
        )
        try:
            test()
        except (Finding, Flaky):
            pass
        if shortest is not None and self._shrinks and self._known(shortest.rule, shortest.text) is None:
            self._shorten(stage, shortest)
        if shortest is not None:
            known = self._known(shortest.rule, shortest.text)
            if known is None:
                self.found.append(shortest)
                folder = self.build / "chaos"
                folder.mkdir(exist_ok=True)
                shortest.file = folder / f"{shortest.rule}-{self.seed}-{shortest.at_step}.log"
                shortest.file.write_text(f"{report(shortest)}\n{shortest.journal}\n")
            else:
                known.times += 1

    def _shorten(self, stage: Stage, found: Found) -> None:
        """Leave out what can be left out, also where Hypothesis has given up because the finding does not come each time."""

        def shows(run: Run) -> bool:
            finding = self._try(stage, run, False)
            if finding is None or finding.rule != found.rule:
                return False
            self._keep(stage, found, run, finding)
            return True

        shorten(found.run, shows, self.shortening)

    def _keep(self, stage: Stage, found: Found, run: Run, finding: Finding) -> None:
        if len(run) <= len(found.run):
            found.run, found.text = run, finding.text
            found.journal = "\n".join(
                str(entry) for entry in stage.world.journal.since(stage.history.started) if entry.kind != "command"
            )

    def _known(self, rule: str, text: str) -> Found | None:
        """The earlier finding that says the same but for values."""
        return next((found for found in self.found if _form(found.rule, found.text) == _form(rule, text)), None)

    def _try(self, stage: Stage, run: Run, counts: bool) -> Finding | None:
        try:
            stage.begin(mode=run.mode, echo=run.echo, real_settings=run.real_settings)
            for act in run.acts:
                if counts:
                    self.steps += 1
                act.do(stage)
                stage.check_alive()
            stage.finish(addresses=run.addresses)
        except Finding as finding:
            return finding
        except Exception:
            # Nothing is hidden: what the search did not reckon with is a finding, too, if only about the search.
            return Finding("unexpected", traceback.format_exc())
        finally:
            if counts:
                self.runs += 1
        return None


def report(found: Found) -> str:
    """What was found, as text and as a test."""
    return (
        f"{found.rule} (step {found.at_step}, {found.times} times): {found.text}\n\n"
        f"{found.run.as_test('found_by_the_search')}\n\nwhat happened in it: {found.file}\n"
    )


__all__ = ["Found", "Search", "report"]
