"""What a request costs, counted instead of timed: the same on a busy machine and on a quiet one."""
