"""What an agent is told of the tools: what they do, which arguments they take, which are slow."""

import inspect
from collections.abc import Callable, Mapping
from reprlib import repr as shortened
from typing import Any

_SLOW_CALLS = {("search_text", None), ("count_lines", None), ("embed_text", None)}
_KINDS = {str: ("string", "a text"), int: ("integer", "a whole number")}
_REQUIRED = inspect.Parameter.empty
Handler = Callable[..., Any]


def is_slow_call(tool: str, action: str | None) -> bool:
    """Whether that action of the tool is slow by nature."""
    return (tool, action) in _SLOW_CALLS


def argument_problem(handler: Handler, arguments: Mapping[str, Any]) -> str | None:
    """Why a handler cannot take these; None when it can."""
    known = _parameters(handler)
    for name in arguments.keys() - known.keys():
        return f"there is no parameter {shortened(name)}, only: {', '.join(known) or 'none'}"
    for name, (kind, _, default) in known.items():
        if name not in arguments:
            if default is _REQUIRED:
                return f"{name} is missing"
        elif type(arguments[name]) is not kind:  # a bool is no number
            return f"{name} must be {_KINDS[kind][1]}"
    return None


def description(handlers: Mapping[str | None, Handler]) -> str:
    """What a tool's handlers say of themselves, each after its action."""
    words = {action: handler.__doc__ or "" for action, handler in handlers.items()}
    return "\n".join(f"{action}: {doc}" if action else doc for action, doc in words.items())


def input_schema(handlers: Mapping[str | None, Handler]) -> dict[str, Any]:
    """The arguments that a tool with these handlers takes, its action among them."""
    properties: dict[str, Any] = {}
    if None not in handlers:
        properties["action"] = {"type": "string", "enum": [*handlers], "description": "what to do"}
    for handler in handlers.values():
        for name, (kind, words, default) in _parameters(handler).items():
            schema = {"type": _KINDS[kind][0], "description": words}
            properties[name] = schema if default is _REQUIRED else {**schema, "default": default}
    if not properties:
        return {"type": "object", "additionalProperties": False}
    required = [name for name, schema in properties.items() if "default" not in schema]
    return {"type": "object", "properties": properties, "required": required}


def _parameters(handler: Handler) -> dict[str, tuple[type, str, Any]]:
    """What a handler takes after the context, `name: Annotated[kind, words] = default`."""
    _, *rest = inspect.signature(handler).parameters.values()
    return {
        p.name: (p.annotation.__origin__, p.annotation.__metadata__[0], p.default) for p in rest
    }
