"""What the daemon hands to every handler beside the call's arguments, and what it takes back."""

from collections.abc import Mapping
from pathlib import Path
from typing import NamedTuple

from quillet.tool_handlers.health import ToolHealthTracker


class ToolContext(NamedTuple):
    """The repository's folder, its tools' health with notes on it, and the threads' budget."""

    root: Path
    tracker: ToolHealthTracker
    notes: Mapping[str, str]
    thread_budget: int  # the most that the pools allow


class CallerError(Exception):
    """Raised by a handler when the call asks for what there is not: the tool itself works."""
