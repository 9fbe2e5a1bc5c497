"""How calls end, as they are counted."""

from enum import StrEnum


class Outcome(StrEnum):
    """How a call ended."""

    OK = "ok"
    ERROR = "error"  # the tool failed
    DISABLED = "disabled"  # the tool is not to be run for now
    INVALID = "invalid"  # the call asks for what there is not
    CANCELLED = "cancelled"  # nobody waits for its answer any more
