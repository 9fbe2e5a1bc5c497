"""What the arguments of a call must be, and which calls take long by nature."""

import inspect
from collections.abc import Callable
from typing import Any

_SLOW_CALLS = {("search_text", None), ("count_lines", None), ("embed_text", None)}


def is_slow_call(tool: str, action: str | None) -> bool:
    """Whether that action of the tool is slow by nature."""
    return (tool, action) in _SLOW_CALLS


def argument_problem(handler: Callable[..., Any], arguments: dict[str, Any]) -> str | None:
    """Why a handler, which takes the context first, cannot take these; None when it can."""
    try:
        inspect.signature(handler).bind(None, **arguments)
    except TypeError as error:
        return str(error)
    return None
