"""The two trackers under the same collaborators, over a database of no cost of its own."""

from collections.abc import Callable, Sequence
from types import SimpleNamespace
from typing import Any

from plain_tracker import PlainTracker
from quillet.config import ToolsConfig
from quillet.tool_handlers import health

ACTIONS = 10
SLOW_CALLS = frozenset({("tool_00000", "action_1"), ("tool_00001", None)})
LIMITS = ToolsConfig(5, 3600.0)  # no tool comes back from its cooldown during a measurement


class Spec:
    """A registered tool that has every action."""

    def action(self, name: str) -> str:
        return name


class MemoryDb:
    """A database that keeps what it was last given and takes no time: the rest is the tracker's."""

    def __init__(self) -> None:
        self._rows: Sequence[tuple[Any, ...]] = []
        self._document: tuple[str] | None = None

    def fetchall(self, _: str) -> Sequence[tuple[Any, ...]]:
        return self._rows

    def fetchone(self, *_: object) -> tuple[str] | None:
        return self._document

    def execute(self, _: str, parameters: tuple[str, str]) -> None:
        self._document = parameters[1:]

    def executemany(self, _: str, rows: Sequence[tuple[Any, ...]]) -> None:
        self._rows = rows


def tool_name(number: int) -> str:
    """A tool's name, as a text of its own on each call."""
    return f"tool_{number:05d}"


def is_slow_call(tool: str, action: str | None) -> bool:
    return (tool, action) in SLOW_CALLS


TOOLS = {tool_name(number): Spec() for number in range(10_000)}
health.TOOLS = TOOLS
health.is_slow_call = is_slow_call

CONTENDERS: dict[str, Callable[[Any], Any]] = {
    "component": lambda db: health.ToolHealthTracker(SimpleNamespace(db=db), LIMITS),
    "plain": lambda db: PlainTracker(SimpleNamespace(db=db), LIMITS, TOOLS, is_slow_call),
}


def change_all(tracker: Any, tools: int, actions: int = ACTIONS) -> None:
    """Change the record of every tool, and its usage keys."""
    names = [f"action_{number}" for number in range(actions)]
    for tool in map(tool_name, range(tools)):
        tracker.record_success(tool)
        for action in names:
            tracker.record_call(tool, action, "ok", alias_hit=False, duration_ms=1.25)


def filled(name: str, db: Any, tools: int, actions: int = ACTIONS) -> Any:
    """A contender's tracker of so many changed tools with so many usage keys each."""
    tracker = CONTENDERS[name](db)
    change_all(tracker, tools, actions)
    return tracker


def both(tools: int) -> dict[str, Any]:
    """Each contender's tracker, filled, over a database in memory."""
    return {name: filled(name, MemoryDb(), tools) for name in CONTENDERS}
