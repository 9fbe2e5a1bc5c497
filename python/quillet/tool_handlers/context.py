"""What the daemon hands to every handler beside the call's arguments."""

from pathlib import Path
from typing import NamedTuple

from quillet.tool_handlers.health import ToolHealthTracker


class ToolContext(NamedTuple):
    """The repository's folder, its tools' health, and the most threads that the pools allow."""

    root: Path
    tracker: ToolHealthTracker
    thread_budget: int
