"""What keeps the health of tools, whosever they are: for the daemon, the guard and `status`."""
