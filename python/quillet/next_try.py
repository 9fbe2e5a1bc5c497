"""When a disabled tool is tried again."""

import math
from datetime import UTC, datetime, timedelta

FORM = "%Y-%m-%d %H:%M:%S"


def next_try(disabled_at: str | None, cooldown_s: float) -> tuple[str | None, int | None]:
    """The moment, as a text in UTC, and the whole seconds until then, 0 once it has passed.

    `disabled_at` is a text in UTC, too. Both are None for a tool that is not disabled, or whose
    cooldown outlasts the calendar or is no number.
    """
    if disabled_at is None:
        return None, None
    try:
        moment = datetime.strptime(disabled_at, FORM) + timedelta(seconds=cooldown_s)
    except (OverflowError, ValueError):
        return None, None
    left = moment.replace(tzinfo=UTC) - datetime.now(UTC)
    return moment.strftime(FORM), max(0, math.ceil(left.total_seconds()))
