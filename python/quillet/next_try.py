"""When a disabled tool is tried again."""

import math
from datetime import UTC, datetime, timedelta

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
    """The same in words, for an agent and a person."""
    moment, seconds = next_try(disabled_at, cooldown_s)
    if moment is None:
        return "it is not tried again"
    return f"it is tried again at {moment} UTC, in {seconds} s" if seconds else AT_ONCE
