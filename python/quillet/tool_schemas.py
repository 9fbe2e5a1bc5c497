"""What an agent is told of the tools: what they do, which arguments they take, which are slow."""

import inspect
from collections.abc import Callable, Mapping
from dataclasses import dataclass
from functools import cache
from reprlib import repr as shortened
from typing import Any

_SLOW_CALLS = {("search_text", None), ("count_lines", None), ("embed_text", None)}
_KINDS = {str: ("string", "a text"), int: ("integer", "a whole number")}
Handler = Callable[..., Any]


@dataclass(frozen=True)
class Parameter:
    """A handler's parameter, as its signature has it: `name: Annotated[kind, words] = default`."""

    name: str
    kind: type
    words: str
    default: Any

    @property
    def required(self) -> bool:
        """Whether a call has to give it."""
        return self.default is inspect.Parameter.empty

    def schema(self) -> dict[str, Any]:
        """Its values, as JSON Schema."""
        schema = {"type": _KINDS[self.kind][0], "description": self.words}
        return schema if self.required else {**schema, "default": self.default}


def is_slow_call(tool: str, action: str | None) -> bool:
    """Whether that action of the tool is slow by nature."""
    return (tool, action) in _SLOW_CALLS


def argument_problem(handler: Handler, arguments: Mapping[str, Any]) -> str | None:
    """Why a handler cannot take these; None when it can."""
    known = {parameter.name: parameter for parameter in _parameters(handler)}
    for name in arguments.keys() - known.keys():
        return f"there is no parameter {shortened(name)}, only: {', '.join(known) or 'none'}"
    for name, parameter in known.items():
        if name not in arguments:
            if parameter.required:
                return f"{name} is missing"
        elif type(arguments[name]) is not parameter.kind:  # a bool is no number
            return f"{name} must be {_KINDS[parameter.kind][1]}"
    return None


def description(handlers: Mapping[str | None, Handler]) -> str:
    """What a tool's handlers say of themselves, each after its action."""
    words = {action: handler.__doc__ or "" for action, handler in handlers.items()}
    return "\n".join(f"{action}: {doc}" if action else doc for action, doc in words.items())


def input_schema(handlers: Mapping[str | None, Handler]) -> dict[str, Any]:
    """The arguments that a tool with these handlers takes, its action among them."""
    properties: dict[str, Any] = {}
    required = []
    if actions := [action for action in handlers if action]:
        properties["action"] = {"type": "string", "enum": actions, "description": "what to do"}
        required += ["action"] if None not in handlers else []
    for handler in handlers.values():
        for parameter in _parameters(handler):
            properties[parameter.name] = parameter.schema()
            # What only some of several actions need is for these to ask for.
            required += [parameter.name] if parameter.required and len(handlers) == 1 else []
    if not properties:
        return {"type": "object", "additionalProperties": False}
    return {"type": "object", "properties": properties, "required": required}


@cache
def _parameters(handler: Handler) -> list[Parameter]:
    """What a handler takes after the context."""
    _, *rest = inspect.signature(handler).parameters.values()
    return [
        Parameter(p.name, p.annotation.__origin__, p.annotation.__metadata__[0], p.default)
        for p in rest
    ]
