"""Finds what a call means: the handler it asks for, under whatever names it gives."""

from collections.abc import Mapping
from dataclasses import dataclass
from reprlib import repr as shortened
from typing import Any

from quillet.tool_registry import TOOLS, ToolSpec
from quillet.tool_schemas import Handler


class UnclearCall(Exception):
    """A call that does not say which tool, action or arguments it means."""


@dataclass(frozen=True)
class ToolCall:
    """A call in the registry's own names."""

    tool: str
    action: str | None
    handler: Handler
    arguments: dict[str, Any]
    alias_hit: bool  # whether a parameter or the action was named by a synonym


def resolve(tool: str, given: Mapping[str, Any]) -> ToolCall:
    """The call that an agent's arguments, the action among them, make of a tool."""
    spec = TOOLS.get(tool)
    if spec is None:
        raise UnclearCall(f"there is no tool {shortened(tool)}, only: {', '.join(TOOLS)}")
    arguments = {spec.parameter_synonyms.get(name, name): given[name] for name in given}
    if len(arguments) < len(given):
        raise UnclearCall("a parameter is given under two names")
    alias_hit = arguments.keys() != given.keys()
    named = arguments.pop("action", None)
    action = spec.action_synonyms.get(named, named) if isinstance(named, str) else named
    handler = spec.handlers.get(None) if action is None else spec.action(action)
    if handler is None:
        raise UnclearCall(f"{tool} has {_actions(spec)}, not {shortened(named)}")
    return ToolCall(tool, action, handler, arguments, alias_hit or action != named)


def _actions(spec: ToolSpec) -> str:
    names = ", ".join(name for name in spec.handlers if name)
    return f"the actions {names}" if names else "no actions"
