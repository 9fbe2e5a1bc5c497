"""What the daemon hands to every handler beside the call's arguments."""

from dataclasses import dataclass
from pathlib import Path

from quillet.tool_handlers.health import ToolHealthTracker


@dataclass(frozen=True)
class ToolContext:
    """The repository's folder, its tools' health, and the most threads that the pools allow."""

    root: Path
    tracker: ToolHealthTracker
    thread_budget: int
