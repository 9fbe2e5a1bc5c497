"""What the daemon hands to every handler beside the call's arguments."""

from asyncio import CancelledError
from dataclasses import dataclass
from pathlib import Path

from quillet.tool_handlers.health import ToolHealthTracker


@dataclass
class ToolContext:
    """The repository's folder, its tools' health, and the most threads that the pools allow."""

    root: Path
    tracker: ToolHealthTracker
    thread_budget: int
    stopping: bool = False

    def check_running(self) -> None:
        """Raises a CancelledError once the daemon stops; loops that take long look here."""
        if self.stopping:
            raise CancelledError("the daemon stops")
