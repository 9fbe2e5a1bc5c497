"""The lines that the program reads in place of an agent's messages: a call or a pause each."""

import json
from collections.abc import Iterator
from typing import Any, TextIO

MAX_LINE_CHARS = 1_000_000
MAX_WAIT_S = 5
CALL_FORM = '{"tool": text, "arguments": object}'
WAIT_FORM = f'{{"wait_s": 0 to {MAX_WAIT_S}}}'


def read_lines(source: TextIO) -> Iterator[str]:
    """The lines, of which one that is too long is cut past its limit, and the rest left out."""
    limit = MAX_LINE_CHARS + 1
    while line := source.readline(limit):
        yield line
        while len(line) == limit and not line.endswith("\n"):
            line = source.readline(limit)


def parse_line(text: str) -> dict[str, Any] | None:
    """The call or pause on a line; None for an empty one or a comment.

    A ValueError says what is wrong. A tool's action is one of its call's arguments.
    """
    if len(text.removesuffix("\n")) > MAX_LINE_CHARS:
        raise ValueError(f"longer than {MAX_LINE_CHARS:,} characters")
    if not text.strip() or text.startswith("#"):
        return None
    try:
        value: Any = json.loads(text)
    except (ValueError, RecursionError) as error:
        raise ValueError(f"not JSON: {error}") from error
    match value:
        case {"tool": str() as tool, **others} if others.keys() <= {"arguments"}:
            arguments = others.get("arguments", {})
            if isinstance(arguments, dict):
                return {"tool": tool, "arguments": arguments}
        case {"wait_s": int() | float() as seconds} if len(value) == 1:
            if 0 <= seconds <= MAX_WAIT_S and not isinstance(seconds, bool):
                return {"wait_s": seconds}
    raise ValueError(f"neither {CALL_FORM} nor {WAIT_FORM}")
