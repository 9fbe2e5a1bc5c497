"""What the daemon does around a tool call: running it, and saving what it left behind."""
