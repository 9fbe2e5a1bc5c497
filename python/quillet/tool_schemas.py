"""What the arguments of a call must be, and which calls take long by nature."""

import inspect
from collections.abc import Callable, Mapping
from reprlib import repr as shortened
from typing import Any

_SLOW_CALLS = {("search_text", None), ("count_lines", None), ("embed_text", None)}
_KINDS = {str: "a text", int: "a whole number"}


def is_slow_call(tool: str, action: str | None) -> bool:
    """Whether that action of the tool is slow by nature."""
    return (tool, action) in _SLOW_CALLS


def argument_problem(handler: Callable[..., Any], arguments: Mapping[str, Any]) -> str | None:
    """Why a handler, which takes the context first, cannot take these; None when it can."""
    _, *parameters = inspect.signature(handler).parameters.values()
    for name in arguments.keys() - {parameter.name for parameter in parameters}:
        return f"there is no parameter {shortened(name)}"
    for parameter in parameters:
        given = arguments.get(parameter.name, parameter.default)
        if given is parameter.empty:
            return f"{parameter.name} is missing"
        if type(given) is not parameter.annotation:  # a bool is no number
            return f"{parameter.name} must be {_KINDS[parameter.annotation]}"
    return None
