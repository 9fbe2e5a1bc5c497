"""The two trackers under the same collaborators, and the databases they are measured on."""

import sqlite3
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from plain_tracker import COLUMNS, PlainTracker
from quillet.tool_handlers import health

ACTIONS = [f"action_{number}" for number in range(10)]
SLOW_CALLS = frozenset({("tool_00000", "action_1"), ("tool_00001", None)})
SCHEMA = f"""CREATE TABLE tool_health ({COLUMNS}, PRIMARY KEY (tool_name));
            CREATE TABLE schema_info (key PRIMARY KEY, value);"""


@dataclass(frozen=True)
class Limits:
    """The tools settings; no tool comes back from its cooldown during a measurement."""

    disable_after_errors: int = 5
    disable_cooldown_s: float = 3600.0


class Spec:
    """A registered tool that has every action."""

    def action(self, name: str) -> str:
        """The entry of an action."""
        return name


class MemoryDb:
    """A database that keeps what it was last given and takes no time: the rest is the tracker's."""

    def __init__(self) -> None:
        self._rows: Sequence[tuple[Any, ...]] = []
        self._document: tuple[str] | None = None

    def fetchall(self, _: str) -> Sequence[tuple[Any, ...]]:
        """The rows of the latest flush."""
        return self._rows

    def fetchone(self, *_: object) -> tuple[str] | None:
        """The document of the latest flush."""
        return self._document

    def execute(self, _: str, parameters: tuple[str, str]) -> None:
        """Keep a document."""
        self._document = parameters[1:]

    def executemany(self, _: str, rows: Sequence[tuple[Any, ...]]) -> None:
        """Keep the rows."""
        self._rows = rows


class FileDb:
    """A database file with the two tables; each call is durable when it returns."""

    def __init__(self, path: Path) -> None:
        self._connection = sqlite3.connect(path)
        self._connection.executescript(SCHEMA)

    def fetchall(self, sql: str) -> list[Any]:
        """Every row of a statement."""
        return self._connection.execute(sql).fetchall()

    def fetchone(self, sql: str, parameters: tuple[Any, ...]) -> Any:
        """The first row of a statement, or None."""
        return self._connection.execute(sql, parameters).fetchone()

    def execute(self, sql: str, parameters: tuple[Any, ...]) -> None:
        """Run and commit one statement."""
        with self._connection:
            self._connection.execute(sql, parameters)

    def executemany(self, sql: str, rows: Sequence[tuple[Any, ...]]) -> None:
        """Run one statement for each row and commit them together."""
        with self._connection:
            self._connection.executemany(sql, rows)


@dataclass
class Repository:
    """What a tracker asks of its repository."""

    db: MemoryDb | FileDb


def tool_name(number: int) -> str:
    """A tool's name, as a text of its own on each call."""
    return f"tool_{number:05d}"


def is_slow_call(tool: str, action: str | None) -> bool:
    """Whether that action of the tool is slow by nature."""
    return (tool, action) in SLOW_CALLS


TOOLS = {tool_name(number): Spec() for number in range(10_000)}
health.TOOLS = TOOLS
health.is_slow_call = is_slow_call

CONTENDERS: dict[str, Callable[[MemoryDb | FileDb], Any]] = {
    "component": lambda db: health.ToolHealthTracker(Repository(db), Limits()),
    "plain": lambda db: PlainTracker(Repository(db), Limits(), TOOLS, is_slow_call),
}


def change_tools(tracker: Any, tools: int) -> None:
    """Change the record of every tool."""
    for number in range(tools):
        tracker.record_success(tool_name(number))


def change_usage(tracker: Any, tools: int) -> None:
    """Change the ten usage keys of every tool."""
    for name in map(tool_name, range(tools)):
        for action in ACTIONS:
            tracker.record_call(name, action, "ok", alias_hit=False, duration_ms=1.25)


def filled(name: str, db: MemoryDb | FileDb, tools: int) -> Any:
    """A contender's tracker of so many changed tools with ten usage keys each."""
    tracker = CONTENDERS[name](db)
    change_tools(tracker, tools)
    change_usage(tracker, tools)
    return tracker


def both(tools: int) -> dict[str, Any]:
    """Each contender's tracker, filled, over a database in memory."""
    return {name: filled(name, MemoryDb(), tools) for name in CONTENDERS}
