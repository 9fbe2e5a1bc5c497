"""A daemon that serves tools: its streams, its session with a client, its tool calls."""
