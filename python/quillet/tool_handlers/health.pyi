"""Tool health: which tools fail, which are disabled, and how all of them are used."""

import logging
from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Final, NotRequired, Protocol, TypeAlias, TypedDict

logger: logging.Logger

TOOL_USAGE_KEY: Final = "tool_usage"
_SQLITE_TIMESTAMP: Final = "%Y-%m-%d %H:%M:%S"
_TOOL_HEALTH_COLUMNS: Final = (
    "tool_name, call_count, error_count, last_error, disabled_at, updated_at"
)

# The SQLite values that an edited row may hold instead of a text.
_StoredText: TypeAlias = str | int | float | bytes | None
_UsageKey: TypeAlias = tuple[str, str | None, str, bool]  # tool, action, outcome, alias_hit

class _Database(Protocol):
    def fetchall(self, sql: str, /) -> Sequence[Sequence[Any]]: ...
    def fetchone(self, sql: str, parameters: tuple[Any, ...], /) -> Sequence[Any] | None: ...
    def execute(self, sql: str, parameters: tuple[Any, ...], /) -> object: ...
    def executemany(self, sql: str, rows: Sequence[tuple[Any, ...]], /) -> object: ...

class _Repository(Protocol):
    @property
    def db(self) -> _Database: ...

class _Limits(Protocol):
    @property
    def disable_after_errors(self) -> int: ...
    @property
    def disable_cooldown_s(self) -> float: ...

@dataclass
class _ToolState:
    """What is known about one tool's health; times in epoch seconds."""

    call_count: int = 0
    error_count: int = 0
    last_error: _StoredText = None
    disabled_at: float | None = None
    updated_at: float = 0.0
    consecutive_errors: int = 0

@dataclass
class _Usage:
    """The calls that one usage key counts, and their handlers' time in milliseconds."""

    calls: int = 0
    timed_calls: int = 0
    total_ms: float = 0.0

class UsageRow(TypedDict):
    """The calls of one action, outcome and use of a synonym. Only a type: not in the module."""

    action: str | None
    outcome: str
    alias_hit: bool
    calls: int
    avg_ms: float | None
    slow: bool

class HealthRecord(TypedDict):
    """One tool of `get_health_summary`. Only a type: not in the module."""

    tool_name: str
    call_count: int
    error_count: int
    last_error: _StoredText
    disabled: bool
    disabled_at: str | None
    updated_at: str
    usage: list[UsageRow]

class ToolPerformance(TypedDict):
    """One tool of `handle_get_tool_performance_stats`. Only a type: not in the module.

    The values are the timing collector's own.
    """

    name: str
    count: int
    avg_ms: float
    p95_ms: float
    min_ms: float
    max_ms: float
    errors: int

class ToolPerformanceStats(TypedDict):
    """The answer of `handle_get_tool_performance_stats`. Only a type: not in the module."""

    tools: list[ToolPerformance]

class ThreadReport(TypedDict):
    """The answer of `thread_census_report`. Only a type: not in the module."""

    os: NotRequired[int]
    python: int
    python_by_name: dict[str, int]
    budget: int
    warning: NotRequired[str]

class _ThreadCensus(Protocol):
    @property
    def os_threads(self) -> int | None: ...
    @property
    def python_total(self) -> int: ...
    @property
    def python_threads(self) -> Mapping[str, int]: ...

class ToolHealthTracker:
    """The health of a repository's tools.

    Counts every call, disables a tool that keeps failing and tries it again after a cooldown.
    The constructor and `flush` may block on the database; nothing else waits for it.
    """

    def __init__(self, repository: _Repository, limits: _Limits | None = None) -> None: ...
    @property
    def limits(self) -> _Limits: ...
    @property
    def cooldown_s(self) -> float: ...
    @property
    def has_unsaved_changes(self) -> bool: ...
    def record_call(
        self,
        tool_name: str,
        action: str | None,
        outcome: str,
        *,
        alias_hit: bool,
        duration_ms: float | None,
    ) -> None: ...
    def record_success(self, tool_name: str) -> None: ...
    def record_error(self, tool_name: str, error: str | None) -> None: ...
    def is_disabled(self, tool_name: str) -> tuple[bool, _StoredText]: ...
    def flush(self) -> int: ...
    def get_health_summary(self) -> list[HealthRecord]: ...
    @property
    def _repo(self) -> _Repository: ...
    @property
    def _limits(self) -> _Limits: ...
    @property
    def _state(self) -> dict[str, _ToolState]: ...
    @property
    def _dirty(self) -> set[str]: ...
    @property
    def _usage(self) -> dict[_UsageKey, _Usage]: ...
    @property
    def _usage_dirty(self) -> bool: ...
    def _load(self) -> None: ...
    def _load_usage(self) -> None: ...
    def _flush_health(self) -> int: ...
    def _flush_usage(self) -> int: ...

def _sqlite_time(epoch: float | None) -> str | None:
    """The timestamp text, in UTC, of a time in epoch seconds."""

def _epoch(text: str | None) -> float | None:
    """The epoch seconds of a timestamp text; None for one that cannot be read."""

def _known(tool: object, action: object) -> bool:
    """Whether the registry has the tool and, unless `action` is None, that action."""

def handle_get_tool_performance_stats() -> ToolPerformanceStats:
    """The performance metrics of all tools, as the timing collector has them."""

def thread_census_report(budget: int, census: _ThreadCensus | None = None) -> ThreadReport:
    """A report on the process's threads, with a warning when there are more than the budget."""
