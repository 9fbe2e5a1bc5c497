"""Refuses calls of disabled tools, records how the others end, and logs what that changes."""

import logging
import threading

from quillet.keeper.next_try import AT_ONCE, next_try_text
from quillet.protocol.results import json_safe
from quillet.tool_handlers.health import ToolHealthTracker

logger = logging.getLogger(__name__)


class ToolGate:
    """Knows which tools the log has reported as disabled, in an earlier run or in this one."""

    def __init__(self, tracker: ToolHealthTracker) -> None:
        self._tracker = tracker
        self._lock = threading.Lock()
        records = tracker.get_health_summary()
        self._logged = {record["tool_name"] for record in records if record["disabled"]}

    def refusal(self, tool: str) -> str | None:
        """What an agent is told that calls a disabled tool; None when the tool may be called."""
        disabled, last_error = self._tracker.is_disabled(tool)
        if not disabled:
            self._is_back(tool, "its cooldown has passed")
            return None
        error = "unknown" if last_error is None else json_safe(last_error)
        again = self._next_try(tool) or AT_ONCE
        return f"{tool} kept failing and is disabled; {again}; last error: {error}"

    def failed(self, tool: str, error: str) -> None:
        """Records an error, and logs it when that has disabled the tool."""
        self._tracker.record_error(tool, error)
        again = self._next_try(tool)
        with self._lock:
            if again and tool not in self._logged:
                self._logged.add(tool)
                logger.warning("%s kept failing and is disabled; %s", tool, again)

    def succeeded(self, tool: str) -> None:
        """Records a success, which enables the tool if need be."""
        self._tracker.record_success(tool)
        self._is_back(tool, "a call of it succeeded")

    def _is_back(self, tool: str, why: str) -> None:
        """Logs it when a tool that may be called was disabled before."""
        with self._lock:
            if tool in self._logged:
                self._logged.discard(tool)
                logger.info("%s is enabled again: %s", tool, why)

    def _next_try(self, tool: str) -> str | None:
        """When a disabled tool is tried again, in words; None if it is not disabled.

        The summary has at most as many records as there are tools, so that looking through it does
        not hold up the event loop.
        """
        for record in self._tracker.get_health_summary():
            if record["tool_name"] == tool and record["disabled"]:
                return next_try_text(record["disabled_at"], self._tracker.cooldown_s)
        return None
