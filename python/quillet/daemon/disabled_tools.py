"""Says which tools are disabled: to the log when that changes, to an agent that calls one."""

import logging
import threading

from quillet.next_try import AT_ONCE, next_try_text
from quillet.protocol.results import plain
from quillet.tool_handlers.health import ToolHealthTracker

logger = logging.getLogger(__name__)


class DisabledTools:
    """The tools that the log knows to be disabled, those of an earlier run among them."""

    def __init__(self, tracker: ToolHealthTracker) -> None:
        self._tracker = tracker
        self._lock = threading.Lock()
        records = tracker.get_health_summary()
        self._logged = {record["tool_name"] for record in records if record["disabled"]}

    def failed(self, tool: str) -> None:
        """Logs it when the error just recorded has disabled the tool."""
        again = self._next_try(tool)
        with self._lock:
            if again and tool not in self._logged:
                self._logged.add(tool)
                logger.warning("%s kept failing and is disabled; %s", tool, again)

    def is_back(self, tool: str, why: str) -> None:
        """Logs it when a tool that may be called was disabled before."""
        with self._lock:
            if tool in self._logged:
                self._logged.discard(tool)
                logger.info("%s is enabled again: %s", tool, why)

    def answer(self, tool: str, last_error: str | int | float | bytes | None) -> str:
        """What an agent is told that calls a disabled tool."""
        error = "unknown" if last_error is None else plain(last_error)
        again = self._next_try(tool) or AT_ONCE
        return f"{tool} kept failing and is disabled; {again}; last error: {error}"

    def _next_try(self, tool: str) -> str | None:
        """That a disabled tool is tried again, and when; None for another.

        The summary has at most as many records as the registry has tools, so that looking through
        it does not hold up the event loop.
        """
        for record in self._tracker.get_health_summary():
            if record["tool_name"] == tool and record["disabled"]:
                return next_try_text(record["disabled_at"], self._tracker.cooldown_s)
        return None
