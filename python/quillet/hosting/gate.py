"""Refuses calls of disabled tools, records how the others end, and logs what that changes."""

import logging
import threading
import time

from quillet.hosting.next_try import FORM, next_try, next_try_text
from quillet.protocol.results import json_safe
from quillet.tool_handlers.health import ToolHealthTracker

logger = logging.getLogger(__name__)


class ToolGate:
    """Knows since when tools are disabled that the log has reported, in an earlier run or this one.

    So a refusal takes no longer with many tools: the tracker tells the time of all of them only.
    """

    def __init__(self, tracker: ToolHealthTracker) -> None:
        self._tracker = tracker
        self._lock = threading.Lock()
        records = tracker.get_health_summary()
        self._since = {r["tool_name"]: r["disabled_at"] for r in records if r["disabled"]}

    def refusal(self, tool: str) -> str | None:
        """What an agent is told that calls a disabled tool; None when the tool may be called."""
        disabled, last_error = self._tracker.is_disabled(tool)
        if not disabled:
            self._is_back(tool, "its cooldown has passed")
            return None
        error = "unknown" if last_error is None else json_safe(last_error)
        moment, seconds = next_try(self._since.get(tool, _now()), self._tracker.cooldown_s)
        until, then = "", ""
        if moment:
            until, then = (
                f" until {moment} UTC ({seconds} s from now)",
                ", or call it again after that",
            )
        words = f"it kept failing and is disabled{until}. Use another tool{then}."
        return f"{tool} was not run: {words} Last error: {error}"

    def failed(self, tool: str, error: str) -> None:
        """Records an error, and logs it when that has disabled the tool."""
        self._tracker.record_error(tool, error)
        if self._tracker.is_disabled(tool)[0]:
            now = _now()
            with self._lock:
                if tool not in self._since:
                    again = next_try_text(now, self._tracker.cooldown_s)
                    logger.warning("%s kept failing and is disabled; %s", tool, again)
                self._since[tool] = now

    def succeeded(self, tool: str) -> None:
        """Records a success, which enables the tool if need be."""
        self._tracker.record_success(tool)
        self._is_back(tool, "a call of it succeeded")

    def _is_back(self, tool: str, why: str) -> None:
        """Logs it when a tool that may be called was disabled before."""
        with self._lock:
            if self._since.pop(tool, None):
                logger.info("%s is enabled again: %s", tool, why)


def _now() -> str:
    """The moment in the form of the tracker's."""
    return time.strftime(FORM, time.gmtime())
