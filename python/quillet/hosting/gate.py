"""Refuses calls of disabled tools, records how the others end, and logs what that changes."""

import logging
import threading
import time

from quillet.hosting.next_try import next_try, next_try_text
from quillet.protocol.results import json_safe
from quillet.tool_handlers.health import ToolHealthTracker

logger = logging.getLogger(__name__)


class ToolGate:
    """Remembers since when each disabled tool is: exactly, or in whole seconds from an earlier run.

    The tracker tells these times only for all tools at once, which takes long with many tools.
    """

    def __init__(self, tracker: ToolHealthTracker) -> None:
        self._tracker = tracker
        self._lock = threading.Lock()
        records = tracker.get_health_summary()
        self._since: dict[str, float | str]
        self._since = {r["tool_name"]: r["disabled_at"] for r in records if r["disabled_at"]}

    def refusal(self, tool: str) -> str | None:
        """What an agent is told that calls a disabled tool; None when the tool may be called."""
        disabled, last_error = self._tracker.is_disabled(tool)
        if not disabled:
            self._is_back(tool, "its cooldown has passed")
            return None
        error = "unknown" if last_error is None else json_safe(last_error)
        moment, seconds = next_try(self._since.get(tool), self._tracker.cooldown_s)
        until = f" until {moment} UTC ({seconds} s from now)" if moment else ""
        advice = f"Use another tool{', or call it again after that' if moment else ''}."
        words = f"it kept failing and is disabled{until}. {advice} Last error: {error}"
        return f"{tool} was not run: {words}"

    def failed(self, tool: str, error: str) -> None:
        """Records an error, and logs it when that has disabled the tool."""
        self._tracker.record_error(tool, error)
        if self._tracker.is_disabled(tool)[0]:
            now = time.time()
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
