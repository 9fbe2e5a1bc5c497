"""When a disabled tool is tried again."""

import math
from datetime import UTC, datetime, timedelta
from typing import Any

from quillet.tool_handlers.health import ToolHealthTracker

FORM = "%Y-%m-%d %H:%M:%S"
AT_ONCE = "it is tried again at the next call"


def next_try(disabled_at: str | None, cooldown_s: float) -> tuple[str | None, int | None]:
    """The moment, as a text in UTC, and the whole seconds until then, 0 once it has passed.

    `disabled_at` is a text in UTC, too. Its fraction of a second was cut off; with a second more,
    the moment is never too early. Both are None for a tool that is not disabled, or whose cooldown
    outlasts the calendar or is no number.
    """
    if disabled_at is None:
        return None, None
    try:
        disabled = datetime.strptime(disabled_at, FORM).replace(tzinfo=UTC)
        moment = disabled + timedelta(seconds=math.ceil(cooldown_s) + 1)
    except (OverflowError, ValueError):
        return None, None
    left = moment - datetime.now(UTC)
    return moment.strftime(FORM), max(0, math.ceil(left.total_seconds()))


def next_try_text(disabled_at: str | None, cooldown_s: float) -> str:
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
