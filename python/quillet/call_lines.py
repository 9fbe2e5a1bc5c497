"""The lines that the program reads in place of an agent's messages: a call or a pause each."""

import json
from typing import Any

MAX_WAIT_S = 5
FORMS = f'neither {{"tool": text, "arguments": object}} nor {{"wait_s": 0 to {MAX_WAIT_S}}}'


def parse_line(text: str) -> dict[str, Any] | None:
    """The call or pause on a line; None for an empty one or a comment.

    A ValueError says what is wrong. A tool's action is one of its call's arguments.
    """
    if not text.strip() or text.startswith("#"):
        return None
    try:
        value = json.loads(text)
    except (ValueError, RecursionError) as error:
        raise ValueError(f"not JSON: {error}") from error
    match value:
        case {"tool": str()} if value.keys() <= {"tool", "arguments"}:
            if isinstance(value.setdefault("arguments", {}), dict):
                return value
        case {"wait_s": int() | float() as seconds} if len(value) == 1:
            if 0 <= seconds <= MAX_WAIT_S and not isinstance(seconds, bool):
                return value
    raise ValueError(FORMS)
