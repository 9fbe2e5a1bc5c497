"""A stand-in for the daemon around the tool-health component: just enough to serve real calls."""
