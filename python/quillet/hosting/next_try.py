"""When a disabled tool is tried again."""

import math
import time
from datetime import UTC, datetime
from typing import Any

from quillet.tool_handlers.health import ToolHealthTracker

FORM = "%Y-%m-%d %H:%M:%S"
AT_ONCE = "it is tried again at the next call"


def next_try(disabled_at: float | str | None, cooldown_s: float) -> tuple[str | None, int | None]:
    """The moment, as a text in UTC, and the whole seconds until then, 0 once it has passed.

    `disabled_at` is in epoch seconds, or a text in UTC whose fraction of a second was cut off; with
    a second more, the moment is never too early. Both are None for a tool that is not disabled, or
    whose cooldown outlasts the calendar or is no number.
    """
    if disabled_at is None:
        return None, None
    try:
        if isinstance(disabled_at, str):
            disabled_at = datetime.strptime(f"{disabled_at}+0000", f"{FORM}%z").timestamp() + 1
        moment = datetime.fromtimestamp(math.ceil(disabled_at + cooldown_s), UTC)
    except (OverflowError, ValueError, OSError):
        return None, None
    left = min(disabled_at + cooldown_s - time.time(), cooldown_s)
    return moment.strftime(FORM), max(0, math.ceil(left))


def next_try_text(disabled_at: float | str | None, cooldown_s: float) -> str:
    """The same in words, for a person."""
    moment, seconds = next_try(disabled_at, cooldown_s)
    if moment is None:
        return "it is not tried again"
    return f"it is tried again at {moment} UTC, in {seconds} s" if seconds else AT_ONCE


def tools_with_next_try(tracker: ToolHealthTracker) -> list[dict[str, Any]]:
    """The summary of all tools, the worst first, with when the disabled ones are tried again."""
    tools: list[dict[str, Any]] = []
    for record in tracker.get_health_summary():
        moment, seconds = next_try(record["disabled_at"], tracker.cooldown_s)
        tools.append({**record, "tried_again_at": moment, "tried_again_in_s": seconds})
    return tools
