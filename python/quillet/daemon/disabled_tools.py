"""Says which tools are disabled: to the log when that changes, to an agent that calls one."""

import logging

from quillet.next_try import next_try
from quillet.tool_handlers.health import ToolHealthTracker

logger = logging.getLogger(__name__)


class DisabledTools:
    """The tools that the log knows to be disabled, those of an earlier run among them."""

    def __init__(self, tracker: ToolHealthTracker) -> None:
        self._tracker = tracker
        records = tracker.get_health_summary()
        self._logged = {record["tool_name"] for record in records if record["disabled"]}

    def failed(self, tool: str) -> None:
        """Logs it when the error just recorded has disabled the tool."""
        again = self._next_try(tool)
        if again and tool not in self._logged:
            self._logged.add(tool)
            logger.warning("%s kept failing and is disabled; %s", tool, again)

    def is_back(self, tool: str, why: str) -> None:
        """Logs it when a tool that may be called was disabled before."""
        if tool in self._logged:
            self._logged.discard(tool)
            logger.info("%s is enabled again: %s", tool, why)

    def answer(self, tool: str, last_error: str | int | float | bytes | None) -> str:
        """What an agent is told that calls a disabled tool."""
        if isinstance(last_error, bytes):  # as an edited database may have it
            last_error = last_error.decode("utf-8", "backslashreplace")
        error = "unknown" if last_error is None else last_error
        again = self._next_try(tool) or "it is back by now"
        return f"{tool} kept failing and is disabled; {again}; last error: {error}"

    def _next_try(self, tool: str) -> str | None:
        """That a disabled tool is tried again, and when; None for another.

        The summary has at most as many records as the registry has tools, so that looking through
        it does not hold up the event loop.
        """
        for record in self._tracker.get_health_summary():
            if record["tool_name"] == tool and record["disabled"]:
                # The time's fraction is cut off; a second more, and the moment is never too early.
                cooldown_s = self._tracker.cooldown_s + 1
                moment, seconds = next_try(record["disabled_at"], cooldown_s)
                if moment is None:
                    return "it is not tried again"
                return f"it is tried again at {moment} UTC, in {seconds} s"
        return None
