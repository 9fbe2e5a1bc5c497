"""Finds what a call means: the handler it asks for, under whatever names it gives."""

from collections.abc import Mapping
from reprlib import repr as shortened
from typing import Any, NamedTuple

from quillet.tool_registry import TOOLS
from quillet.tool_schemas import Handler


class UnclearCall(Exception):
    """A call that does not say which action or arguments it means."""


class ToolCall(NamedTuple):
    """A call in the registry's own names."""

    tool: str
    action: str | None
    handler: Handler
    arguments: dict[str, Any]
    alias_hit: bool  # whether a parameter or the action was named by a synonym


def resolve(tool: str, given: Mapping[str, Any]) -> ToolCall:
    """The call that an agent's arguments, the action among them, make of a tool that there is."""
    spec = TOOLS[tool]
    arguments = {spec.parameter_synonyms.get(name, name): given[name] for name in given}
    if len(arguments) < len(given):
        raise UnclearCall("a parameter is given under two names")
    alias_hit = arguments.keys() != given.keys()
    named = arguments.pop("action", None)
    action = spec.action_synonyms.get(named, named) if isinstance(named, str) else named
    handler = spec.handlers.get(None) if action is None else spec.action(action)
    if handler is None:
        actions = ", ".join(filter(None, spec.handlers)) or "none"
        raise UnclearCall(f"{tool} has no action {shortened(named)}, only: {actions}")
    return ToolCall(tool, action, handler, arguments, alias_hit or action != named)
