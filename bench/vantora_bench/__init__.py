"""The figures of the daemon, each beside its floor. Run by scripts/bench."""
