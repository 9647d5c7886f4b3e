"""The soak: what it does and why is in README.md; the command is ./scripts/soak."""

from .run import Outcome, Plan, Sample, run

__all__ = ["Outcome", "Plan", "Sample", "run"]
