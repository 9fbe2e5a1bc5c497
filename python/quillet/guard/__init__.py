"""A guard: keeps the tools' health of any server of the protocol, between it and its client."""
